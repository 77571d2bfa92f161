#include "reel/reel_dynamic.h"

#include <fcntl.h>
#include <sys/mman.h>
#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <unordered_map>
#include <vector>

#include "NT/NT_command.h"
#include "common/mrv_alloc.h"
#include "common/mrv_marks.h"
#include "reel/reel_app_tuple.h"
#include "reel/reel_current.h"
#include "reel/reel_device.h"
#include "reel/reel_get_expbuf.h"
#include "reel/reel_settings.h"
#include "reel/reel_tape_format.h"
#include "reel/reel_target.h"
#include "reel/reel_util.h"

namespace {

constexpr int kSkipObject = 1;
constexpr char kOverflowFile[] = "overflow";
constexpr char kIndexList[] = "idx_list";
// Fields of the index description: the index count, the counts of D and I
// indexes, and the first index's field.
constexpr int kIndexCountField = 2;
constexpr int kDCountField = 6;
constexpr int kICountField = 7;
constexpr int kFirstIndexField = 11;
constexpr int kIndexParts = 5;

static_assert(DYN_PAGES_START == 0x806);
static_assert(DYN_PAGE_MAX_UNITS * DYN_PAGE_UNIT <= DYN_PAGE_ROOM);

// ---- The file "overflow" ----------------------------------------------------
//
// Slots are written in the order they are taken. The newest slots wait in
// a buffer and go to the file in one write when it fills (or before the
// file is closed); slots that have reached the file are read back from a
// read-only mapping of it, remade when a slot beyond it is asked for, and
// by a read call when the mapping cannot be had. A slot whose write failed
// counts as never stored.

constexpr int32_t kPendingSlots = 128;

struct OverflowStore {
  int fd = -1;
  int32_t slots = 0;    // slots taken; a slot is never used twice
  int32_t written = 0;  // slots below this are in the file
  bool failed = false;  // a write failed: slots from `written` on are lost
  // Slots filed under each page number, oldest first.
  std::unordered_map<int32_t, std::vector<int32_t>> by_number;
  std::vector<unsigned char> pending;  // slots from `written` to `slots`
  const unsigned char* map = nullptr;
  int32_t mapped = 0;  // slots the mapping covers
};

OverflowStore store;

void unmap_store() {
  if (store.map != nullptr) munmap(const_cast<unsigned char*>(store.map), static_cast<size_t>(store.mapped) * DYN_PAGE_UNIT);
  store.map = nullptr;
  store.mapped = 0;
}

// Writes the waiting slots to the file. False when the write failed.
bool flush_pending() {
  const int32_t count = store.slots - store.written;
  if (count <= 0 || store.failed) return !store.failed;
  const size_t bytes = static_cast<size_t>(count) * DYN_PAGE_UNIT;
  const off_t at = static_cast<off_t>(store.written) * DYN_PAGE_UNIT;
  if (pwrite(store.fd, store.pending.data(), bytes, at) != static_cast<ssize_t>(bytes)) {
    store.failed = true;
    return false;
  }
  store.written = store.slots;
  return true;
}

// Takes the next slot for `unit` (DYN_PAGE_UNIT bytes). False when it could
// not be stored.
bool slot_write(const unsigned char* unit) {
  if (store.failed) return false;
  if (store.slots - store.written == kPendingSlots && !flush_pending()) return false;
  store.pending.resize(static_cast<size_t>(kPendingSlots) * DYN_PAGE_UNIT);
  std::memcpy(store.pending.data() + static_cast<size_t>(store.slots - store.written) * DYN_PAGE_UNIT, unit,
              DYN_PAGE_UNIT);
  ++store.slots;
  return true;
}

bool slot_read(unsigned char* bytes, int32_t slot) {
  if (slot < 0 || slot >= store.slots || (store.failed && slot >= store.written)) return false;
  if (slot >= store.written) {
    std::memcpy(bytes, store.pending.data() + static_cast<size_t>(slot - store.written) * DYN_PAGE_UNIT,
                DYN_PAGE_UNIT);
    return true;
  }
  if (slot >= store.mapped) {
    unmap_store();
    void* map = mmap(nullptr, static_cast<size_t>(store.written) * DYN_PAGE_UNIT, PROT_READ, MAP_SHARED, store.fd, 0);
    if (map != MAP_FAILED) {
      store.map = static_cast<const unsigned char*>(map);
      store.mapped = store.written;
    }
  }
  if (slot < store.mapped) {
    std::memcpy(bytes, store.map + static_cast<size_t>(slot) * DYN_PAGE_UNIT, DYN_PAGE_UNIT);
    return true;
  }
  const off_t at = static_cast<off_t>(slot) * DYN_PAGE_UNIT;
  return pread(store.fd, bytes, DYN_PAGE_UNIT, at) == DYN_PAGE_UNIT;
}

// ---- One file under restoration ---------------------------------------------

struct DynFile {
  int32_t shifts = 0;
  bool bad = false;
  int pass = DYN_PASS_PRIMARY;
  int32_t modulo = 0;
  DynGroupState* groups = nullptr;
  std::vector<unsigned char> page = std::vector<unsigned char>(DYN_PAGE_ROOM);
  std::vector<unsigned char> previous;  // the block before the one at hand
  int32_t previous_length = 0;
};

// A record cut over pages, put together.
unsigned char work[DYN_PAGE_ROOM];

void log_bad_page(DynFile& d, int32_t bytes) {
  reel_log_bad_block(reel_current.name.c_str(), d.page.data(), bytes);
  d.bad = true;
}

// Keeps `bytes` bytes as the group's tail, in the file's arena level.
void keep_tail(DynGroupState& g, const unsigned char* bytes, int32_t length) {
  g.tail_len = length;
  g.tail = nullptr;
  if (length <= 0) return;
  g.tail = static_cast<unsigned char*>(reel_arena_alloc(length));
  std::memcpy(g.tail, bytes, static_cast<size_t>(length));
}

// The records of a page from `cursor` on, and what the group's chain
// expects afterwards.
int page_records(unsigned char* page, int32_t length, int32_t cursor, int32_t stop, DynGroupState& g) {
  while (cursor <= stop - DYN_REC_HEADER) {
    if (dyn_is_end_mark(page + cursor)) return 1;
    if (dyn_record_size(page + cursor) == 0) {
      // The stream has slipped inside the page: a record may start a few
      // bytes either side.
      int32_t found = 0;
      for (int32_t at = -4; at <= 3 && found == 0; ++at) {
        found = reel_dyn_check_record(page + cursor + at);
        if (found == 1) cursor += at;
      }
      if (found == 2) return 1;
      if (found == 0) return 0;
    }
    const int32_t s = dyn_record_size(page + cursor);
    if (s < 5) return 1;
    if (cursor + s > stop) {
      if (cursor + s > length) break;
      stop = length;  // the end mark found was record data
    }
    const int r = reel_dyn_record(page + cursor);
    if (r == 0) return 1;
    if (r < 0) return 0;
    cursor += s;
  }
  if (stop == cursor && stop < dyn_page_units(page) * DYN_PAGE_UNIT) return 1;
  g.next_page = dyn_page_next(page);
  if (g.next_page == 0) return 1;
  keep_tail(g, page + cursor, std::max(0, stop - cursor));
  return 1;
}

// The next page of a group's chain: the record cut at the end of the last
// page is completed first.
int continue_chain(unsigned char* page, int32_t length, int32_t stop, DynGroupState& g) {
  g.next_page = 0;
  int32_t h = g.tail_len;
  if (h > 0) std::memcpy(work, g.tail, static_cast<size_t>(h));
  int32_t cursor = DYN_PAGE_HEAD;
  if (h < DYN_REC_HEADER) {
    // The tail held less than a record header.
    std::memcpy(work + h, page + DYN_PAGE_HEAD, static_cast<size_t>(DYN_REC_HEADER - h));
    cursor = DYN_PAGE_HEAD + DYN_REC_HEADER - h;
    h = DYN_REC_HEADER;
  }
  if (dyn_is_end_mark(work)) return 1;
  const int32_t s = dyn_record_size(work);
  const int32_t n = std::min(s - h, stop - cursor);
  if (n < 0) return 1;
  if (n > 0 && h + n > DYN_INLINE_LIMIT) {
    std::printf("%s big record is too long\n", reel_current.name.c_str());
    return 1;
  }
  std::memcpy(work + h, page + cursor, static_cast<size_t>(n));
  cursor += n;
  h += n;
  if (h >= s) {
    if (reel_dyn_record(work) < 0) return 0;
    return page_records(page, length, cursor, stop, g);
  }
  g.next_page = dyn_page_next(page);
  if (g.next_page == 0) return 1;
  keep_tail(g, work, h);
  return 1;
}

// Index of the first "q" among the DYN_SHIFT_WINDOW stream bytes that end
// at `pos` of the block, or DYN_SHIFT_WINDOW when there is none.
int32_t find_mark(const DynFile& d, const unsigned char* block, int32_t pos) {
  unsigned char window[DYN_SHIFT_WINDOW] = {};
  const int32_t from_previous = std::max(0, DYN_SHIFT_WINDOW + TAPE_HEADER_SIZE - pos);
  const int32_t start = std::max(0, d.previous_length - from_previous);
  const int32_t have = d.previous_length - start;
  std::memcpy(window + (from_previous - have), d.previous.data() + start, static_cast<size_t>(have));
  std::memcpy(window + from_previous, block + pos - (DYN_SHIFT_WINDOW - from_previous),
              static_cast<size_t>(DYN_SHIFT_WINDOW - from_previous));
  for (int32_t i = 0; i < DYN_SHIFT_WINDOW; ++i)
    if (window[i] == DYN_PAGE_MARK) return i;
  return DYN_SHIFT_WINDOW;
}

// The page head did not carry its mark: the page is taken again from
// where the mark stands. Returns the bytes of the head now held.
int32_t repair_shift(DynFile& d, const unsigned char* block, int32_t length, int32_t* pos, bool* no_page) {
  ++d.shifts;
  const int32_t i = find_mark(d, block, *pos);
  *no_page = i == DYN_SHIFT_WINDOW;
  const int32_t start = i + *pos - (DYN_SHIFT_WINDOW + DYN_PAGE_OFF_MARK);
  unsigned char* page = d.page.data();
  if (start < TAPE_HEADER_SIZE) {
    // The page began in the previous block.
    const int32_t back = std::min(TAPE_HEADER_SIZE - start, d.previous_length);
    std::memcpy(page, d.previous.data() + d.previous_length - back, static_cast<size_t>(back));
    const int32_t rest = std::min(DYN_PAGE_HEAD - back, length - TAPE_HEADER_SIZE);
    std::memcpy(page + back, block + TAPE_HEADER_SIZE, static_cast<size_t>(rest));
    *pos = TAPE_HEADER_SIZE + rest;
    return back + rest;
  }
  const int32_t n = std::min(DYN_PAGE_HEAD, length - start);
  std::memcpy(page, block + start, static_cast<size_t>(n));
  *pos = start + n;
  return n;
}

// Reads the pages of one part, from the page that follows its header page
// in the first block, until the data blocks end.
void page_loop(DynFile& d, unsigned char* block, int32_t* length) {
  unsigned char* page = d.page.data();
  int32_t pos = DYN_PAGES_START;
  int32_t held = 0;
  int32_t page_size = DYN_PAGE_UNIT;
  bool no_page = false;
  while (tape_block_type(block) == TAPE_BLOCK_DATA) {
    if (held < DYN_PAGE_HEAD && pos < *length) {
      const int32_t n = std::min(DYN_PAGE_HEAD - held, *length - pos);
      std::memcpy(page + held, block + pos, static_cast<size_t>(n));
      held += n;
      pos += n;
      if (held == DYN_PAGE_HEAD) {
        if (!dyn_page_marked(page)) held = repair_shift(d, block, *length, &pos, &no_page);
        const int32_t units = dyn_page_units(page);
        page_size = units <= DYN_PAGE_MAX_UNITS && dyn_page_marked(page) ? units * DYN_PAGE_UNIT : DYN_PAGE_UNIT;
      }
    }
    if (held >= DYN_PAGE_HEAD && held < page_size && pos < *length) {
      const int32_t n = std::min(page_size - held, *length - pos);
      std::memcpy(page + held, block + pos, static_cast<size_t>(n));
      held += n;
      pos += n;
    }
    if (held >= DYN_PAGE_HEAD && held >= page_size) {
      if (no_page || reel_dyn_page(page, held, d.pass, d.groups, d.modulo) == 0) log_bad_page(d, held);
      held = 0;
      no_page = false;
    }
    if (pos >= *length) {
      std::memcpy(d.previous.data(), block, static_cast<size_t>(*length));
      d.previous_length = *length;
      *length = reel_next_block(block);
      pos = TAPE_HEADER_SIZE;
    }
  }
  if (held > 0) {
    // The part ended inside a page.
    if (held < DYN_PAGE_HEAD) std::memset(page + held, 0, static_cast<size_t>(DYN_PAGE_HEAD - held));
    if (reel_dyn_page(page, held, d.pass, d.groups, d.modulo) == 0) log_bad_page(d, held);
  }
}

// Chains that went on in pages that arrived before their group reached
// them: fetched from "overflow" in group order.
void held_pages(DynFile& d) {
  unsigned char* page = d.page.data();
  for (int32_t g = 0; g <= d.modulo; ++g) {
    for (int32_t number = d.groups[g].next_page; number > 0;) {
      int32_t length = 0;
      if (reel_overflow_get(page, number, &length) == 0) {
        d.bad = true;
        break;
      }
      if (reel_dyn_page(page, length, DYN_PASS_HELD, d.groups, d.modulo) == 0) log_bad_page(d, length);
      if (!dyn_page_has_next(page)) break;
      number = dyn_page_next(page);
    }
  }
}

// Key and data of a page record, decoded.
std::string decoded(const unsigned char* bytes, int32_t length) {
  std::string out(static_cast<size_t>(length) + 1, '\0');
  reel_mask_copy(out.data(), bytes, length);
  out.resize(static_cast<size_t>(length));
  return out;
}

void index_line(const std::string& text) { NT_cmd_echo_append(kIndexList, text); }

}  // namespace

