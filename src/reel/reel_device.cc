// Reels, labels and the checks of logical blocks.
//
// Invariants between calls of reel_next_block:
//   1. tape_handle is the open non-rewind device, or the operator is being
//      asked for one; a reel change always passes the rewind device first.
//   2. last_block_no is the number of the last block handed out on this
//      reel, 0 right after a label; the next block must be one more (65535
//      is followed by 0).
//   3. last_reel_no and reel_name come from the first label and change only
//      when a later label is accepted.
#include <cstdio>
#include <cstring>

#include "NT/NT_tape.h"
#include "common/mrv_msg.h"
#include "reel/reel_current.h"
#include "reel/reel_device.h"
#include "reel/reel_init.h"
#include "reel/reel_progress.h"
#include "reel/reel_settings.h"
#include "reel/reel_summary.h"
#include "reel/reel_tape_format.h"

int32_t tape_handle = -1;
int32_t last_block_no = 0;
int32_t last_reel_no = 0;
char reel_name[REEL_NAME_ROOM] = {};

namespace {

constexpr int32_t kLastBlockNo = 0xFFFF;

// Asks until the operator types a capital C or E; E ends the run.
void wait_for_continue() {
  for (;;) {
    int answer = reel_get_answer();
    if (answer == 'C') return;
    if (answer == 'E') reel_end_run();
  }
}

// The plain transport: one physical read is one block.
int32_t read_plain(unsigned char* buffer) {
  int32_t n = reel_read_physical(buffer);
  if (n > 0 && reel_settings.convert_mode != '0') reel_convert_read(buffer, n, tape_block_size);
  return n;
}

int32_t read_block(unsigned char* buffer) {
  if (tape_is_stream) return reel_read_stream(buffer);
  if (reel_settings.transport_c) return reel_read_cartridge(buffer);
  if (reel_settings.transport_b) return reel_read_buffered(buffer);
  return read_plain(buffer);
}

}  // namespace

int32_t reel_open_unit(char unit_char) {
  if (unit_char == REEL_STREAM_UNIT) tape_is_stream = 1;
  if (reel_read_tapeinfo(unit_char) == 0) reel_fatal("get tapeinfo error\n");
  reel_reset_stream();
  reel_open_device(non_rewind_device.c_str());
  last_block_no = 0;
  return tape_block_size;
}

void reel_open_device(const char* name) {
  while ((tape_handle = MNT_TapeOpen(name, MNT_TAPE_READ)) < 0) {
    M_errmsg(0, "Tape %s open error\n", name);
    M_errmsg(0, "Please check tape drive and input C to continue");
    while (reel_get_answer() != 'C') {
    }
  }
}

void reel_close_device() {
  if (tape_handle < 0) return;
  MNT_TapeClose(tape_handle);
  tape_handle = -1;
}

void reel_change_reel() {
  reel_close_device();
  reel_open_device(rewind_device.c_str());
  reel_close_device();
  reel_open_device(non_rewind_device.c_str());
}

int32_t reel_next_block(unsigned char* buffer) {
  for (;;) {
    int32_t n = read_block(buffer);
    if (n <= 0) {
      if (n == 0) {
        M_errmsg(0, "\nGet EOF mark.");
        M_errmsg(0, "Please load on next reel.\n");
      } else {
        M_errmsg(0, "\nRead tape error.");
        M_errmsg(0, "Please check the tape drive.\n");
      }
      reel_close_device();
      M_errmsg(0, "Input C to continue next reel . or E to end\n");
      wait_for_continue();
      reel_change_reel();
      continue;
    }
    reel_progress_tape(n);
    // A short read leaves bytes of an earlier block behind it; the header
    // tests below must not see them.
    if (n < LABEL_SIZE) std::memset(buffer + n, 0, static_cast<size_t>(LABEL_SIZE - n));

    if (tape_block_type(buffer) == TAPE_BLOCK_LABEL) {
      reel_read_label(buffer);
      last_block_no = 0;
      continue;
    }
    if (n < TAPE_HEADER_SIZE) {
      reel_log_error(REEL_ERR_READ, "block length < 6");
      continue;
    }
    const int32_t number = tape_block_no(buffer);
    const int32_t length = tape_block_length(buffer);
    if (number == 0 && last_block_no == kLastBlockNo) {
      last_block_no = 0;
    } else if (number == last_block_no + 1) {
      last_block_no = number;
    } else if (number == last_block_no) {
      continue;  // the same block read twice
    } else {
      // The block is dropped, but the numbering picks up from it, so one
      // missing block costs one block. The line is written before the new
      // number is taken: it names the last block accepted.
      reel_log_error(REEL_ERR_READ, "block No. error");
      last_block_no = number;
      continue;
    }
    if (n < length) {
      reel_log_error(REEL_ERR_READ, "block length < len");
      continue;
    }
    return length;
  }
}

