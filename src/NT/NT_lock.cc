// Byte-range locks over fcntl record locks, and the read that goes with them.
#include <fcntl.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>

#include "NT/NT_utils.h"
#include "common/mrv_exit.h"

uint32_t NT_read_lock_calls = 0;
uint32_t NT_write_lock_calls = 0;

namespace {

int set_lock(int fd, short type, const NT_flock* lock, bool wait) {
  struct flock fl {};
  fl.l_type = type;
  fl.l_whence = SEEK_SET;
  fl.l_start = static_cast<off_t>(static_cast<uint32_t>(lock->l_start));
  fl.l_len = static_cast<off_t>(static_cast<uint32_t>(lock->l_len));
  for (;;) {
    if (fcntl(fd, wait ? F_SETLKW : F_SETLK, &fl) == 0) return 0;
    if (!(wait && errno == EINTR)) return -1;
  }
}

}  // namespace

int NT_fcntl(int fd, int command, NT_flock* lock) {
  char stanza[160];
  if (fd == 0) {
    M_errlog_exit("NT_fcntl(): fd= 0");
    return -1;
  }
  if (lock->l_whence != 0) {
    M_errlog_exit("NT_fcntl(): l_whence != 0");
    return -1;
  }
  switch (lock->l_type) {
    case NT_UNLCK:
      if (set_lock(fd, F_UNLCK, lock, false) != 0) {
        std::snprintf(stanza, sizeof stanza,
                      "NT_fcntl(): unlock failed: error=%d, l_whence=%d, l_start=%d\n", errno,
                      lock->l_whence, lock->l_start);
        M_errlog_exit(stanza);
        errno = EAGAIN;
        return -1;
      }
      return 0;
    case NT_RDLCK:
    case NT_WRLCK: {
      short type = lock->l_type == NT_RDLCK ? F_RDLCK : F_WRLCK;
      ++(lock->l_type == NT_RDLCK ? NT_read_lock_calls : NT_write_lock_calls);
      // First without waiting; record locks convert a range this process
      // already holds, so no unlock is needed in between.
      if (set_lock(fd, type, lock, false) == 0) return 0;
      if (command == NT_SETLKW && set_lock(fd, type, lock, true) == 0) return 0;
      errno = EAGAIN;
      return -1;
    }
    default:
      std::snprintf(stanza, sizeof stanza, "NT_fcntl(): unsupported l_type=%d\n", lock->l_type);
      M_errlog_exit(stanza);
      return 0;
  }
}

// Record locks are advisory here, so a read never meets another process's
// lock and needs no waiting lock around it.
ssize_t NT_read(int fd, void* buffer, size_t count) {
  for (;;) {
    ssize_t n = read(fd, buffer, count);
    if (n >= 0 || errno != EINTR) return n;
  }
}