int reel_dyn_check_record(const unsigned char* p) {
  if (dyn_is_end_mark(p)) return 2;
  if (dyn_is_skip_mark(p)) return 1;
  const int32_t k = dyn_record_key_len(p);
  const int32_t s = dyn_record_size(p);
  const int32_t d = dyn_record_data_len(p);
  if (k == 0 || k > DYN_KEY_LIMIT || s == 0) return 0;
  return s == dyn_record_inline_size(k, d) || s == dyn_record_key_room(k) ? 1 : 0;
}

int reel_dyn_record(const unsigned char* r) {
  if (dyn_is_end_mark(r)) return 0;
  if (dyn_is_skip_mark(r)) return 1;
  const int32_t k = dyn_record_key_len(r);
  const int32_t s = dyn_record_size(r);
  const int32_t d = dyn_record_data_len(r);
  const int32_t first_page = dyn_record_first_page(r);
  char line[DYN_KEY_MAX + 64];
  if (k < 1 || k > DYN_KEY_MAX) {
    std::snprintf(line, sizeof line, "invalid key length [%d] ", k);
    reel_log_error(REEL_ERR_RECORD, line);
    return 1;
  }
  if (k >= DYN_KEY_LIMIT) {
    const std::string key = decoded(dyn_record_key(r), std::clamp(s - DYN_REC_HEADER, 0, k));
    std::snprintf(line, sizeof line, "incompatible key length [%d  %s]", k, key.c_str());
    reel_log_error(REEL_ERR_RECORD, line);
    return 1;
  }
  CurrentFile& f = reel_current;
  f.record_count += 1;
  f.key_bytes += k;
  f.data_bytes += d;
  if (reel_settings.analyse_mode) return 1;

  const int32_t key_room = dyn_record_key_room(k);
  if (s >= dyn_record_inline_size(k, d)) {
    const std::string key = decoded(dyn_record_key(r), k);
    if (d >= DYN_INLINE_LIMIT) {
      std::snprintf(line, sizeof line, "illegal tuple length [%d %s]", d, key.c_str());
      reel_log_error(REEL_ERR_RECORD, line);
      return -1;
    }
    reel_add_tuple_flipped(key.c_str(), k, r + key_room, d);
    return 1;
  }
  if (s < key_room) {
    // The header does not even cover its key: show what is there.
    reel_print_bytes(r, s);
    return -1;
  }
  const std::string key = decoded(dyn_record_key(r), k);
  if (d < DYN_LARGE_LIMIT) {
    reel_add_ltuple(key.c_str(), k, d, first_page);
  } else {
    std::snprintf(line, sizeof line, "illegal ltuple length [%d %s]", d, key.c_str());
    reel_log_error(REEL_ERR_RECORD, line);
  }
  return 1;
}

