// Little-endian encode/decode of fixed-width fields inside a byte buffer.
//
// Every on-disk field of the file library is read and written through these
// helpers at its offset; nothing relies on the compiler's layout of a struct.
// REQUIRES: the caller has checked that offset + width lies inside the buffer.
#pragma once

#include <cstdint>

inline uint16_t fl_get_u16(const uint8_t* p, uint32_t offset) {
  return static_cast<uint16_t>(p[offset] | (p[offset + 1] << 8));
}
inline int16_t fl_get_i16(const uint8_t* p, uint32_t offset) {
  return static_cast<int16_t>(fl_get_u16(p, offset));
}
inline uint32_t fl_get_u32(const uint8_t* p, uint32_t offset) {
  return static_cast<uint32_t>(p[offset]) | (static_cast<uint32_t>(p[offset + 1]) << 8) |
         (static_cast<uint32_t>(p[offset + 2]) << 16) |
         (static_cast<uint32_t>(p[offset + 3]) << 24);
}
inline int32_t fl_get_i32(const uint8_t* p, uint32_t offset) {
  return static_cast<int32_t>(fl_get_u32(p, offset));
}
inline void fl_put_u16(uint8_t* p, uint32_t offset, uint16_t v) {
  p[offset] = static_cast<uint8_t>(v);
  p[offset + 1] = static_cast<uint8_t>(v >> 8);
}
inline void fl_put_i16(uint8_t* p, uint32_t offset, int16_t v) {
  fl_put_u16(p, offset, static_cast<uint16_t>(v));
}
inline void fl_put_u32(uint8_t* p, uint32_t offset, uint32_t v) {
  p[offset] = static_cast<uint8_t>(v);
  p[offset + 1] = static_cast<uint8_t>(v >> 8);
  p[offset + 2] = static_cast<uint8_t>(v >> 16);
  p[offset + 3] = static_cast<uint8_t>(v >> 24);
}
inline void fl_put_i32(uint8_t* p, uint32_t offset, int32_t v) {
  fl_put_u32(p, offset, static_cast<uint32_t>(v));
}
