#include "flib/fl_check.h"

#include <sys/stat.h>

#include <algorithm>
#include <cstdarg>
#include <cstdio>
#include <map>
#include <set>
#include <string>

#include "common/fl_errout.h"
#include "common/mrv_msg.h"
#include "flib/fl_block.h"
#include "flib/fl_filehdr.h"
#include "flib/fl_hash.h"
#include "flib/fl_io.h"
#include "flib/fl_open.h"
#include "flib/fl_ovhdr.h"
#include "flib/fl_rel.h"
#include "flib/fl_write.h"
#include "flib/lrgfillib.h"

namespace {

constexpr int32_t kMaxKeyLength = 126;

// What a block is used for. A block has one use, except that the blocks
// holding short records (and the last block of a long record) may serve
// several records.
enum class Use : char { kGroup = 'G', kData = 'D', kLong = 'L', kFree = 'F' };

const char* use_name(Use use) {
  switch (use) {
    case Use::kGroup: return "a group block";
    case Use::kData: return "a data block";
    case Use::kLong: return "a long record block";
    case Use::kFree: return "free";
  }
  return "?";
}

struct Checker {
  REL_TYPE* rel;
  std::vector<std::string>* findings;
  int count = 0;
  uint32_t b = 0;
  std::map<uint32_t, Use> uses;

  // Records the use of a block; a second, conflicting use is a finding.
  void claim(uint32_t address, Use use) {
    auto [it, fresh] = uses.emplace(address, use);
    if (fresh || (use == Use::kData && it->second == Use::kData)) return;
    add("block 0X%X is %s and %s", address, use_name(it->second), use_name(use));
  }

  // Every block behind the head blocks must be in use or free.
  void check_leaks(uint32_t address_base, int64_t first, int64_t end, const char* name) {
    for (int64_t offset = first; offset + b <= end; offset += b) {
      uint32_t address = address_base | static_cast<uint32_t>(offset);
      if (uses.count(address) == 0) add("%s: block 0X%X is neither used nor free", name, address);
    }
  }

  void add(const char* format, ...) __attribute__((format(printf, 2, 3))) {
    va_list args;
    va_start(args, format);
    findings->push_back(M_vformat(format, args));
    va_end(args);
    ++count;
  }

  // Reads a block without any check; reports and returns false on failure.
  bool read(uint32_t address, uint8_t* block, const char* what, uint32_t group) {
    int saved = V__Errout;
    V__Errout = 0;  // the finding says it once
    bool ok = M_blkread(rel, address, block, CHECK_NONE) == 1;
    V__Errout = saved;
    if (!ok) add("group %u: %s block 0X%X cannot be read", group, what, address);
    return ok;
  }

  // Size in bytes of the part (or static file) that an address lies in.
  int64_t part_size(uint32_t address) {
    struct stat st;
    if (!rel_is_dynamic(rel)) return stat(rel->path, &st) == 0 ? st.st_size : 0;
    char path[REL_NAME_SIZE + 16];
    uint32_t number = addr_part_index(address) + 1;
    M_part_path(rel, addr_is_overflow(address) ? number | PART_OVERFLOW : number, path, sizeof path);
    return stat(path, &st) == 0 ? st.st_size : 0;
  }

  bool address_in_file(uint32_t address) {
    uint32_t offset = addr_offset(address);
    if (!rel_is_dynamic(rel) && addr_part_index(address) != 0) return false;
    if (rel_is_dynamic(rel)) {
      size_t parts = addr_is_overflow(address) ? rel->overflow.size() : rel->primary.size();
      if (addr_part_index(address) >= parts) return false;
    } else if (addr_is_overflow(address)) {
      return false;
    }
    return offset >= b && offset % b == 0 && static_cast<int64_t>(offset) + b <= part_size(address);
  }

