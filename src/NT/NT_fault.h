// Writes and tape reads through one door, with a switch for tests that
// makes them fail on purpose.
//
// Every write of the file library and of the tape tool's members goes
// through NT_write / NT_pwrite; every read of a tape goes through
// MNT_TapeRead / MNT_TapeReadBytes, which ask NT_fault_tape_read.
// Ordinary runs never see the switch: it is read once, from the environment
// variable MRV_FAULT, at the first write or tape read:
//
//   write:N:ENOSPC   the Nth write and every later one fail with ENOSPC
//                    (a full disk stays full)
//   write:N:EIO      the Nth write fails with EIO, later ones succeed
//   read:N           the Nth tape read fails (errno EIO)
//   kill:N           the process kills itself (SIGKILL) before its Nth write
//   interrupt:N      the process interrupts itself (SIGINT, as the
//                    interrupt key does) before its Nth write
//   count            nothing fails; at exit the counts are printed on
//                    standard error as "fault seam: W writes, R tape reads"
//
// Writes and reads are counted from 1 in the order the process makes them.
#pragma once

#include <sys/types.h>

#include <cstdint>

// write(2) of the whole buffer: repeats after an interrupted or short call
// until all is written or a call fails. `count` on success, -1 with errno.
ssize_t NT_write(int fd, const void* buffer, size_t count);
// pwrite(2) of the whole buffer at `offset`, in the same way.
ssize_t NT_pwrite(int fd, const void* buffer, size_t count, off_t offset);
// The two halves of NT_pwrite for a write made by another thread: the
// seam's part, on the thread that decides the write (counted in order,
// false with errno set and the failure counted when it must fail), and the
// write itself, which counts nothing; its failure is counted later, on the
// deciding thread, by NT_write_failed.
bool NT_write_begin();
ssize_t NT_pwrite_whole(int fd, const void* buffer, size_t count, off_t offset);
void NT_write_failed(int error);
// errno of the last write that failed here, 0 when none has, and the
// number of writes that failed.
extern int NT_last_write_errno;
extern uint64_t NT_write_failures;
// Whether the tape read about to be made must fail (it is counted).
bool NT_fault_tape_read();