int reel_dyn_page(unsigned char* page, int32_t length, int pass, DynGroupState* groups, int32_t modulo) {
  if (length < DYN_PAGE_HEAD || !dyn_page_marked(page) || dyn_page_units(page) > DYN_PAGE_MAX_UNITS) return 0;
  int32_t stop = dyn_find_end_mark(page, DYN_PAGE_HEAD, length);
  const int32_t group = dyn_page_group(page);
  if (pass == DYN_PASS_PRIMARY) {
    if (group >= modulo) return 1;
    return page_records(page, length, DYN_PAGE_HEAD, stop, groups[group]);
  }
  const unsigned char kind = dyn_page_kind(page);
  if (kind == DYN_KIND_FREE) return 1;
  if (kind != DYN_KIND_NO_CHAIN && dyn_page_on_group(page) && group <= modulo &&
      groups[group].next_page == dyn_page_number(page))
    return continue_chain(page, length, stop, groups[group]);
  // A page its group has not reached yet, or a page of a large record.
  if (pass == DYN_PASS_OVERFLOW) reel_overflow_put(page, dyn_page_units(page) * DYN_PAGE_UNIT);
  return 1;
}

int reel_overflow_open() {
  reel_overflow_close();
  store.fd = open(kOverflowFile, O_RDWR | O_CREAT | O_TRUNC, 0644);
  store.slots = 0;
  store.written = 0;
  store.failed = false;
  store.by_number.clear();
  return store.fd >= 0 ? 1 : 0;
}

