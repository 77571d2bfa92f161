#include "flib/fl_dirfile.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <string>

#include "NT/NT_fault.h"
#include "NT/NT_utils.h"
#include "flib/fl_hash.h"
#include "flib/fl_rel.h"
#include "flib/fl_report.h"
#include "flib/fl_write.h"

namespace {

// The entry's path; false for a key that cannot name a file.
bool entry_path(const REL_TYPE* rel, const uint8_t* key, int32_t key_length, std::string* out) {
  std::string name(reinterpret_cast<const char*>(key), static_cast<size_t>(key_length));
  if (name.empty() || name == "." || name == ".." || name.find('/') != std::string::npos ||
      name.find('\0') != std::string::npos)
    return false;
  *out = std::string(rel->path) + "/" + name;
  return true;
}

}  // namespace

int M_dir_write(REL_TYPE* rel, const uint8_t* key, int32_t key_length, const uint8_t* record,
                int32_t record_length, int32_t mode) {
  const char* fn = "M_dir_write";
  std::string path;
  if (!entry_path(rel, key, key_length, &path)) return M_file_error(rel, fn, "key", key, key_length, 0);
  bool exists = access(path.c_str(), F_OK) == 0;
  if ((mode == ADD_IF_ABSENT && exists) || (mode == ADD_IF_EXISTS && !exists)) {
    M_add_refused = mode;
    return -1;
  }
  // The record is written beside its entry and renamed over it, so that a
  // reader sees the old or the new record, never a part of one.
  std::string temporary = path + ".~new";
  ScopedFd fd(open(temporary.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0666));
  if (!fd.valid()) return M_file_error(rel, fn, "open", key, key_length, errno);
  int32_t done = 0;
  while (done < record_length) {
    ssize_t n = NT_write(fd.get(), record + done, static_cast<size_t>(record_length - done));
    if (n < 0 && errno == EINTR) continue;
    if (n <= 0) {
      // Closed before the half-written file goes.
      fd.reset();
      unlink(temporary.c_str());
      return M_file_error(rel, fn, "write", key, key_length, errno);
    }
    done += static_cast<int32_t>(n);
  }
  if (close(fd.release()) != 0 || rename(temporary.c_str(), path.c_str()) != 0) {
    unlink(temporary.c_str());
    return M_file_error(rel, fn, "rename", key, key_length, errno);
  }
  return 1;
}

int M_dir_read(REL_TYPE* rel, const uint8_t* key, int32_t key_length, std::string* record) {
  std::string path;
  if (!entry_path(rel, key, key_length, &path)) return 0;
  ScopedFd fd(open(path.c_str(), O_RDONLY));
  if (!fd.valid()) return errno == ENOENT ? 0 : M_file_error(rel, "M_dir_read", "open", key, key_length, errno);
  record->clear();
  char buffer[65536];
  for (;;) {
    ssize_t n = read(fd.get(), buffer, sizeof buffer);
    if (n < 0 && errno == EINTR) continue;
    if (n < 0) return M_file_error(rel, "M_dir_read", "read", key, key_length, errno);
    if (n == 0) break;
    record->append(buffer, static_cast<size_t>(n));
  }
  return 1;
}

int M_dir_exists(REL_TYPE* rel, const uint8_t* key, int32_t key_length) {
  std::string path;
  struct stat st;
  return entry_path(rel, key, key_length, &path) && stat(path.c_str(), &st) == 0 && S_ISREG(st.st_mode) ? 1 : 0;
}

int M_dir_delete(REL_TYPE* rel, const uint8_t* key, int32_t key_length) {
  std::string path;
  if (!entry_path(rel, key, key_length, &path)) return 0;
  if (unlink(path.c_str()) == 0) return 1;
  return errno == ENOENT ? 0 : M_file_error(rel, "M_dir_delete", "unlink", key, key_length, errno);
}
