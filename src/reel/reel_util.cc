#include "reel/reel_util.h"

#include <cstdio>
#include <cstring>

#include "common/init_params.h"
#include "common/mrv_marks.h"
#include "reel/reel_device.h"
#include "reel/reel_settings.h"
#include "reel/reel_summary.h"
#include "reel/reel_tape_format.h"

int32_t reel_next_prime(int32_t n) { return prime_or_itself(n); }

int reel_is_number(const char* text) {
  int digits = 0;
  for (; *text != '\0'; ++text, ++digits)
    if (*text < '0' || *text > '9') return 0;
  return digits < 10 ? 1 : 0;
}

int reel_name_from_tape(char* destination, const unsigned char* source, int length) {
  if (length < 1) {
    destination[0] = '\0';
    return 0;
  }
  for (int i = 0; i < length; ++i)
    destination[i] = static_cast<char>(tape_flip_keep_zero(source[i]));
  destination[length] = '\0';
  while (length > 0 && destination[length - 1] == ' ') destination[--length] = '\0';
  return length;
}

void reel_mask_copy(char* destination, const unsigned char* source, int length) {
  if (length < 1) {
    destination[0] = '\0';
    return;
  }
  tape_flip_keep_zero_copy(reinterpret_cast<unsigned char*>(destination), source, static_cast<size_t>(length));
  destination[length] = '\0';
}

int reel_text_from_tape(char* destination, const unsigned char* source, int length) {
  char* out = destination;
  for (int i = 0; i < length; ++i) {
    unsigned char b = source[i];
    if (b == TEXT_BLANK_RUN) {
      if (i + 1 < length && source[i + 1] >= 1 && source[i + 1] <= TEXT_MAX_BLANK_RUN) {
        int count = source[++i];
        std::memset(out, ' ', static_cast<size_t>(count));
        out += count;
      }
    } else if (b == TEXT_NEWLINE) {
      *out++ = '\n';
      // Lines are padded to an even length on tape: a filler byte after a
      // newline at an even offset is not text.
      if (i % 2 == 0 && i + 1 < length && (source[i + 1] == TEXT_FILL || source[i + 1] == 0)) ++i;
    } else if (b == TEXT_BLANK) {
      *out++ = ' ';
    } else {
      *out++ = static_cast<char>(tape_flip(b));
    }
  }
  *out = '\0';
  return static_cast<int>(out - destination);
}

int reel_next_attribute(const unsigned char** cursor, char* destination, int system_marks) {
  const unsigned char field_mark = system_marks ? M_FM : TAPE_FM;
  const unsigned char record_mark = system_marks ? M_RM : TAPE_RM;
  const unsigned char* p = *cursor;
  int n = 0;
  while (n < REEL_ATTRIBUTE_LIMIT && *p != '\0' && *p != field_mark && *p != record_mark)
    destination[n++] = static_cast<char>(*p++);
  destination[n] = '\0';
  if (*p == '\0') {
    *cursor = p;
    return 1;
  }
  if (*p == field_mark || *p == record_mark) {
    *cursor = p + 1;
    return 1;
  }
  while (*p != '\0' && *p != field_mark) ++p;
  if (*p == field_mark) ++p;
  *cursor = p;
  return 0;
}

void reel_drop_prefix(char* text, int count) {
  size_t length = std::strlen(text);
  if (count <= 0) return;
  if (static_cast<size_t>(count) >= length) {
    text[0] = '\0';
    return;
  }
  std::memmove(text, text + count, length - static_cast<size_t>(count) + 1);
}

char* reel_copy_limited(char* destination, const char* source, int n) {
  if (n < 1) return destination;
  std::strncpy(destination, source, static_cast<size_t>(n - 1));
  destination[n] = '\0';
  return destination;
}

void reel_print_bytes(const unsigned char* bytes, int length) {
  for (int i = 0; i < length; ++i) {
    if (bytes[i] >= 160 && bytes[i] <= 253)
      std::printf("   %c", tape_flip(bytes[i]));
    else
      std::printf(" %03d", bytes[i]);
  }
  std::printf("\n\n");
  std::fflush(stdout);
}

void reel_skip_blocks(unsigned char* buffer, int32_t* length, int mode) {
  for (;;) {
    *length = reel_next_block(buffer);
    const uint8_t type = tape_block_type(buffer);
    // The end of the save goes back to the dispatcher whatever its length.
    if (type == TAPE_BLOCK_END) return;
    if (type == TAPE_BLOCK_DATA) continue;
    if (mode == static_cast<int>(SkipMode::Object) && *length == reel_settings.level_sub) continue;
    return;
  }
}

void reel_log_bad_block(const char* name, const unsigned char* data, int32_t size) {
  static FILE* bad_blocks = nullptr;
  if (bad_blocks == nullptr) bad_blocks = std::fopen("BAD_BLOCKS", "w");
  if (bad_blocks == nullptr) return;
  reel_summary_bad_block();
  std::fprintf(bad_blocks, "\n%s\n", name);
  if (size > 0) std::fwrite(data, 1, static_cast<size_t>(size), bad_blocks);
  std::fflush(bad_blocks);
}
