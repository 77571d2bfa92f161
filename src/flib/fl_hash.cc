#include "flib/fl_hash.h"

#include <algorithm>
#include <cstring>
#include <string_view>

#include "common/fl_errout.h"
#include "common/mrv_msgno.h"
#include "common/readconf.h"
#include "flib/fl_block.h"
#include "flib/fl_filehdr.h"
#include "flib/fl_lock.h"
#include "flib/fl_rel.h"
#include "flib/fl_report.h"
#include "flib/lrgfillib.h"

uint32_t M_groupno = 0;
uint32_t M_hash_modulo = 0;
uint32_t M_split_base = 1;

namespace {

constexpr uint32_t kBitrevMultiplier = 0x9C416B55u;
// A split by another process can move a key between hashing and locking;
// each pass re-hashes. The bound only guards against a table that never
// settles.
constexpr int kMaxHashPasses = 1000;

uint32_t rotr1(uint32_t h) { return (h >> 1) | (h << 31); }

uint32_t reverse_bits(uint32_t x) {
  uint32_t r = 0;
  for (int i = 0; i < 32; ++i) {
    r = (r << 1) | (x & 1u);
    x >>= 1;
  }
  return r;
}

// h = (h * 10 + byte) mod modulus over the key. Reducing once per eight
// bytes (and once for the rest) gives the same value, since every step is
// arithmetic modulo the modulus, and h * 10^8 plus eight bytes' worth
// stays far below 2^64 for any h below 2^32.
uint32_t decimal_loop(const uint8_t* key, int32_t length, uint32_t modulus) {
  if (modulus == 0) return 0;
  uint64_t h = 0;
  for (int32_t i = 0; i < length; i += 8) {
    const int32_t n = std::min(8, length - i);
    uint64_t part = 0, scale = 1;
    for (int32_t j = 0; j < n; ++j) {
      part = part * 10 + key[i + j];
      scale *= 10;
    }
    h = (h * scale + part) % modulus;
  }
  return static_cast<uint32_t>(h);
}

}  // namespace

uint32_t hash_decimal_static(const uint8_t* key, int32_t length, uint32_t modulo) {
  return decimal_loop(key, length, modulo);
}

uint32_t hash_decimal_dynamic(const uint8_t* key, int32_t length) {
  uint32_t b = M_split_base;
  uint32_t h = decimal_loop(key, length, b);
  if (h + b >= M_hash_modulo) return h;
  return decimal_loop(key, length, 2 * b);
}

uint32_t hash_fold_key(const uint8_t* key, int32_t length) {
  uint32_t h = 0;
  int32_t i = 0;
  for (;;) {
    if (i >= length) return h;
    uint32_t t = rotr1(h) ^ (static_cast<uint32_t>(key[i]) << 24);
    if (i + 1 >= length) return t ^ 0xAAAAAAu;
    h = t ^ (static_cast<uint32_t>(key[i + 1]) << 16);
    if (i + 2 >= length) return h ^ 0xAAAAu;
    if (i + 3 >= length) return h ^ (static_cast<uint32_t>(key[i + 2]) << 8) ^ 0xAAu;
    h = h ^ (static_cast<uint32_t>(key[i + 2]) << 8) ^ key[i + 3];
    i += 4;
  }
}

uint32_t hash_fold_string(const uint8_t* key, int32_t length) {
  const void* nul = length > 0 ? std::memchr(key, 0, static_cast<size_t>(length)) : nullptr;
  int32_t end = nul != nullptr ? static_cast<int32_t>(static_cast<const uint8_t*>(nul) - key) : length;
  return hash_fold_key(key, end);
}

uint32_t hash_bitrev_static(const uint8_t* key, int32_t length, uint32_t modulo) {
  if (modulo == 0) return 0;
  uint32_t x = hash_fold_string(key, length) * kBitrevMultiplier;
  return reverse_bits(x) % modulo;
}

uint32_t hash_bitrev_dynamic(const uint8_t* key, int32_t length) {
  uint32_t b = M_split_base;
  uint32_t reversed = reverse_bits(hash_fold_key(key, length) * kBitrevMultiplier);
  uint32_t k = 0;
  while (k < 31 && (1u << k) < b) ++k;
  uint32_t h = reversed & ((1u << k) - 1u);
  if (h + b >= M_hash_modulo) return h;
  return (reversed >> k) & 1u ? h + (1u << k) : h;
}

uint32_t hash_key_range(const uint8_t* key, int32_t length, const REL_TYPE* rel) {
  const auto& table = rel->key_ranges;
  if (table.empty()) return 0;
  std::string_view k(reinterpret_cast<const char*>(key), static_cast<size_t>(std::max(length, 0)));
  if (k < std::string_view(table[0])) return 0;
  size_t lo = 0, hi = table.size() - 1;
  while (lo < hi) {
    size_t mid = lo + (hi - lo + 1) / 2;
    std::string_view m(table[mid]);
    if (k > m) {
      lo = mid;
    } else if (k < m) {
      hi = mid - 1;
    } else {
      lo = hi = mid;
    }
  }
  return static_cast<uint32_t>(lo + 1);
}

