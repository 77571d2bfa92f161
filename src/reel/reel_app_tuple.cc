#include "reel/reel_app_tuple.h"

#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

#include "NT/NT_command.h"
#include "NT/NT_fault.h"
#include "NT/NT_utils.h"
#include "common/mrv_alloc.h"
#include "common/mrv_exit.h"
#include "common/mrv_marks.h"
#include "common/mrv_msg.h"
#include "common/mrv_status.h"
#include "flib/fl_filehdr.h"
#include "flib/fl_hash.h"
#include "flib/fl_mem.h"
#include "flib/fl_mkfile.h"
#include "flib/fl_open.h"
#include "flib/fl_rel.h"
#include "flib/fl_voc.h"
#include "reel/reel_account.h"
#include "reel/reel_current.h"
#include "reel/reel_device.h"
#include "reel/reel_dynamic.h"
#include "reel/reel_resume.h"
#include "reel/reel_progress.h"
#include "reel/reel_settings.h"
#include "reel/reel_sizing.h"
#include "reel/reel_summary.h"
#include "reel/reel_tape_format.h"
#include "reel/reel_target.h"
#include "reel/reel_util.h"

TupleBuffer reel_small_tuples;
TupleBuffer reel_long_tuples;
int32_t reel_records_restored = 0;
int32_t reel_new_file = 0;
int32_t overflow_count = 0;