void reel_overflow_close() {
  unmap_store();
  if (store.fd >= 0) {
    flush_pending();
    close(store.fd);
  }
  store.fd = -1;
  store.pending = {};
}

void reel_overflow_put(const unsigned char* page, int32_t bytes) {
  if (bytes < DYN_PAGE_HEAD || store.fd < 0) return;
  const int32_t units = (bytes + DYN_PAGE_UNIT - 1) / DYN_PAGE_UNIT;
  if (store.slots + units > REEL_OVERFLOW_SLOTS) {
    std::printf("Block is overflowed!\n");
    return;
  }
  unsigned char unit[DYN_PAGE_UNIT];
  for (int32_t u = 0; u < units; ++u) {
    const int32_t n = std::min(DYN_PAGE_UNIT, bytes - u * DYN_PAGE_UNIT);
    std::memcpy(unit, page + u * DYN_PAGE_UNIT, static_cast<size_t>(n));
    std::memset(unit + n, 0, static_cast<size_t>(DYN_PAGE_UNIT - n));
    const int32_t slot = store.slots;
    if (!slot_write(unit)) return;
    store.by_number[u == 0 ? dyn_page_number(page) : 0].push_back(slot);
  }
}

int reel_overflow_get(unsigned char* page_buffer, int32_t page_number, int32_t* length_out) {
  auto it = store.by_number.find(page_number);
  if (store.fd < 0 || it == store.by_number.end() || it->second.empty()) return 0;
  const int32_t slot = it->second.front();
  it->second.erase(it->second.begin());
  if (!slot_read(page_buffer, slot)) return 0;
  *length_out = DYN_PAGE_UNIT;
  const int32_t units = dyn_page_units(page_buffer);
  if (units > DYN_PAGE_MAX_UNITS) return 0;
  for (int32_t u = 1; u < units; ++u) {
    if (!slot_read(page_buffer + u * DYN_PAGE_UNIT, slot + u)) return 0;
    *length_out += DYN_PAGE_UNIT;
  }
  return 1;
}