  // Follows the data blocks of a record that is not in its group block.
  void check_outside_record(uint32_t group, uint32_t position, int32_t length, uint8_t over_part) {
    uint32_t first = record_block_address(position, b, rel_is_dynamic(rel) ? over_part : 0);
    uint32_t in_block = (position & 0x7FFFFFFFu) % b;
    uint8_t block[MAX_BLOCK_SIZE];
    if (!address_in_file(first)) {
      add("group %u: record at 0X%X lies outside the file", group, position);
      return;
    }
    if (static_cast<uint32_t>(length) <= b - BLOCK_OVERHEAD) {
      claim(first, Use::kData);
      if (!read(first, block, "data", group)) return;
      uint32_t end = b - static_cast<uint32_t>(std::max<int16_t>(gb_byteleft(block), 0));
      if (in_block < DB_DATA || in_block + static_cast<uint32_t>(length) > end)
        add("group %u: record at 0X%X of length %d runs past the data of its block", group, position, length);
      return;
    }
    if (in_block != DB_DATA) {
      add("group %u: long record at 0X%X does not start a block", group, position);
      return;
    }
    uint32_t blocks = (static_cast<uint32_t>(length) + b - BLOCK_OVERHEAD - 1) / (b - BLOCK_OVERHEAD);
    uint32_t address = first;
    for (uint32_t i = 0; i < blocks; ++i) {
      if (!address_in_file(address)) {
        add("group %u: long record at 0X%X: block %u at 0X%X lies outside the file", group, position, i, address);
        return;
      }
      claim(address, i + 1 == blocks ? Use::kData : Use::kLong);
      if (!read(address, block, "long record", group)) return;
      uint8_t want = i == 0 ? FLAG_LONG_FIRST : (i + 1 == blocks ? FLAG_LONG_LAST : FLAG_LONG_MIDDLE);
      if ((gb_flags(block) & FLAG_LONG_MASK) != want)
        add("group %u: long record at 0X%X: block 0X%X has flags %u", group, position, address, gb_flags(block));
      uint32_t next = fl_get_u32(block, DB_NEXT);
      if (i + 1 < blocks && next == 0) {
        add("group %u: long record at 0X%X ends after %u of %u blocks", group, position, i + 1, blocks);
        return;
      }
      address = next;
    }
  }

  void check_keys(uint32_t group, uint32_t address, const uint8_t* block) {
    int32_t count = gb_key_count(block);
    int32_t datapos = gb_datapos(block);
    int32_t walk = datapos;
    int32_t floor = static_cast<int32_t>(ke_offset(count));
    int32_t key_bytes = 0;
    uint32_t previous = 0;
    for (int32_t row = 0; row < count; ++row) {
      int32_t n = walk - 1 >= floor ? block[walk - 1] : -1;
      if (n < 0 || n > kMaxKeyLength || walk - 1 - n < floor) {
        add("group %u block 0X%X: key %d runs out of the key area", group, address, row);
        return;
      }
      const uint8_t* key = block + walk - 1 - n;
      uint32_t hashed = M_hash(key, n, rel);
      if (hashed != group)
        add("group %u block 0X%X: key '%.*s' hashes to group %u", group, address, n,
            reinterpret_cast<const char*>(key), hashed);
      walk -= 1 + n;
      key_bytes += 1 + n;
      uint32_t position = ke_position(block, row);
      int32_t length = ke_length(block, row);
      if (row > 0 && position <= previous)
        add("group %u block 0X%X: row %d is not in ascending order", group, address, row);
      previous = position;
      if (length < 1) {
        add("group %u block 0X%X: row %d has length %d", group, address, row, length);
        continue;
      }
      if (position_in_block(position, address, b)) {
        uint32_t start = (position & 0x7FFFFFFFu) % b;
        uint32_t end = b - static_cast<uint32_t>(gb_byteleft(block));
        if (start < static_cast<uint32_t>(datapos) || start + static_cast<uint32_t>(length) > end)
          add("group %u block 0X%X: row %d record lies outside the data area", group, address, row);
      } else {
        check_outside_record(group, position, length, gb_over_part(block));
      }
    }
    if (key_bytes != gb_key_bytes(block))
      add("group %u block 0X%X: key bytes %d, the keys take %d", group, address, gb_key_bytes(block), key_bytes);
    if (static_cast<int32_t>(ke_offset(count + 1)) <= walk && ke_position(block, count) != 0)
      add("group %u block 0X%X: the row after the last is not 0", group, address);
  }

