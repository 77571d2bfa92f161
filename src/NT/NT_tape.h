// The tape device layer: a table of ten open media and the operations the
// tool needs on them. Callers know a medium by its slot number.
//
// Three kinds of medium, chosen when a name is opened:
//   drive   a character device of the SCSI tape driver (st/nst). A read
//           returns one block, 0 at a tape mark; positioning goes through
//           the driver's MTIOCTOP operations.
//   image   a file whose name ends in ".tap", holding a tape record by
//           record (layout in NT_tape.cc). A read returns one record, cut
//           to the count asked, 0 at a tape mark or at the end of the
//           image. Like a non-rewinding drive, an image keeps its position
//           when the same name is closed and opened again in this process;
//           a file replaced at that path (another device or inode) starts
//           at its beginning.
//   file    any other file: a byte stream without marks, read in requests
//           of the count asked; end of file reads as 0. It keeps its
//           position across close and open as an image does, so that what
//           was passed (a label file, say) is not read again.
//
// Names: a leading "r" or "R" is not part of the name; it asks for a rewind
// at open (for an image: back to the start) and is always stripped, so
// "rTAPEFILE" is the file "TAPEFILE".
//
// Results follow the platform layer's habits: every failure sets M_Status
// (2 end of data, 3 name not found or not allowed, 6 any other fault) and
// is reported through MNT_LogError, which writes only under MRV_DEBUG.
#pragma once

#include <cstdint>

inline constexpr int MNT_TAPE_SLOTS = 10;

// Flags of MNT_TapeOpen: 0 opens for reading, any other value for reading
// and writing; for a file or an image, MNT_TAPE_CREATE makes it when absent
// and MNT_TAPE_TRUNCATE empties it.
inline constexpr int MNT_TAPE_READ = 0;
inline constexpr int MNT_TAPE_WRITE = 1;
inline constexpr int MNT_TAPE_CREATE = 0x100;
inline constexpr int MNT_TAPE_TRUNCATE = 0x200;

inline constexpr int32_t MNT_STATUS_END_OF_DATA = 2;
inline constexpr int32_t MNT_STATUS_NO_NAME = 3;
inline constexpr int32_t MNT_STATUS_FAULT = 6;

// Status of the last failed operation of the platform's device layers
// (2 end of data, 3 name unusable, 6 other fault). Exported for modules
// loaded into the process.
extern "C" int32_t M_Status;

// Block size last set on a drive, and the largest block the drive reports;
// both start at 0.
extern int32_t last_block_size;
extern int32_t drive_max_block;
// Set together with M_Status 3 by a failed open: the name is unusable.
extern int32_t MNT_tape_name_unusable;

// The slot of the opened medium, or -1 with M_Status set. With all ten slots
// taken, M_Status is 6 and the result is 0, a slot that was never opened.
int MNT_TapeOpen(const char* name, int flags);
// Frees the slot; a medium opened for writing gets a tape mark first (not a
// plain file, which has no marks). A free slot gives 0.
int MNT_TapeClose(int slot);
// Bytes read; 0 at a tape mark or the end of data (M_Status 2); -1 on a
// fault (M_Status 6). Transient faults are retried ten times, 250 ms apart.
int MNT_TapeRead(int slot, void* buffer, int count);
// Bytes written, one record for a drive or an image; -1 on a fault.
int MNT_TapeWrite(int slot, const void* buffer, int count);
// 0 on success, 1 otherwise.
int MNT_TapeRewind(int slot);
int MNT_TapeMark(int slot);
// Moves the medium of `name` back over count + 1 tape marks and forward over
// one: the start of the count-th file before the current one. Stopping at
// the beginning of the medium counts as success. 0 or 1.
int MNT_TapeBack(const char* name, int count);
// Rewinds the medium of `name` and takes it off line; an image or a file
// forgets its kept position. 0 or 1.
int MNT_TapeUnload(const char* name);

// The descriptor read of the byte-oriented transports: read(2) on the
// medium's own descriptor (an image gives one record, as MNT_TapeRead). A
// failed read is tried once more, under a read lock on the range when the
// descriptor has a position. Bytes read, 0 at the end, -1 on a fault.
int MNT_TapeReadBytes(int slot, void* buffer, int count);