uint32_t split_base_for(int32_t hashtype, uint32_t modulo, uint32_t min_modulo) {
  if (hash_is_key_range(hashtype)) return 1;
  if (hash_function(hashtype) == 1) {
    uint32_t b = 1;
    while (b <= modulo / 2) b *= 2;
    return b;
  }
  uint32_t b = min_modulo == 0 ? 1 : min_modulo;
  while (static_cast<uint64_t>(b) * 2 <= modulo) b *= 2;
  while (b > modulo && b > 1) b /= 2;
  return b;
}

void set_split_base(REL_TYPE* rel) {
  rel->split_base = split_base_for(rel->hashtype, static_cast<uint32_t>(rel->modulo),
                                   static_cast<uint32_t>(rel->min_modulo));
}

uint32_t M_hash_with_modulo(const uint8_t* key, int32_t length, uint32_t modulo, int32_t hashtype) {
  uint32_t group = 0;
  if (hash_is_dynamic(hashtype)) {
    M_hash_modulo = modulo;
    switch (hash_function(hashtype)) {
      case 0:
        group = hash_decimal_dynamic(key, length);
        break;
      case 1:
        group = hash_bitrev_dynamic(key, length);
        break;
      default:
        M_msgno_out(MRV_MSG_UNKNOWN_HASH, "%d", hash_function(hashtype));
        break;
    }
  } else if (hashtype == 0) {
    group = hash_decimal_static(key, length, modulo);
  } else if (hashtype == 1) {
    group = hash_bitrev_static(key, length, modulo);
  } else {
    M_msgno_out(MRV_MSG_UNKNOWN_HASH, "%d", hashtype);
  }
  M_groupno = group;
  return group;
}

uint32_t M_hash(const uint8_t* key, int32_t length, REL_TYPE* rel) {
  if (rel->hashtype == HASH_KEY_RANGE) {
    M_groupno = hash_key_range(key, length, rel);
    return M_groupno;
  }
  if (hash_is_dynamic(rel->hashtype)) {
    if (rel->sfd != nullptr && static_cast<int32_t>(rel->sfd->modulo) != rel->modulo) {
      rel->modulo = static_cast<int32_t>(rel->sfd->modulo);
      set_split_base(rel);
    }
    M_split_base = rel->split_base;
  }
  return M_hash_with_modulo(key, length, static_cast<uint32_t>(rel->modulo), rel->hashtype);
}

size_t M_primary_row_of(const REL_TYPE* rel, uint32_t group) {
  for (size_t i = rel->primary.size(); i-- > 0;)
    if (rel->primary[i].first_group <= group) return i;
  return 0;
}

uint32_t M_get_head_off(REL_TYPE* rel, uint32_t group) {
  uint32_t b = rel->block_size;
  if (!rel_is_dynamic(rel)) return b * (group + 1);
  int32_t sfd_primary = rel->sfd != nullptr ? std::max<int32_t>(rel->sfd->primary_count, 1) : 1;
  if (sfd_primary == 1 && static_cast<int64_t>(group) + 1 < rel->groups_per_part) return b * (group + 1);
  if (rel->sfd != nullptr && static_cast<int32_t>(rel->primary.size()) != sfd_primary) {
    if (M_open_large_file(rel) < 0) {
      M_file_error(rel, "M_get_head_off", "M_open_large_file", nullptr, 0, static_cast<int32_t>(group));
      return 0;
    }
  }
  if (rel->primary.empty()) return 0;
  size_t row = M_primary_row_of(rel, group);
  uint32_t first = rel->primary[row].first_group;
  uint64_t offset = static_cast<uint64_t>(b) * (group - std::min(first, group) + 1);
  if (offset > ADDR_OFFSET_MASK) return 0;
  return static_cast<uint32_t>(row) | static_cast<uint32_t>(offset);
}

int64_t M_dyn_hash(REL_TYPE* rel, const uint8_t* key, int32_t length, int32_t lock_mode) {
  uint32_t locked_head = 0;
  uint32_t locked_group = 0;
  for (int pass = 0; pass < kMaxHashPasses; ++pass) {
    uint32_t group = M_hash(key, length, rel);
    if (locked_head != 0) {
      if (group == locked_group) return locked_head;
      M_unlock_block(rel, locked_head);
      locked_head = 0;
    }
    uint32_t head = M_get_head_off(rel, group);
    if (head == 0) continue;
    if (M_lock_block(rel, head, lock_mode) < 0) break;
    if (!rel_is_dynamic(rel) || M_check_file_stat(rel) == 0) return head;
    locked_head = head;
    locked_group = group;
  }
  if (locked_head != 0) M_unlock_block(rel, locked_head);
  std::string_view last(rel->path);
  size_t slash = last.rfind('/');
  if (slash != std::string_view::npos) last.remove_prefix(slash + 1);
  if ((last == "VOC" || last == "voc") && M_env_param("VOC_READONLY", 0) == 1) {
    M_file_error(rel, "M_dyn_hash", "Can't write to VOC since VOC_READONLY is set\n", key, length,
                 static_cast<int32_t>(M_groupno));
  } else {
    M_file_error(rel, "M_dyn_hash", "M_mrvlockf", key, length, static_cast<int32_t>(M_groupno));
  }
  return -1;
}