namespace {

constexpr char kSpillFile[] = "large__file";
constexpr char kResizeList[] = "resize_list";
constexpr char kResizeTemplate[] = "resz__XXXXXX";
constexpr int32_t kDotEvery = 5000;
constexpr int32_t kLineEvery = 400000;
// Room a record takes beyond its text: its descriptor and two terminators.
constexpr size_t kSmallOverhead = sizeof(TupleDesc) + 2;
constexpr size_t kLongOverhead = sizeof(TupleDesc) + 1;

int spill_fd = -1;
// 1 while a flush runs for a record that is in hand but not yet in a
// buffer: it is not one of the records that have gone out to the file.
int32_t in_hand = 0;

void reset(TupleBuffer& b) {
  b.text_end = 0;
  b.desc_begin = b.size;
  b.count = 0;
}

void alloc_buffer(TupleBuffer& b, size_t size) {
  // Descriptors are laid from the top: keep the top aligned for them.
  size -= size % alignof(TupleDesc);
  b.base = static_cast<unsigned char*>(mrv_malloc(size));
  if (b.base == nullptr) {
    M_errmsg(0, "malloc failed, please check -K option \n");
    mrv_exit(1, "reel/reel_app_tuple", __LINE__);
  }
  b.size = size;
  reset(b);
}

bool fits(const TupleBuffer& b, size_t text) { return b.text_end + text < b.desc_begin; }

TupleDesc* descriptors(const TupleBuffer& b) { return reinterpret_cast<TupleDesc*>(b.base + b.desc_begin); }

TupleDesc* take_descriptor(TupleBuffer& b) {
  b.desc_begin -= sizeof(TupleDesc);
  ++b.count;
  return descriptors(b);
}

char* put_text(TupleBuffer& b, const char* text, int32_t length) {
  char* at = reinterpret_cast<char*>(b.base + b.text_end);
  std::memcpy(at, text, static_cast<size_t>(length));
  at[length] = '\0';
  b.text_end += static_cast<size_t>(length) + 1;
  return at;
}

constexpr int32_t kPrefetchAhead = 8;

// Asks for the cache lines of a record's key and the start of its data.
void prefetch_text(const TupleDesc& d) {
#if defined(__GNUC__)
  __builtin_prefetch(d.key);
  __builtin_prefetch(d.key + d.key_len + 1);
#endif
}

// Groups of the gathered records in the open target, then their order:
// ascending group, and within a group the order of the descriptors, which
// grow down from the top (the latest record first). That is the order the
// run-time's sort gives (a merge sort, stable), so the records land in
// their blocks as they always have; a counting sort by group reaches it in
// one pass.
void sort_by_group(TupleBuffer& b, REL_TYPE* rel) {
  TupleDesc* d = descriptors(b);
  const auto n = static_cast<size_t>(b.count);
  int32_t top = 0;
  bool plain = true;  // every group in 0 .. 2^24
  for (size_t i = 0; i < n; ++i) {
    // The keys lie a record apart and left the cache since they were
    // gathered: the hash would wait for each one.
    if (i + kPrefetchAhead < n) prefetch_text(d[i + kPrefetchAhead]);
    d[i].group = static_cast<int32_t>(M_hash(reinterpret_cast<const uint8_t*>(d[i].key), d[i].key_len, rel));
    plain = plain && d[i].group >= 0 && d[i].group < (1 << 24);
    top = std::max(top, d[i].group);
  }
  if (n < 2) return;
  if (!plain) {
    std::stable_sort(d, d + n, [](const TupleDesc& l, const TupleDesc& r) { return l.group < r.group; });
    return;
  }
  std::vector<uint32_t> start(static_cast<size_t>(top) + 2, 0);
  for (size_t i = 0; i < n; ++i) ++start[static_cast<size_t>(d[i].group) + 1];
  for (size_t g = 1; g < start.size(); ++g) start[g] += start[g - 1];
  std::vector<TupleDesc> sorted(n);
  for (size_t i = 0; i < n; ++i) sorted[start[static_cast<size_t>(d[i].group)]++] = d[i];
  std::copy(sorted.begin(), sorted.end(), d);
}

// Console text written beside the messages (the dots): the status line
// makes way for it first.
void console_put(const char* text, bool flush) {
  reel_progress_clear();
  std::fputs(text, stdout);
  if (flush) std::fflush(stdout);
  M_console_note(text, std::strlen(text));
}

void count_restored(bool flush_dots) {
  ++reel_records_restored;
  reel_progress_record(reel_records_restored);
  if (reel_records_restored % kDotEvery != 0) return;
  console_put(reel_records_restored % kLineEvery == 0 ? ".\n" : ".", flush_dots);
}

// Hands one record to the buffered writer; true when it went in. Once a
// write into the file has failed nothing more is written into it: the
// record is dropped. A record the library refuses for itself is logged.
bool write_record(REL_TYPE* rel, char* key, int32_t key_len, char* data, int32_t data_len) {
  if (!reel_file_complete(reel_current)) return false;
  if (reel_settings.mark_translate) {
    reel_translate_marks(key, key_len, false);
    reel_translate_marks(data, data_len, true);
  }
  const uint64_t failed_before = NT_write_failures;
  if (M_mem_add_tuple(rel, reinterpret_cast<const uint8_t*>(key), key_len,
                      reinterpret_cast<const uint8_t*>(data), data_len) == 1)
    return true;
  if (NT_write_failures != failed_before)
    reel_write_failed(NT_last_write_errno);
  else
    reel_log_error(REEL_ERR_RECORD, std::string(key, static_cast<size_t>(key_len)).c_str());
  return false;
}

void write_long_buffer(REL_TYPE* rel) {
  TupleBuffer& b = reel_long_tuples;
  sort_by_group(b, rel);
  const TupleDesc* d = descriptors(b);
  for (int32_t i = 0; i < b.count; ++i)
    if (reel_load_ltuple(rel, d[i].key, d[i].key_len, d[i].data_len, d[i].first_page) == 1)
      count_restored(false);
  reset(b);
}

bool write_all(int fd, const void* data, size_t length) {
  return NT_write(fd, data, length) == static_cast<ssize_t>(length);
}

bool read_all(int fd, void* data, size_t length) {
  return static_cast<size_t>(NT_read(fd, data, length)) == length;
}

// The long buffer is full: its records go to the spill file as one run and
// the buffer starts again, so that nothing is written past the meeting
// point of its two ends. Without a spill file they are written into the
// target at once instead. Either way no record is lost or held twice.
void spill_long_buffer() {
  TupleBuffer& b = reel_long_tuples;
  if (spill_fd < 0) spill_fd = open(kSpillFile, O_RDWR | O_CREAT | O_TRUNC, 0644);
  if (spill_fd < 0) console_put("Can't open large file!\n", true);
  int32_t head[2] = {b.count, static_cast<int32_t>(b.desc_begin)};
  if (spill_fd >= 0 && write_all(spill_fd, head, sizeof head) && write_all(spill_fd, b.base, b.size)) {
    reset(b);
    return;
  }
  if (reel_current.rel != nullptr && reel_resize_check() != 0) write_long_buffer(reel_current.rel.get());
}

// The file's count goes to dispmsg and to the run summary: one number for
// both, so that the two always agree. It is what stands in the file at its
// close, whatever was read.
void log_restored(bool complete) {
  CurrentFile& f = reel_current;
  f.records_standing = reel_count_standing();
  reel_write_failure_done();
  reel_summary_file_end(f.records_standing, complete && reel_file_complete(f));
  if (dispmsg == nullptr) return;
  std::fprintf(dispmsg, "%d records restored\n", f.records_standing);
  std::fflush(dispmsg);
}

}  // namespace