void reel_index_info(unsigned char* page, int32_t length) {
  if (length <= DYN_INDEX_OFF_TEXT) return;
  const int32_t count = std::min<int32_t>(dyn_index_count(page), length - DYN_INDEX_OFF_TEXT - 1);
  unsigned char* text = dyn_index_text(page);
  for (int32_t i = 0; i < count; ++i) text[i] = tape_flip(text[i]);
  text[count] = '\0';

  const unsigned char* cursor = text;
  char field[REEL_ATTRIBUTE_LIMIT + 1];
  int32_t indexes = 0, d_count = 0, i_count = 0;
  for (int n = 1; n < kFirstIndexField; ++n) {
    reel_next_attribute(&cursor, field, 0);
    if (n == kIndexCountField) indexes = std::atoi(field);
    if (n == kDCountField) d_count = std::atoi(field);
    if (n == kICountField) i_count = std::atoi(field);
  }
  char line[REEL_ATTRIBUTE_LIMIT + 64];
  std::snprintf(line, sizeof line, "'%s'  %d '('D - %d  I - %d')'", reel_current.name.c_str(), indexes, d_count,
                i_count);
  index_line(line);
  for (int32_t x = 0; x < indexes; ++x) {
    reel_next_attribute(&cursor, field, 0);
    // Parts behind value marks: name, type, number, one more letter.
    std::vector<std::string> parts(1);
    for (const char* c = field; *c != '\0'; ++c) {
      if (static_cast<unsigned char>(*c) == TAPE_VM)
        parts.emplace_back();
      else
        parts.back() += *c;
    }
    if (parts.size() < kIndexParts) return;
    const std::string& name = parts[1];
    const char type = parts[2].empty() ? ' ' : parts[2][0];
    const char letter = parts[4].empty() ? ' ' : parts[4][0];
    if (type == 'I')
      std::snprintf(line, sizeof line, "'    ' '%s' %c %c", name.c_str(), type, letter);
    else
      std::snprintf(line, sizeof line, "'    ' '%s' %c %c %d", name.c_str(), type, letter, std::atoi(parts[3].c_str()));
    index_line(line);
  }
}