void reel_read_label(unsigned char* buffer) {
  const TapeLabel label = tape_decode_label(buffer);
  M_errmsg(0, "\nLOGICAL TAPE NUMBER: %d\n", label.tape_no);
  M_errmsg(0, "TAPE NAME:           %s\n", label.name);
  M_errmsg(0, "DATE(MM-DD-YY):      %s\n", label.date);
  M_errmsg(0, "REV NO:              %d\n\n", label.revision);

  // Pass the rest of the label file and its mark.
  while (reel_read_physical(buffer) > 0) {
  }
  reel_close_device();

  if (last_reel_no == 0) {
    std::snprintf(reel_name, sizeof reel_name, "%s", label.name);
    last_reel_no = label.tape_no;
    reel_open_device(non_rewind_device.c_str());
    return;
  }
  bool right = true;
  if (label.tape_no != last_reel_no + 1) {
    M_errmsg(0, "Incorrect tape, expect reel No. %d\n", last_reel_no + 1);
    right = false;
  }
  if (std::strcmp(label.name, reel_name) != 0) {
    M_errmsg(0, "Incorrect tape, expect reel name %s\n", reel_name);
    right = false;
  }
  if (right) {
    last_reel_no = label.tape_no;
    reel_open_device(non_rewind_device.c_str());
    return;
  }
  M_errmsg(0, "please load on new reel\n");
  M_errmsg(0, "Input C to continue. or E to end\n");
  wait_for_continue();
  reel_change_reel();
}

void reel_log_error(int code, const char* text) {
  if (dispmsg == nullptr) return;
  reel_summary_dispmsg_error(code == REEL_ERR_RECORD);
  std::fprintf(dispmsg, "Blkno = %d \t", last_block_no);
  switch (code) {
    case REEL_ERR_READ:
      std::fprintf(dispmsg, "physical read tape error %s\n", text);
      break;
    case REEL_ERR_ACCOUNT:
      std::fprintf(dispmsg, "Get acct_name error\n");
      break;
    case REEL_ERR_FILE_DESC:
      std::fprintf(dispmsg, "Get file description error: %s\n", text);
      break;
    case REEL_ERR_SUB_DESC:
      std::fprintf(dispmsg, "Get sub-file description error: %s\n", text);
      break;
    case REEL_ERR_DATA:
      std::fprintf(dispmsg, "Get data block error: %s\n", text);
      break;
    case REEL_ERR_CREATE:
      std::fprintf(dispmsg, "Create file error\n");
      break;
    case REEL_ERR_OPEN:
      std::fprintf(dispmsg, "Open file error\n");
      break;
    case REEL_ERR_RECORD:
      std::fprintf(dispmsg, "Record error: %s\n", text);
      break;
    case REEL_ERR_SYSTEM:
      std::fprintf(dispmsg, "System error: %s\n", text);
      break;
    default:
      std::fprintf(dispmsg, "Unknown error\n");
      break;
  }
  std::fflush(dispmsg);
}

void reel_reset_device_state() {
  reel_close_device();
  last_block_no = 0;
  last_reel_no = 0;
  reel_name[0] = '\0';
  tape_is_stream = 0;
  tape_block_size = 0;
  non_rewind_device.clear();
  rewind_device.clear();
  reel_reset_stream();
}