void reel_translate_marks(char* text, int32_t length, bool all_marks) {
  if (M_RM == TAPE_RM) return;
  for (int32_t i = 0; i < length; ++i) {
    unsigned char& c = reinterpret_cast<unsigned char&>(text[i]);
    if (c == TAPE_RM)
      c = M_RM;
    else if (c == TAPE_FM)
      c = M_FM;
    else if (!all_marks)
      continue;
    else if (c == TAPE_VM)
      c = M_VM;
    else if (c == TAPE_SM)
      c = M_SM;
    else if (c == TAPE_TM)
      c = M_TM;
  }
}

void reel_init_tuples(int32_t k) {
  const size_t kib = k > 0 ? static_cast<size_t>(k) : 0;
  alloc_buffer(reel_small_tuples, kib * 1024);
  alloc_buffer(reel_long_tuples, kib * 256);
}

namespace {

// Gathers one record whose data `copy` writes: data_len bytes into `out`.
template <typename Copy>
void add_tuple(const char* key, int32_t key_len, int32_t data_len, Copy copy) {
  TupleBuffer& b = reel_small_tuples;
  const size_t text = static_cast<size_t>(key_len) + static_cast<size_t>(data_len) + kSmallOverhead;
  if (!fits(b, text)) {
    in_hand = 1;
    reel_flush_tuples();
    in_hand = 0;
  }
  if (!fits(b, text)) {
    // Larger than the whole buffer, or the flush was refused: the record
    // goes straight into the open target when there is one.
    if (reel_current.rel == nullptr || reel_resize_check() == 0) {
      reel_log_error(REEL_ERR_RECORD, key);
      return;
    }
    std::string k(key, static_cast<size_t>(key_len)), d(static_cast<size_t>(data_len), '\0');
    copy(d.data());
    if (write_record(reel_current.rel.get(), k.data(), key_len, d.data(), data_len)) count_restored(true);
    return;
  }
  TupleDesc* desc = take_descriptor(b);
  desc->key = put_text(b, key, key_len);
  desc->key_len = key_len;
  desc->first_page = 0;
  desc->data_len = data_len;
  char* at = reinterpret_cast<char*>(b.base + b.text_end);
  copy(at);
  at[data_len] = '\0';
  b.text_end += static_cast<size_t>(data_len) + 1;
}

}  // namespace

void reel_add_tuple(const char* key, int32_t key_len, const char* data, int32_t data_len) {
  add_tuple(key, key_len, data_len, [&](char* out) { std::memcpy(out, data, static_cast<size_t>(data_len)); });
}

void reel_add_tuple_flipped(const char* key, int32_t key_len, const unsigned char* tape_data, int32_t data_len) {
  add_tuple(key, key_len, data_len, [&](char* out) {
    tape_flip_keep_zero_copy(reinterpret_cast<unsigned char*>(out), tape_data, static_cast<size_t>(data_len));
  });
}

