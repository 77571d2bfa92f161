// Tape units, reels, labels and logical reads.
//
// A tape of the foreign system is a label block, the rest of the label file
// and a tape mark, then numbered data blocks; at the end of a reel a tape
// mark, and the save goes on on the next reel under a label of its own, with
// block numbers starting again at 1. reel_next_block hides all of that: it
// hands back one block at a time and deals with reel changes, labels, block
// numbers and read faults itself, asking the operator where it must.
//
// A physical read asks the device for tape_block_size bytes. With the plain
// transport one physical read is one logical block; -G B packs blocks into
// a byte stream, -G C carries them in 512-byte frames, and unit 9 is a byte
// stream without physical blocks. The last two read the opened medium's own
// descriptor, so they want a plain file (or a drive holding such frames).
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>

// ---- The unit, from tapeinfo ----------------------------------------------

// Line buffer of tapeinfo: a longer line is cut at 79 characters and its
// tail read as the next line.
inline constexpr int REEL_TAPEINFO_LINE = 80;
// Only the first ten lines are searched for the unit.
inline constexpr int REEL_TAPEINFO_LINES = 10;
// The unit whose "tape" is a plain byte stream.
inline constexpr char REEL_STREAM_UNIT = '9';

extern std::string non_rewind_device;
extern std::string rewind_device;
extern int32_t tape_block_size;
extern int32_t tape_is_stream;

// Reads the line of `unit` from "<MRVHOME>/sys/tapeinfo", prints the two
// device names and the block size, and returns 1; or prints what went wrong
// and returns 0.
int reel_read_tapeinfo(char unit);
// The home directory from the first word of "<include dir>/path"; non-zero
// when `buffer` ends up holding a path.
// REQUIRES: buffer has REEL_TAPEINFO_LINE bytes.
int reel_find_home(char* buffer);

// ---- Reels and logical blocks ---------------------------------------------

inline constexpr int32_t REEL_NAME_ROOM = 12;

extern int32_t tape_handle;     // slot of the open medium, -1 when none
// Set when the run ends at a reel prompt (E, or no input left to answer
// with), that is, without the save's end-of-save block.
extern int32_t tape_ended_early;
extern int32_t last_block_no;   // number of the last block accepted
extern int32_t last_reel_no;    // tape number of the last reel accepted; 0: none yet
extern char reel_name[REEL_NAME_ROOM];  // tape name of the first reel

// Sets tape_is_stream for unit 9, reads tapeinfo (a failure ends the run
// with "get tapeinfo error\n"), opens the non-rewind device and returns the
// block size, which is the size the caller's tape buffer must have.
int32_t reel_open_unit(char unit_char);
// Opens `name` for reading into tape_handle; while that fails, asks the
// operator to check the drive and answer C.
void reel_open_device(const char* name);
// Closes the device; harmless when none is open.
void reel_close_device();
// Closes the device, passes the rewind device (which rewinds it) and opens
// the non-rewind device again.
void reel_change_reel();
// Reads on until a block passes its checks and returns its logical length;
// labels, reel ends, read faults, repeated, out-of-order and short blocks
// are dealt with inside. The operator's "E" at a prompt ends the run.
// REQUIRES: buffer has tape_block_size bytes.
int32_t reel_next_block(unsigned char* buffer);
// Prints the label in `buffer`, passes the rest of the label file, and
// checks the reel against the first one; a wrong reel is refused and the
// operator asked for the right one.
void reel_read_label(unsigned char* buffer);

// ---- Transports ------------------------------------------------------------

// Each returns the length of the block now in `buffer`: the header's length
// when the block came whole, a smaller count when it did not (the caller
// reports it), 0 at the end of the reel, below 0 on a fault.
// REQUIRES: buffer has tape_block_size bytes.
int32_t reel_read_buffered(unsigned char* buffer);
int32_t reel_read_cartridge(unsigned char* buffer);
int32_t reel_read_stream(unsigned char* buffer);
// A plain physical read of tape_block_size bytes, not converted.
int32_t reel_read_physical(unsigned char* buffer);
// The -M conversion of `count` bytes just read into a buffer of `room`
// bytes. Mode 3 swaps an odd count's last byte with the one behind it when
// the buffer has that byte, and leaves the last byte alone when it has not.
void reel_convert_read(unsigned char* buffer, int32_t count, int32_t room);
// Forgets what the -G B reader holds (a new unit).
void reel_reset_stream();

// ---- The run's log of tape faults ------------------------------------------

enum ReelErrorCode : int {
  REEL_ERR_READ = 0,
  REEL_ERR_ACCOUNT = 1,
  REEL_ERR_FILE_DESC = 2,
  REEL_ERR_SUB_DESC = 3,
  REEL_ERR_DATA = 4,
  REEL_ERR_CREATE = 5,
  REEL_ERR_OPEN = 6,
  REEL_ERR_RECORD = 7,
  REEL_ERR_SYSTEM = 8,
};

// Writes "Blkno = <last_block_no> \t" and the code's text to dispmsg, and
// flushes it. Nothing goes to the console.
void reel_log_error(int code, const char* text);

// Back to the state before reel_open_unit (tests).
void reel_reset_device_state();
