// The three ways a logical block can come off the medium besides the plain
// one: packed in a byte stream (-G B), in 512-byte frames (-G C), and as a
// stream without physical blocks (unit 9). Every length taken from the tape
// is checked against the tape buffer before bytes are copied.
#include <algorithm>
#include <cstring>
#include <vector>

#include "NT/NT_tape.h"
#include "common/mrv_msg.h"
#include "reel/reel_convert.h"
#include "reel/reel_device.h"
#include "reel/reel_init.h"
#include "reel/reel_settings.h"
#include "reel/reel_tape_format.h"

namespace {

// Room for a mode 3 swap one byte beyond a full request.
constexpr int32_t kSwapRoom = 2;
constexpr int32_t kStreamScratch = 8192;

unsigned char stream_buffer[TAPE_STREAM_REQUEST + kSwapRoom];
int32_t stream_avail = 0;
int32_t stream_pos = 0;

bool converting() { return reel_settings.convert_mode != '0'; }

// A block longer than the tape buffer means tapeinfo names too small a
// block size; the run cannot go on.
void check_fits(int32_t length) {
  if (length <= tape_block_size) return;
  M_errmsg(0, "buffer length %d < block length %d\n", tape_block_size, length);
  reel_fatal("Please check tapeinfo file\n");
}

// Refills the -G B stream; false at the end of the reel or on a fault,
// which drops whatever part of a block was gathered.
bool fill() {
  int32_t n = MNT_TapeRead(tape_handle, stream_buffer, TAPE_STREAM_REQUEST);
  stream_pos = 0;
  if (n < 1) {
    stream_avail = 0;
    return false;
  }
  if (converting()) reel_convert_read(stream_buffer, n, sizeof stream_buffer);
  stream_avail = n;
  return true;
}

// Takes `count` bytes of the stream to `out`.
void take(unsigned char* out, int32_t count) {
  std::memcpy(out, stream_buffer + stream_pos, static_cast<size_t>(count));
  stream_pos += count;
}

int32_t read_descriptor(unsigned char* buffer, int32_t count) {
  return MNT_TapeReadBytes(tape_handle, buffer, count);
}

}  // namespace

void reel_convert_read(unsigned char* buffer, int32_t count, int32_t room) {
  if (reel_settings.convert_mode == '3' && (count & 1) && count >= room) --count;
  reel_convert_bytes(buffer, reel_settings.convert_mode, count, REEL_CONVERT_READ);
}

int32_t reel_read_physical(unsigned char* buffer) {
  return MNT_TapeRead(tape_handle, buffer, tape_block_size);
}

void reel_reset_stream() {
  stream_avail = 0;
  stream_pos = 0;
}

int32_t reel_read_buffered(unsigned char* buffer) {
  if (stream_pos == stream_avail && !fill()) return 0;
  int32_t have = 0;
  if (int32_t rest = stream_avail - stream_pos; rest < TAPE_HEADER_SIZE) {
    take(buffer, rest);
    have = rest;
    if (!fill()) return 0;
  }
  if (stream_avail - stream_pos < TAPE_HEADER_SIZE - have) return have;
  take(buffer + have, TAPE_HEADER_SIZE - have);
  const int32_t length = tape_block_length(buffer);
  if (length <= TAPE_HEADER_SIZE) return length;
  check_fits(length);

  have = TAPE_HEADER_SIZE;
  if (int32_t rest = stream_avail - stream_pos; rest < length - have) {
    take(buffer + have, rest);
    have += rest;
    if (!fill()) return 0;
  }
  // A block may lie across one refill, not two.
  if (stream_avail - stream_pos < length - have) return have;
  take(buffer + have, length - have);
  return length;
}

int32_t reel_read_cartridge(unsigned char* buffer) {
  unsigned char frame[CARTRIDGE_FRAME];
  int32_t collected = 0;
  int32_t length = 0;
  for (bool first = true;; first = false) {
    const int32_t n = read_descriptor(frame, CARTRIDGE_FRAME);
    if (n == 0) return 0;
    if (n != CARTRIDGE_FRAME) {
      M_errmsg(0, "ret = %d ", n);
      reel_fatal("cartridge tape I/O error\n");
    }
    if (converting()) reel_convert_read(frame, n, n);
    const int32_t payload = tape_get_u16(frame + CARTRIDGE_OFF_COUNT);
    if ((first && payload < TAPE_HEADER_SIZE) || payload > CARTRIDGE_PAYLOAD) {
      M_errmsg(0, "logical read tape error len = %d\n", payload);
      return collected;
    }
    // The frames may carry more than the header claims; what the tape
    // buffer cannot hold is not needed, since the claim is checked below.
    const int32_t keep = std::min(payload, tape_block_size - collected);
    std::memcpy(buffer + collected, frame + CARTRIDGE_OFF_PAYLOAD, static_cast<size_t>(keep));
    collected += keep;
    if (first) {
      length = tape_block_length(buffer);
      if (length <= TAPE_HEADER_SIZE) return collected;
      check_fits(length);
    }
    if (collected >= length) return collected;
  }
}

int32_t reel_read_stream(unsigned char* buffer) {
  static std::vector<unsigned char> scratch;
  int32_t n = read_descriptor(buffer, TAPE_HEADER_SIZE);
  if (n < TAPE_HEADER_SIZE) return n;
  if (converting()) reel_convert_read(buffer, n, n);
  const int32_t length = tape_block_length(buffer);
  if (length <= TAPE_HEADER_SIZE) return length;
  check_fits(length);
  // The body goes through a scratch buffer as large as any block can be.
  const size_t room = static_cast<size_t>(std::max(kStreamScratch, tape_block_size) + kSwapRoom);
  if (scratch.size() < room) scratch.resize(room);
  n = read_descriptor(scratch.data(), length - TAPE_HEADER_SIZE);
  if (n < 1) return n;
  if (converting()) reel_convert_read(scratch.data(), n, static_cast<int32_t>(scratch.size()));
  std::memcpy(buffer + TAPE_HEADER_SIZE, scratch.data(), static_cast<size_t>(n));
  return n + TAPE_HEADER_SIZE;
}