void reel_add_ltuple(const char* key, int32_t key_len, int32_t data_len, int32_t first_page) {
  TupleBuffer& b = reel_long_tuples;
  const size_t text = static_cast<size_t>(key_len) + kLongOverhead;
  if (!fits(b, text)) {
    in_hand = 1;
    spill_long_buffer();
    in_hand = 0;
  }
  if (!fits(b, text)) {
    reel_log_error(REEL_ERR_RECORD, key);
    return;
  }
  TupleDesc* desc = take_descriptor(b);
  desc->key = put_text(b, key, key_len);
  desc->key_len = key_len;
  desc->first_page = first_page;
  desc->data_len = data_len;
}

void reel_flush_tuples() {
  TupleBuffer& b = reel_small_tuples;
  if (b.count == 0 || reel_current.rel == nullptr) return;
  if (reel_resize_check() == 0) return;
  REL_TYPE* rel = reel_current.rel.get();
  sort_by_group(b, rel);
  TupleDesc* d = descriptors(b);
  for (int32_t i = 0; i < b.count; ++i) {
    // In group order the records lie all over the buffer: ask for the text
    // of a record a few places ahead while this one is written.
    if (i + kPrefetchAhead < b.count) prefetch_text(d[i + kPrefetchAhead]);
    if (write_record(rel, d[i].key, d[i].key_len, d[i].key + d[i].key_len + 1, d[i].data_len))
      count_restored(true);
  }
  reel_new_file = 0;
  reset(b);
}

void reel_flush_ltuples() {
  TupleBuffer& b = reel_long_tuples;
  if ((b.count == 0 && spill_fd < 0) || reel_current.rel == nullptr) return;
  if (reel_resize_check() == 0) return;
  if (b.count > 0) write_long_buffer(reel_current.rel.get());
  if (spill_fd < 0) return;
  lseek(spill_fd, 0, SEEK_SET);
  int32_t head[2];
  while (read_all(spill_fd, head, sizeof head) && read_all(spill_fd, b.base, b.size)) {
    if (head[0] < 0 || head[1] < 0 || static_cast<size_t>(head[1]) > b.size) break;
    b.count = head[0];
    b.desc_begin = static_cast<size_t>(head[1]);
    write_long_buffer(reel_current.rel.get());
  }
  reset(b);
  close(spill_fd);
  spill_fd = -1;
}

int reel_load_ltuple(REL_TYPE* rel, const char* key, int32_t key_len, int32_t data_len,
                     int32_t first_page) {
  std::vector<char> data(static_cast<size_t>(data_len) + 1);
  std::vector<unsigned char> page(DYN_PAGE_ROOM);
  int32_t got = 0;
  for (int32_t number = first_page; number > 0 && got < data_len;) {
    int32_t length = 0;
    if (reel_overflow_get(page.data(), number, &length) == 0) {
      reel_log_error(REEL_ERR_RECORD, key);
      return 0;
    }
    number = dyn_page_next(page.data());
    int32_t take = std::min(data_len - got, length - DYN_PAGE_HEAD);
    if (take <= 0) continue;
    reel_mask_copy(data.data() + got, dyn_page_body(page.data()), take);
    got += take;
  }
  if (got != data_len) reel_log_error(REEL_ERR_RECORD, key);
  std::string k(key, static_cast<size_t>(key_len));
  return write_record(rel, k.data(), key_len, data.data(), got) ? 1 : 0;
}

int32_t reel_resize_modulo() {
  const CurrentFile& f = reel_current;
  const int64_t r = f.record_count;
  if (r < 1 || reel_small_tuples.count + reel_long_tuples.count + in_hand < r || f.rel == nullptr) return 0;
  const int64_t w = reel_group_room(f.rel->block_size, f.key_bytes, r);
  if (w <= 0) return 0;
  const int64_t all = std::min(reel_record_blocks(f.key_bytes, f.data_bytes, r, w) + 1, r);
  const int64_t keys = reel_record_blocks(f.key_bytes, 0, r, w) + 1;
  const int64_t modulo = f.rel->modulo;
  if (keys * 3 / 2 <= modulo && all <= 2 * modulo) return 0;
  return reel_next_prime(static_cast<int32_t>(std::max(all, 2 * keys)));
}

