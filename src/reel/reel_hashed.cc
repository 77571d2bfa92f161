#include "reel/reel_hashed.h"

#include <algorithm>
#include <cstdio>
#include <cstring>
#include <vector>

#include "reel/reel_app_tuple.h"
#include "reel/reel_current.h"
#include "reel/reel_device.h"
#include "reel/reel_settings.h"
#include "reel/reel_tape_format.h"
#include "reel/reel_target.h"
#include "reel/reel_util.h"

namespace {

constexpr int32_t kKeyRoom = 1024;
// The key shown in the line of a refused long key is cut here.
constexpr int32_t kKeyShown = 128;
// A file whose first sub-file gives no modulo takes a group for each KiB of
// that sub-file's first block.
constexpr int32_t kBytesPerGuessedGroup = 1024;

enum Phase : int {
  kFresh = 0,    // no record under way
  kInKey = 1,    // the key is cut by a block end
  kInData = 2,   // the data is cut by a block end
  kKeyDone = 3,  // the key is whole, the data not yet begun
};

// State of the record machine. It lives for the run: a record cut by the
// end of a block goes on at the next one, and a phase left open at the end
// of a sub-file is where the next sub-file's first record starts.
struct GroupMachine {
  unsigned char header[RECORD_HEADER_SIZE] = {};
  int32_t header_held = 0;  // bytes of a header cut by a block end
  int32_t size = 0;         // of the record whose header was read last
  int32_t key_len = 0;
  int32_t left = 0;  // bytes of the record still to pass in the block stream
  bool done = true;  // the last record was finished
  int phase = kFresh;
  int32_t held = 0;        // key bytes so far (kInKey), data bytes so far (kInData)
  int32_t chunk_left = 0;  // bytes left of the current chunk
  int32_t consumed = 0;    // bytes of key, key pad, chunk data and pads passed
  unsigned char key[kKeyRoom + 1] = {};
  std::vector<unsigned char> data;  // grows, never shrinks, for the run
};

GroupMachine machine;

void reserve_data(int32_t bytes) {
  if (machine.data.size() < static_cast<size_t>(bytes) + 1)
    machine.data.resize(static_cast<size_t>(bytes) + 1);
}

// The record in the machine is finished: count it and, in a restore, hand
// it on or refuse it by its key length. A refused record stays counted.
void finish_record(int32_t key_len) {
  GroupMachine& g = machine;
  reel_current.key_bytes += key_len;
  reel_current.record_count += 1;
  reel_current.data_bytes += g.held;
  g.phase = kFresh;
  if (reel_settings.analyse_mode) return;

  tape_flip_copy(g.key, g.key, static_cast<size_t>(key_len));
  char line[kKeyShown + 64];
  if (key_len < STATIC_KEY_LIMIT) {
    reel_add_tuple(reinterpret_cast<const char*>(g.key), key_len,
                   reinterpret_cast<const char*>(g.data.data()), g.held);
  } else if (key_len <= STATIC_KEY_MAX) {
    g.key[kKeyShown] = '\0';
    std::snprintf(line, sizeof line, "incompatible key length [%d  %.128s...]", key_len,
                  reinterpret_cast<const char*>(g.key));
    reel_log_error(REEL_ERR_RECORD, line);
  } else {
    std::snprintf(line, sizeof line, "invalid key length [%d] ", key_len);
    reel_log_error(REEL_ERR_RECORD, line);
  }
}

// The place of the record in the block stream follows from its size alone:
// a finished record moves the position over what is left of it, an
// unfinished one uses up the block.
void pass_record(int32_t* pos, int32_t end, bool finished) {
  GroupMachine& g = machine;
  if (finished) {
    *pos += g.left;
    g.left = 0;
    g.done = true;
  } else {
    g.left = std::max(0, g.left - (end - *pos));
    *pos = end;
    g.done = false;
  }
}

}  // namespace