void reel_dyn_file(unsigned char* buffer, int32_t* length) {
  const RunSettings& s = reel_settings;
  CurrentFile& f = reel_current;
  *length = reel_next_block(buffer);
  if (*length < DYN_FIRST_BLOCK_MIN || tape_block_type(buffer) != TAPE_BLOCK_DATA) {
    reel_log_error(REEL_ERR_SUB_DESC, "Dyn file header error");
    reel_skip_blocks(buffer, length, kSkipObject);
    return;
  }
  DynFile d;
  d.modulo = dyn_header_modulo(buffer);
  f.modulo = d.modulo < 2 ? 1 : reel_next_prime(2 * d.modulo);
  if (!s.analyse_mode && reel_prepare_hashed_target(1) == 0) {
    reel_skip_blocks(buffer, length, kSkipObject);
    return;
  }
  d.groups = static_cast<DynGroupState*>(mrv_calloc(static_cast<size_t>(d.modulo) + 1, sizeof(DynGroupState)));
  if (d.groups == nullptr) {
    reel_log_error(REEL_ERR_SYSTEM, "malloc o_buf failed");
    return;
  }
  if (reel_overflow_open() == 0) {
    std::printf("open overflow error\n");
    reel_skip_blocks(buffer, length, kSkipObject);
    mrv_free(d.groups);
    return;
  }
  const int32_t level = reel_push_level();
  const int32_t index_page = dyn_header_index_page(buffer);
  d.previous.resize(TAPE_MAX_BLOCK);
  std::memcpy(d.previous.data(), buffer, static_cast<size_t>(*length));
  d.previous_length = *length;

  page_loop(d, buffer, length);
  if (*length == s.level_sub && tape_block_type(buffer) == TAPE_BLOCK_DESCRIPTION &&
      tape_path_type(buffer, s.level_file) == TAPE_OBJECT_DAM) {
    // The overflow part, with a header page of its own.
    *length = reel_next_block(buffer);
    d.pass = DYN_PASS_OVERFLOW;
    page_loop(d, buffer, length);
  }
  held_pages(d);
  if (d.bad) reel_log_error(REEL_ERR_DATA, "unsolved data block error");
  if (d.shifts >= 1) {
    std::printf("File %s has %d shift errors\n", f.name.c_str(), d.shifts);
    if (dispmsg != nullptr) {
      std::fprintf(dispmsg, "File %s has %d shift errors\n", f.name.c_str(), d.shifts);
      std::fflush(dispmsg);
    }
  }
  int32_t index_length = 0;
  if (!s.analyse_mode && index_page > 0 && reel_overflow_get(d.page.data(), index_page, &index_length) == 1)
    reel_index_info(d.page.data(), index_length);

  mrv_free(d.groups);
  reel_pop_level(level);
  if (!s.analyse_mode) {
    reel_flush_tuples();
    reel_flush_ltuples();
  }
  reel_overflow_close();
  // A third sub-file is passed, so that it does not reach the dispatcher.
  if (*length == s.level_sub && tape_block_type(buffer) == TAPE_BLOCK_DESCRIPTION)
    reel_skip_blocks(buffer, length, kSkipObject);
}