int32_t reel_overfull_modulo(const REL_TYPE* rel) {
  const CurrentFile& f = reel_current;
  const int64_t r = f.record_count;
  const int64_t w = reel_group_room(rel->block_size, f.key_bytes, r + 1);
  if (w <= 0) return 0;
  const int64_t g = std::min(reel_key_blocks(f.key_bytes, r, w) + 1, r);
  if (g <= rel->modulo) return 0;
  return reel_next_prime(static_cast<int32_t>(reel_record_blocks(f.key_bytes, f.data_bytes, r, w) + 1));
}

int reel_resize_check() {
  CurrentFile& f = reel_current;
  if (f.file_kind != FILE_KIND_DATA || f.rel == nullptr) return 1;
  const int32_t n = reel_resize_modulo();
  if (n == 0) return 1;
  const int32_t type = f.rel->hashtype;

  // The new layout is made while the file made at the tape's modulo is
  // still open: only once the new one stands is the old one let go of,
  // unwritten, since it is removed.
  char temporary[sizeof kResizeTemplate];
  std::memcpy(temporary, kResizeTemplate, sizeof kResizeTemplate);
  const bool named = mrv_mktemp(temporary) != nullptr;
  // A kill while the new layout is made must not leave it behind for good.
  if (named) reel_note_loading(REEL_OBJECT_SCRATCH, temporary, temporary);
  if (!named ||
      reel_create_under_name(temporary, temporary, 0, n, BlockSizeCode::kOneKiB, BlockSizeCode::kOneKiB, CREATE_DATA,
                             type, true) == 0) {
    reel_loading_done(REEL_OBJECT_SCRATCH, temporary, true);
    M_mem_force_flush(f.rel.get(), 1);
    M_closefile(f.rel.get());
    f.rel.reset();
    if (reel_open_loader(f.name) != 0) return 1;
    reel_show('M', 0);
    return 0;
  }
  M_mem_end_for_removal(f.rel.get());
  M_closefile(f.rel.get());
  f.rel.reset();
  NT_RemoveFile(f.short_name.c_str(), "");
  NT_rename(temporary, f.short_name.c_str(), 0);
  M_voc_delete(temporary);
  reel_loading_done(REEL_OBJECT_SCRATCH, temporary, true);
  f.modulo = n;
  if (SummaryFile* entry = reel_summary_current_file()) entry->resized_to = n;
  if (reel_open_loader(f.name) == 0) {
    reel_show('M', 0);
    return 0;
  }
  reel_show('M', 1);
  return 1;
}

void reel_finish_file(REL_TYPE* rel) {
  CurrentFile& f = reel_current;
  const bool in_slot = f.rel.get() == rel;
  reel_flush_tuples();
  // A resize reopens the slot's file, or leaves it closed when the reopen
  // failed: the slot holds the handle in force.
  if (in_slot) rel = f.rel.get();
  if (rel == nullptr) {
    log_restored(false);
    return;
  }
  const uint64_t failed_before = NT_write_failures;
  if (M_mem_force_flush(rel, 1) != 1 && NT_write_failures != failed_before && in_slot)
    reel_write_failed(NT_last_write_errno);
  if (const int32_t n = reel_overfull_modulo(rel); n > 0) {
    ++overflow_count;
    char line[512];
    std::snprintf(line, sizeof line, "\t%s \t\t%d  ------->  %d", f.name.c_str(), rel->modulo, n);
    NT_cmd_echo_append(kResizeList, NT_echo_word(line));
    if (SummaryFile* entry = reel_summary_current_file()) entry->suggested_modulo = n;
  }
  M_closefile(rel);
  if (f.rel.get() == rel) f.rel.reset();
  if (reel_records_restored % kLineEvery >= kDotEvery) console_put("\n", false);
  log_restored(true);
}
