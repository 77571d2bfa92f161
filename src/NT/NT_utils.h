// The platform layer for files, directories and file locks.
//
// The file library is written to the Unix file interface; this header is
// what it may ask of the platform beyond open/read/write/lseek/close. Results
// follow the Unix shape: -1 (or null) with errno set, unless told otherwise.
#pragma once

#include <cstdint>
#include <sys/types.h>
#include <unistd.h>

// ---- Descriptor ownership ------------------------------------------------------

// Owns a descriptor of open(2) and closes it at the end of its scope, unless
// release() has handed it on to a longer-lived owner. A function with many
// ways out keeps its descriptor here instead of closing it on each of them.
// Not copyable: two owners would close one descriptor twice.
class ScopedFd {
 public:
  ScopedFd() = default;
  explicit ScopedFd(int fd) : fd_(fd) {}
  ~ScopedFd() { reset(); }
  ScopedFd(const ScopedFd&) = delete;
  ScopedFd& operator=(const ScopedFd&) = delete;
  ScopedFd(ScopedFd&& other) noexcept : fd_(other.release()) {}
  ScopedFd& operator=(ScopedFd&& other) noexcept {
    if (this != &other) reset(other.release());
    return *this;
  }
  int get() const { return fd_; }
  bool valid() const { return fd_ >= 0; }
  // The descriptor, no longer owned here.
  int release() {
    int fd = fd_;
    fd_ = -1;
    return fd;
  }
  // Closes the descriptor held (if any) and takes `fd`.
  void reset(int fd = -1) {
    if (fd_ >= 0) close(fd_);
    fd_ = fd;
  }

 private:
  int fd_ = -1;
};

// ---- Byte-range locks ------------------------------------------------------

// Lock request as the library passes it. Ranges are 32-bit from the start of
// the file (l_whence must be 0).
struct NT_flock {
  int32_t l_type;  // NT_RDLCK, NT_WRLCK, NT_UNLCK
  int32_t l_whence;
  int32_t l_start;
  int32_t l_len;
};
inline constexpr int32_t NT_RDLCK = 1;
inline constexpr int32_t NT_WRLCK = 2;
inline constexpr int32_t NT_UNLCK = 3;
// Commands: NT_SETLKW waits for the range; any other command does not.
inline constexpr int NT_SETLK = 6;
inline constexpr int NT_SETLKW = 7;

// Lock calls of this process, for statistics.
extern uint32_t NT_read_lock_calls;
extern uint32_t NT_write_lock_calls;

// Descriptor 0 and a non-zero l_whence are refused with a stanza in
// mrv.errlog and -1. An unknown l_type writes a stanza and yet gives 0.
// A lock already held by this process is converted (shared <-> exclusive).
// A refused lock gives errno 11 (EAGAIN) and -1.
int NT_fcntl(int fd, int command, NT_flock* lock);
// read(2) that repeats after an interrupted call.
ssize_t NT_read(int fd, void* buffer, size_t count);

// ---- Directory scan ----------------------------------------------------------

struct NT_dirent {
  uint16_t d_namlen;
  char d_name[256];
};
struct NT_DIR;
// Not a directory: errno 20 (ENOTDIR) and null. "." and ".." are returned.
NT_DIR* NT_opendir(const char* path);
// The entry stays valid until the next call of any scan; null at the end.
NT_dirent* NT_readdir(NT_DIR* dir);
int NT_closedir(NT_DIR* dir);

// Owns a scan of NT_opendir and ends it at the end of its scope, or at
// reset(). Not copyable: the scan must end exactly once.
class ScopedDir {
 public:
  explicit ScopedDir(NT_DIR* dir) : dir_(dir) {}
  ~ScopedDir() { reset(); }
  ScopedDir(const ScopedDir&) = delete;
  ScopedDir& operator=(const ScopedDir&) = delete;
  NT_DIR* get() const { return dir_; }
  // Ends the scan now.
  void reset() {
    if (dir_ != nullptr) NT_closedir(dir_);
    dir_ = nullptr;
  }

 private:
  NT_DIR* dir_;
};

// ---- File identity -----------------------------------------------------------

// stat with a stable identity: device folded to 32 bits and the inode as two
// 32-bit halves. Two paths name one file exactly when the triple is equal.
struct MRV_STAT {
  mode_t mode;
  int64_t size;
  int64_t mtime;
  int64_t atime;
  int64_t ctime;
  uint32_t nlink;
  uint32_t uid;
  uint32_t gid;
  uint32_t dev;       // device
  uint32_t ino_high;  // inode, high half
  uint32_t ino_low;   // inode, low half
};
int mrv_stat(const char* path, MRV_STAT* record);
int mrv_fstat(int fd, MRV_STAT* record);

// ---- Files and trees -----------------------------------------------------------

// Rename that replaces the target. Identical names: nothing, success. The
// target is removed first; across file systems the file is copied and the
// source removed. 0 or -1.
int NT_rename(const char* from, const char* to, int flags);
// Deletes `directory`/`pattern`: a file, or a directory tree. A pattern
// ending in "*" deletes the matching entries of the directory and keeps the
// directory; an empty pattern deletes the directory itself. 1 or 0.
int NT_RemoveFile(const char* directory, const char* pattern);
// Copies a file (with its permission bits) or a directory tree. 0 or -1.
int NT_copy_tree(const char* from, const char* to);
// Makes the template's tail unique: up to five trailing "X" take the digits
// of the thread id, the "X" before them steps through a..z0..9, and with it
// the two positions behind it. Null when the template does not fit or the
// names are all taken; errno is kept.
char* mrv_mktemp(char* name_template);
// Free and total space of the file system holding `path`, in 512-byte
// units, each capped at 2147483647. 0 or -1.
int disk_free(const char* path, int32_t* total_out, int32_t* free_out);
char* NT_getcwd(char* buffer, size_t size);
int NT_chdir(const char* path);

// Symbolic links are real on this platform. NT_readlink gives the target's
// length, or -1 with errno 22 for a path that is no link, 2 for none.
ssize_t NT_readlink(const char* path, char* buffer, size_t size);
int NT_symlink(const char* from, const char* to);

// ---- Stream modes --------------------------------------------------------------

// open(2) flags of an fopen mode text: "r" O_RDONLY, "w" O_WRONLY,
// "a" O_WRONLY|O_APPEND, with "+" O_RDWR (and O_APPEND for "a+").
int fopen_mode_to_flags(const char* mode);
inline constexpr uint32_t NT_ACCESS_READ = 1;
inline constexpr uint32_t NT_ACCESS_WRITE = 2;
inline constexpr int NT_OPEN_EXISTING = 3;
inline constexpr int NT_CREATE_ALWAYS = 2;
inline constexpr int NT_OPEN_ALWAYS = 4;
// Access bits and disposition of an fopen mode; 1, or 0 for an unknown
// letter or a leading "+".
int fopen_mode_to_access(const char* mode, uint32_t* access_out, int* disposition_out);
