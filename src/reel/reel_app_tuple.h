// Record loading: records of the file under restoration are gathered in
// memory, sorted by their group in the target, and written in that order
// through the memory-buffered writer, so that the target is written in one
// sweep. At the first flush of a file the modulo taken from the tape is
// judged against the records seen, and a file that is far too small is
// laid out again while it is still empty.
//
// Two buffers live for the run, each filling from both ends: text (key,
// and in the small buffer the data, each terminated) from the bottom, the
// descriptors from the top downward. The long buffer holds records whose
// data is still on the overflow pages of a dynamic source (key and first
// page only). When it fills, its content goes to the spill file
// "large__file" as one run and the buffer starts empty again; the runs are
// read back, each into the same buffer at the same place, and written at
// reel_flush_ltuples.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>

struct REL_TYPE;

// One gathered record.
struct TupleDesc {
  int32_t group;       // target group, filled at the flush
  char* key;           // key text, terminated; the data follows it in the small buffer
  int32_t key_len;
  int32_t first_page;  // long buffer: first overflow page of the data
  int32_t data_len;
};

struct TupleBuffer {
  unsigned char* base = nullptr;
  size_t size = 0;
  size_t text_end = 0;    // first free byte of the text area
  size_t desc_begin = 0;  // lowest descriptor; size when there is none
  int32_t count = 0;
};

extern TupleBuffer reel_small_tuples;
extern TupleBuffer reel_long_tuples;
// Records written into the file under restoration.
extern int32_t reel_records_restored;
// Set while the file under restoration was made by this run and nothing
// has been flushed into it yet.
extern int32_t reel_new_file;
// Lines this account has put into resize_list.
extern int32_t overflow_count;

// Allocates the small buffer of k KiB and the long one of k/4 KiB; ends
// the run with "malloc failed, please check -K option \n" when it can't.
void reel_init_tuples(int32_t k);
// Gathers one record; flushes first when it would not fit.
void reel_add_tuple(const char* key, int32_t key_len, const char* data, int32_t data_len);
// The same for data still in the dynamic tape form: it is flipped
// (tape_flip_keep_zero) straight into the buffer.
void reel_add_tuple_flipped(const char* key, int32_t key_len, const unsigned char* tape_data, int32_t data_len);
// Gathers one large record whose data starts at overflow page `first_page`.
void reel_add_ltuple(const char* key, int32_t key_len, int32_t data_len, int32_t first_page);
// Writes the small buffer.
void reel_flush_tuples();
// Writes the long buffer and every spilled run.
void reel_flush_ltuples();
// Ends the load of a hashed target: flushes what is gathered, notes a file
// that came out overfull in resize_list, closes it and logs the count.
void reel_finish_file(REL_TYPE* rel);
// 1 go on with the flush, 0 the file could not be reopened after a resize.
int reel_resize_check();
// Before the first write of a load: the modulo that the slot's file
// should have, or 0 when it need not change or cannot be judged. Its key
// table is to fit with half as much again to spare, its records in twice
// the modulo (reel_sizing.h).
int32_t reel_resize_modulo();
// After the load of `rel`, the slot's file: the modulo that a resize_list
// line proposes, or 0 when the keys fit one block per group. It judges the
// keys with other margins than reel_resize_modulo (over r + 1 records, at
// REEL_KEY_COST each), and the two are kept apart on purpose.
int32_t reel_overfull_modulo(const REL_TYPE* rel);
// Gathers a large record's data from the overflow pages and writes it.
// 1 when the record went into the file, else 0.
int reel_load_ltuple(REL_TYPE* rel, const char* key, int32_t key_len, int32_t data_len,
                     int32_t first_page);
// Replaces the tape's marks by the marks in force (when they differ):
// record and field mark in a key, all five in data.
void reel_translate_marks(char* text, int32_t length, bool all_marks);