  void check_group(uint32_t group) {
    M_groupno = group;
    uint32_t address = M_get_head_off(rel, group);
    if (address == 0) {
      add("group %u: no head block", group);
      return;
    }
    std::set<uint32_t> seen;
    uint8_t block[MAX_BLOCK_SIZE];
    char text[64];
    for (bool head = true; address != 0; head = false) {
      if (!seen.insert(address).second) {
        add("group %u: chain loops back to 0X%X", group, address);
        return;
      }
      if (!address_in_file(address)) {
        add("group %u: block 0X%X lies outside the file", group, address);
        return;
      }
      if (!head) claim(address, Use::kGroup);
      if (!read(address, block, head ? "head" : "continuation", group)) return;
      uint8_t kind = gb_flags(block) & FLAG_KIND_MASK;
      if (kind != (head ? FLAG_HEAD : FLAG_CONTINUATION))
        add("group %u block 0X%X: flags %u, a %s block was expected", group, address, gb_flags(block),
            head ? "head" : "continuation");
      if (gb_group(block) != group) add("group %u block 0X%X: group field %u", group, address, gb_group(block));
      if (gb_hashtype(block) != static_cast<uint8_t>(rel->hashtype))
        add("group %u block 0X%X: hash type byte %u", group, address, gb_hashtype(block));
      if (!rel_is_dynamic(rel) && gb_over_part(block) != 0)
        add("group %u block 0X%X: overflow part %u in a static file", group, address, gb_over_part(block));
      if (rel_is_dynamic(rel) && gb_over_part(block) > rel->overflow.size())
        add("group %u block 0X%X: overflow part %u does not exist", group, address, gb_over_part(block));
      if (const char* fault = group_block_fault(block, b, head, text, sizeof text)) {
        add("group %u block 0X%X: %s", group, address, fault);
        return;
      }
      check_keys(group, address, block);
      check_group_free_list(group, block);
      address = gb_next(block);
    }
  }

  void check_group_free_list(uint32_t group, const uint8_t* head) {
    int32_t expected = gb_free_count(head);
    uint32_t address = gb_free_chain(head);
    uint8_t block[MAX_BLOCK_SIZE];
    int32_t found = 0;
    std::set<uint32_t> seen;
    while (address != 0 && found <= expected) {
      if (!seen.insert(address).second || !address_in_file(address)) {
        add("group %u: free list reaches a bad block 0X%X", group, address);
        return;
      }
      claim(address, Use::kFree);
      if (!read(address, block, "free", group)) return;
      if ((gb_flags(block) & FLAG_LOW_BITS) != 0)
        add("group %u: free block 0X%X has flags %u", group, address, gb_flags(block));
      ++found;
      address = fl_get_u32(block, DB_NEXT);
    }
    if (found != expected || address != 0)
      add("group %u: free count %d, the free list holds %d", group, expected, found);
  }

