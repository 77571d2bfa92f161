#include "NT/NT_fault.h"

#include <unistd.h>

#include <cerrno>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>

int NT_last_write_errno = 0;
uint64_t NT_write_failures = 0;

namespace {

enum class Fault { kNone, kWriteFrom, kWriteOnce, kRead, kKill, kInterrupt, kCount };

struct FaultSwitch {
  bool read = false;
  Fault fault = Fault::kNone;
  int error = 0;
  uint64_t at = 0;
  uint64_t writes = 0;
  uint64_t tape_reads = 0;
};

FaultSwitch g_switch;

void print_counts() {
  std::fprintf(stderr, "fault seam: %llu writes, %llu tape reads\n",
               static_cast<unsigned long long>(g_switch.writes),
               static_cast<unsigned long long>(g_switch.tape_reads));
}

// "write:N:ENOSPC", "write:N:EIO", "read:N", "kill:N", "interrupt:N" or
// "count"; anything
// else leaves the switch off.
FaultSwitch& fault_switch() {
  FaultSwitch& s = g_switch;
  if (s.read) return s;
  s.read = true;
  const char* text = std::getenv("MRV_FAULT");
  if (text == nullptr) return s;
  const std::string setting = text;
  if (setting == "count") {
    s.fault = Fault::kCount;
    std::atexit(print_counts);
    return s;
  }
  const size_t colon = setting.find(':');
  if (colon == std::string::npos) return s;
  const std::string what = setting.substr(0, colon);
  char* end = nullptr;
  const unsigned long long n = std::strtoull(setting.c_str() + colon + 1, &end, 10);
  if (n == 0) return s;
  s.at = n;
  if (what == "read" && *end == '\0') {
    s.fault = Fault::kRead;
  } else if (what == "kill" && *end == '\0') {
    s.fault = Fault::kKill;
  } else if (what == "interrupt" && *end == '\0') {
    s.fault = Fault::kInterrupt;
  } else if (what == "write" && std::strcmp(end, ":ENOSPC") == 0) {
    s.fault = Fault::kWriteFrom;
    s.error = ENOSPC;
  } else if (what == "write" && std::strcmp(end, ":EIO") == 0) {
    s.fault = Fault::kWriteOnce;
    s.error = EIO;
  }
  return s;
}

// Writes all `count` bytes through `call` (given the bytes done so far),
// repeating after an interrupted or short call. count, or -1 with errno.
template <typename Call>
ssize_t write_whole(size_t count, Call call) {
  size_t done = 0;
  while (done < count) {
    const ssize_t n = call(done);
    if (n < 0 && errno == EINTR) continue;
    if (n <= 0) {
      // A file system that takes nothing and says nothing is full.
      if (n == 0) errno = ENOSPC;
      return -1;
    }
    done += static_cast<size_t>(n);
  }
  return static_cast<ssize_t>(count);
}

// A whole write through the seam: counted, made by `whole`, and its
// failure counted.
template <typename Whole>
ssize_t counted_write(Whole whole) {
  if (!NT_write_begin()) return -1;
  const ssize_t n = whole();
  if (n < 0) NT_write_failed(errno);
  return n;
}

}  // namespace

bool NT_write_begin() {
  FaultSwitch& s = fault_switch();
  const uint64_t n = ++s.writes;
  switch (s.fault) {
    case Fault::kKill:
      if (n == s.at) raise(SIGKILL);
      return true;
    case Fault::kInterrupt:
      if (n == s.at) raise(SIGINT);
      return true;
    case Fault::kWriteFrom:
      if (n < s.at) return true;
      break;
    case Fault::kWriteOnce:
      if (n != s.at) return true;
      break;
    default:
      return true;
  }
  NT_write_failed(s.error);
  errno = s.error;
  return false;
}

void NT_write_failed(int error) {
  NT_last_write_errno = error;
  ++NT_write_failures;
}

ssize_t NT_pwrite_whole(int fd, const void* buffer, size_t count, off_t offset) {
  const char* bytes = static_cast<const char*>(buffer);
  return write_whole(count, [&](size_t done) {
    return pwrite(fd, bytes + done, count - done, offset + static_cast<off_t>(done));
  });
}

ssize_t NT_write(int fd, const void* buffer, size_t count) {
  const char* bytes = static_cast<const char*>(buffer);
  return counted_write(
      [&] { return write_whole(count, [&](size_t done) { return write(fd, bytes + done, count - done); }); });
}

ssize_t NT_pwrite(int fd, const void* buffer, size_t count, off_t offset) {
  return counted_write([&] { return NT_pwrite_whole(fd, buffer, count, offset); });
}

bool NT_fault_tape_read() {
  FaultSwitch& s = fault_switch();
  const uint64_t n = ++s.tape_reads;
  if (s.fault != Fault::kRead || n != s.at) return false;
  errno = EIO;
  return true;
}
