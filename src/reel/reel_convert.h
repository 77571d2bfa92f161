// The -M conversion of bytes read from tape, and its inverse for the tape
// writer.
//
//   mode '0'  none
//   mode '1'  EBCDIC to ASCII through a fixed table; unknown characters
//             become '?' (0x3F), the five marks 0xFB..0xFF pass unchanged
//   mode '2'  each byte's tape-text bit flipped (tape_flip): XOR 0x80
//   mode '3'  each pair of bytes exchanged, pairs taken from the start
#pragma once

#include <cstdint>

inline constexpr int REEL_CONVERT_READ = 0;
inline constexpr int REEL_CONVERT_WRITE = 1;

// Converts `count` bytes in place: REEL_CONVERT_READ as the readers do,
// REEL_CONVERT_WRITE the inverse, so that a read gives back what was
// written. Other modes, and counts below 1, change nothing. Returns the
// number of bytes that have no exact inverse (mode '1' maps many EBCDIC
// codes to '?'), which are written as a code that reads back as '?'.
// REQUIRES: with mode '3' and an odd count, buffer has room for count + 1
// bytes: the last pair reaches one byte beyond the count.
int reel_convert_bytes(unsigned char* buffer, char mode, int32_t count, int direction);