int reel_group_record(const unsigned char* pos, const unsigned char* end, int32_t size,
                      int32_t key_len) {
  GroupMachine& g = machine;
  const int32_t avail = static_cast<int32_t>(end - pos);
  int32_t cur = 0;  // offset from pos; pads are measured from here too

  if (g.phase == kFresh) g.held = 0;
  if (g.phase == kFresh || g.phase == kInKey) {
    // A phase carried over from another record may hold more key than this
    // one has; only the bytes still missing are taken.
    const int32_t need = std::max(0, key_len - g.held);
    if (avail < need) {
      std::memcpy(g.key + g.held, pos, static_cast<size_t>(avail));
      g.held += avail;
      g.phase = kInKey;
      return 0;
    }
    std::memcpy(g.key + g.held, pos, static_cast<size_t>(need));
    g.held += need;
    g.key[key_len] = '\0';
    g.phase = kKeyDone;
    cur = need + key_len % 2;
  }
  if (cur >= avail) return 0;  // the data begins in the next block

  if (g.phase == kKeyDone) {
    g.chunk_left = 0;
    g.held = 0;
    g.consumed = cur;
  }
  if (static_cast<size_t>(size) >= g.data.size()) reserve_data(size);

  while (g.consumed < size && cur < avail) {
    if (g.chunk_left == 0) {
      const unsigned char marker = pos[cur + CHUNK_OFF_MARKER];
      if (marker != CHUNK_MARKER && marker != CHUNK_MARKER_ALT) break;
      // A chunk header that the block end cuts cannot be read: the record
      // ends with what it has.
      if (avail - cur < CHUNK_HEADER_SIZE) break;
      g.chunk_left = pos[cur + CHUNK_OFF_LENGTH];
      cur += CHUNK_HEADER_SIZE;
      if (g.chunk_left == 0) break;
    }
    const int32_t m = std::min(g.chunk_left, avail - cur);
    reserve_data(g.held + m);
    tape_flip_copy(g.data.data() + g.held, pos + cur, static_cast<size_t>(m));
    g.chunk_left -= m;
    g.held += m;
    g.consumed += m + m % 2;
    cur += m;
    if (cur % 2 != 0) ++cur;
  }
  g.data[static_cast<size_t>(g.held)] = '\0';
  if (g.consumed < size && cur >= avail) {
    g.phase = kInData;
    return 0;
  }
  finish_record(key_len);
  return 1;
}

int reel_group_block(unsigned char* buffer, int32_t* length, int first) {
  GroupMachine& g = machine;
  const int32_t end = *length;
  const int32_t start = first ? SUBFILE_FIRST_STREAM : SUBFILE_STREAM;
  if (end < start) {
    reel_log_error(REEL_ERR_DATA, "block length too short");
    reel_skip_blocks(buffer, length, SkipMode::Data);
    return 1;
  }

  int32_t pos = start;
  while (end - pos >= RECORD_HEADER_SIZE) {
    if (first || g.done) {
      if (first) g.header_held = 0;
      const int32_t need = RECORD_HEADER_SIZE - g.header_held;
      std::memcpy(g.header + g.header_held, buffer + pos, static_cast<size_t>(need));
      pos += need;
      g.header_held = 0;
      g.size = tape_record_size(g.header + RECORD_OFF_SIZE);
      g.key_len = g.header[RECORD_OFF_KEY_LEN];
      if (g.size == 0) return 0;
      if (g.size >= RECORD_SIZE_LIMIT) {
        char line[64];
        std::snprintf(line, sizeof line, "invalid record size[%d] ", g.size);
        reel_log_error(REEL_ERR_RECORD, line);
        break;
      }
      // A size below its own header is damage; the position never goes back.
      g.left = std::max(0, g.size - RECORD_HEADER_SIZE);
    }
    if (g.key_len > 0)
      pass_record(&pos, end, reel_group_record(buffer + pos, buffer + end, g.size, g.key_len) == 1);
    else
      pass_record(&pos, end, end - pos > g.left);
  }

  const int32_t rest = end - pos;
  g.header_held = rest > 0 && rest < RECORD_HEADER_SIZE ? rest : 0;
  if (g.header_held > 0) std::memcpy(g.header, buffer + pos, static_cast<size_t>(rest));
  return 1;
}

void reel_hashed_subfiles(unsigned char* buffer, int32_t* length) {
  const RunSettings& s = reel_settings;
  if (*length != s.level_sub) return;
  bool first_with_data = true;
  while (tape_block_type(buffer) == TAPE_BLOCK_DESCRIPTION) {
    // Direct sub-files of a static file carry nothing to restore.
    if (tape_path_type(buffer, s.level_file) != TAPE_OBJECT_SAM) {
      reel_skip_blocks(buffer, length, SkipMode::Data);
      if (*length != s.level_sub) return;
      continue;
    }
    *length = reel_next_block(buffer);
    if (*length < SUBFILE_FIRST_STREAM || tape_block_type(buffer) != TAPE_BLOCK_DATA) {
      reel_log_error(REEL_ERR_SUB_DESC, "block length or type error");
      reel_skip_blocks(buffer, length, SkipMode::Object);
      return;
    }
    if (first_with_data) {
      first_with_data = false;
      CurrentFile& f = reel_current;
      f.modulo = reel_next_prime(tape_get_u16(buffer + SUBFILE_OFF_MODULO));
      if (f.modulo == 0) f.modulo = reel_next_prime(*length / kBytesPerGuessedGroup + 1);
      if (!s.analyse_mode && reel_prepare_hashed_target(0) == 0) {
        reel_skip_blocks(buffer, length, SkipMode::Object);
        return;
      }
    }
    int first = 1;
    bool stopped = false;
    while (tape_block_type(buffer) == TAPE_BLOCK_DATA) {
      if (!stopped && reel_group_block(buffer, length, first) == 0) stopped = true;
      *length = reel_next_block(buffer);
      first = 0;
    }
    if (*length != s.level_sub) return;
  }
}