  void check_overflow_part(uint32_t number) {
    uint8_t block[MAX_BLOCK_SIZE];
    uint32_t address = make_addr(true, 0, number - 1);
    if (!read(address, block, "overflow header", 0)) return;
    OverflowHeader h = decode_overflow_header(block);
    if (h.stack_capacity != overflow_stack_capacity(b))
      add("over%03u: stack capacity %d, not %d", number, h.stack_capacity, overflow_stack_capacity(b));
    if (h.stack_count < 0 || h.stack_count > h.stack_capacity)
      add("over%03u: stack count %d", number, h.stack_count);
    for (int32_t i = 0; i < std::min<int32_t>(h.stack_count, overflow_stack_capacity(b)); ++i) {
      uint32_t entry = oh_stack_entry(block, i);
      if (!addr_is_overflow(entry) || !address_in_file(entry) || addr_part_index(entry) != number - 1)
        add("over%03u: free stack entry %d is 0X%X", number, i, entry);
      else
        claim(entry, Use::kFree);
    }
    if (number == 1) {
      if (h.merge_load > MAX_MERGE_LOAD) add("over001: merge load %u", h.merge_load);
      if (h.min_modulo == 0 || h.modulo < h.min_modulo)
        add("over001: modulo %u below minimum modulo %u", h.modulo, h.min_modulo);
      if (static_cast<size_t>(stored_part_count(h.primary_parts)) != rel->primary.size())
        add("over001: %d primary parts recorded, %zu open", stored_part_count(h.primary_parts), rel->primary.size());
      if (static_cast<size_t>(stored_part_count(h.overflow_parts)) != rel->overflow.size())
        add("over001: %d overflow parts recorded, %zu open", stored_part_count(h.overflow_parts), rel->overflow.size());
    }
    std::set<uint32_t> seen;
    uint32_t counted = static_cast<uint32_t>(std::clamp<int32_t>(h.stack_count, 0, overflow_stack_capacity(b)));
    struct CountCheck {
      Checker* c;
      const uint32_t* counted;
      uint32_t recorded;
      uint32_t number;
      ~CountCheck() {
        if (*counted != recorded)
          c->add("over%03u: free count %u, the stack and free list hold %u", number, recorded, *counted);
      }
    } count_check{this, &counted, h.free_count, number};
    for (uint32_t list = h.free_head; list != 0;) {
      if (!seen.insert(list).second || !address_in_file(list)) {
        add("over%03u: free list reaches a bad block 0X%X", number, list);
        return;
      }
      claim(list, Use::kFree);
      if (!read(list, block, "free list", 0)) return;
      if ((gb_flags(block) & FLAG_LOW_BITS) != FLAG_FREE_LIST)
        add("over%03u: free list block 0X%X has flags %u", number, list, gb_flags(block));
      int32_t last = fl_get_i16(block, FL_LAST_INDEX);
      if (last < 0 || last >= free_list_capacity(b)) {
        add("over%03u: free list block 0X%X has last index %d", number, list, last);
        return;
      }
      if (free_list_entry(block, last) != list)
        add("over%03u: free list block 0X%X does not end with itself", number, list);
      for (int32_t i = 0; i < last; ++i) {
        uint32_t entry = free_list_entry(block, i);
        if (!address_in_file(entry) || addr_part_index(entry) != number - 1)
          add("over%03u: free list block 0X%X entry %d is 0X%X", number, list, i, entry);
        else
          claim(entry, Use::kFree);
      }
      counted += static_cast<uint32_t>(last) + 1;
      list = fl_get_u32(block, FL_NEXT);
    }
  }

  void check_parts_on_disk() {
    struct stat st;
    char path[REL_NAME_SIZE + 16];
    M_part_path(rel, static_cast<uint32_t>(rel->primary.size() + 1), path, sizeof path);
    if (stat(path, &st) == 0) add("%s exists beyond the recorded primary parts", path);
    M_part_path(rel, static_cast<uint32_t>(rel->overflow.size() + 1) | PART_OVERFLOW, path, sizeof path);
    if (stat(path, &st) == 0) add("%s exists beyond the recorded overflow parts", path);
    for (size_t i = 1; i < rel->primary.size(); ++i)
      if (rel->primary[i].first_group <= rel->primary[i - 1].first_group)
        add("dat%03zu: first group %u does not follow %u", i + 1, rel->primary[i].first_group,
            rel->primary[i - 1].first_group);
    for (size_t i = 0; i < rel->primary.size(); ++i) {
      M_part_path(rel, static_cast<uint32_t>(i + 1), path, sizeof path);
      if (stat(path, &st) == 0 && st.st_size % b != 0) add("%s: size %lld is not a multiple of %u", path, static_cast<long long>(st.st_size), b);
    }
  }
};

}  // namespace

int M_check_file(const char* path, std::vector<std::string>* findings) {
  REL_TYPE rel;
  if (M_openfile(&rel, path, OpenMode::Read) != 1) {
    findings->push_back(std::string(path) + ": the file does not open");
    return 1;
  }
  Checker c{&rel, findings};
  c.b = rel.block_size;
  if (rel_is_dynamic(&rel)) {
    c.check_parts_on_disk();
    for (uint32_t p = 1; p <= rel.overflow.size(); ++p) c.check_overflow_part(p);
  }
  for (int32_t g = 0; g < rel.modulo; ++g) c.check_group(static_cast<uint32_t>(g));
  if (rel_is_dynamic(&rel)) {
    for (uint32_t p = 1; p <= rel.overflow.size(); ++p) {
      char name[16];
      std::snprintf(name, sizeof name, "over%03u", p);
      uint32_t base = make_addr(true, 0, p - 1);
      c.check_leaks(base, c.b, c.part_size(base), name);
    }
  } else {
    c.check_leaks(0, static_cast<int64_t>(c.b) * (rel.modulo + 1), c.part_size(0), "overflow space");
  }
  M_closefile(&rel);
  return c.count;
}
