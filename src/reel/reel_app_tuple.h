// Record loading: the two load buffers.
#pragma once

#include <cstddef>
#include <cstdint>

struct LoadBuffer {
  unsigned char* data = nullptr;
  size_t size = 0;
  size_t used = 0;
};

// The main buffer of `buffer_factor` KiB and the long-record buffer of a
// quarter of that.
extern LoadBuffer reel_load_buffer;
extern LoadBuffer reel_long_buffer;

// Allocates both buffers; 0 when memory can't be had.
int reel_alloc_load_buffers(int32_t buffer_factor);

// Gathers one record; flushes first when it would not fit.
void reel_add_tuple(const char* key, int32_t key_len, const char* data, int32_t data_len);
// Ends the load of a hashed target: flushes what is gathered, notes a file
// that came out overfull in resize_list, closes it and logs the count.
void reel_finish_file(int32_t handle);
