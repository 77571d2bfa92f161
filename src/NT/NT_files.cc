// Files and trees: rename, deletion, copy, unique names, free space, links
// and the translation of stream modes.
#include <fcntl.h>
#include <sys/stat.h>
#include <sys/statvfs.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <string>
#include <string_view>

#include "NT/NT_logerror.h"
#include "NT/NT_utils.h"

namespace {

constexpr char kNameLetters[] = "abcdefghijklmnopqrstuvwxyz0123456789";
constexpr int kNameLetterCount = 36;
constexpr int kThreadDigits = 5;

// Removes a file, a link (not what it points to) or a whole directory tree.
bool remove_tree(const std::string& path) {
  struct stat st;
  if (lstat(path.c_str(), &st) != 0) return false;
  if (!S_ISDIR(st.st_mode)) {
    if (unlink(path.c_str()) != 0) {
      MNT_LogError("DeleteFile or NT_RemoveFile");
      return false;
    }
    return true;
  }
  ScopedDir dir(NT_opendir(path.c_str()));
  if (dir.get() == nullptr) {
    MNT_LogError("DeleteFile or NT_RemoveFile");
    return false;
  }
  while (NT_dirent* e = NT_readdir(dir.get())) {
    std::string_view name(e->d_name, e->d_namlen);
    if (name == "." || name == "..") continue;
    std::string child = path + "/" + std::string(name);
    if (!remove_tree(child)) return false;
  }
  // The directory goes once its scan has ended.
  dir.reset();
  if (rmdir(path.c_str()) != 0) {
    MNT_LogError("RemoveDirectory");
    return false;
  }
  return true;
}

bool copy_file(const char* from, const char* to, mode_t mode) {
  ScopedFd in(open(from, O_RDONLY));
  if (!in.valid()) return false;
  int out = open(to, O_WRONLY | O_CREAT | O_TRUNC, mode & 07777);
  if (out < 0) return false;
  char buffer[65536];
  bool ok = true;
  for (;;) {
    ssize_t n = NT_read(in.get(), buffer, sizeof buffer);
    if (n == 0) break;
    if (n < 0) {
      ok = false;
      break;
    }
    for (ssize_t done = 0; done < n;) {
      ssize_t w = write(out, buffer + done, static_cast<size_t>(n - done));
      if (w < 0 && errno == EINTR) continue;
      if (w <= 0) {
        ok = false;
        break;
      }
      done += w;
    }
    if (!ok) break;
  }
  in.reset();
  if (close(out) != 0) ok = false;
  if (ok) chmod(to, mode & 07777);
  return ok;
}

int letter_index(char c) {
  const char* p = std::strchr(kNameLetters, c);
  return p != nullptr && c != '\0' ? static_cast<int>(p - kNameLetters) : 0;
}

}  // namespace

int NT_rename(const char* from, const char* to, int flags) {
  (void)flags;
  if (std::strcmp(from, to) == 0) return 0;
  unlink(to);
  if (rename(from, to) == 0) return 0;
  if (errno != EXDEV) return -1;
  struct stat st;
  if (stat(from, &st) != 0 || !S_ISREG(st.st_mode)) return -1;
  if (!copy_file(from, to, st.st_mode)) return -1;
  return unlink(from) == 0 ? 0 : -1;
}

int NT_RemoveFile(const char* directory, const char* pattern) {
  std::string dir(directory);
  std::string_view pat(pattern != nullptr ? pattern : "");
  if (pat.empty() || pat == "*") {
    while (dir.size() > 1 && dir.back() == '/') dir.pop_back();
    struct stat st;
    if (lstat(dir.c_str(), &st) != 0) return 0;
    return remove_tree(dir) ? 1 : 0;
  }
  if (!dir.empty() && dir.back() != '/') dir += '/';
  if (pat.back() != '*') {
    std::string target = dir + std::string(pat);
    struct stat st;
    if (lstat(target.c_str(), &st) != 0) return 0;
    return remove_tree(target) ? 1 : 0;
  }
  // Only the directory's entries that start with the pattern's prefix go.
  std::string_view prefix = pat.substr(0, pat.size() - 1);
  ScopedDir scan(NT_opendir(dir.c_str()));
  if (scan.get() == nullptr) return 0;
  while (NT_dirent* e = NT_readdir(scan.get())) {
    std::string name(e->d_name, e->d_namlen);
    if (name == "." || name == ".." || name.compare(0, prefix.size(), prefix) != 0) continue;
    if (!remove_tree(dir + name)) return 0;
  }
  return 1;
}

int NT_copy_tree(const char* from, const char* to) {
  struct stat st;
  if (stat(from, &st) != 0) return -1;
  if (S_ISREG(st.st_mode)) return copy_file(from, to, st.st_mode) ? 0 : -1;
  if (!S_ISDIR(st.st_mode)) return -1;
  ScopedDir scan(NT_opendir(from));
  if (scan.get() == nullptr) return -1;
  struct stat target;
  if (stat(to, &target) != 0 && mkdir(to, st.st_mode & 07777) != 0) return -1;
  // The scan's entry is shared by all scans, so names are taken out before
  // the recursion starts another one.
  std::string names;
  while (NT_dirent* e = NT_readdir(scan.get())) {
    std::string_view name(e->d_name, e->d_namlen);
    if (name == "." || name == "..") continue;
    names.append(name);
    names.push_back('\0');
  }
  scan.reset();
  for (size_t at = 0; at < names.size();) {
    std::string name(names.c_str() + at);
    at += name.size() + 1;
    std::string a = std::string(from) + "/" + name;
    std::string b = std::string(to) + "/" + name;
    if (NT_copy_tree(a.c_str(), b.c_str()) != 0) return -1;
  }
  return 0;
}

char* mrv_mktemp(char* name_template) {
  size_t length = std::strlen(name_template);
  if (length == 0 || name_template[length - 1] != 'X') return nullptr;
  long tid = syscall(SYS_gettid);
  size_t at = length;
  for (int i = 0; i < kThreadDigits && at > 0 && name_template[at - 1] == 'X'; ++i) {
    name_template[--at] = static_cast<char>('0' + tid % 10);
    tid /= 10;
  }
  if (at == 0 || name_template[at - 1] != 'X') return nullptr;
  size_t letter = at - 1;
  // The letter position steps fastest; when it has gone through all 36
  // characters, the two positions behind it step like an odometer.
  size_t second = letter + 1 < length ? letter + 1 : letter;
  size_t third = letter + 2 < length ? letter + 2 : letter;
  int start2 = letter_index(name_template[second]);
  int start3 = letter_index(name_template[third]);
  int spaces = 1 + (second != letter ? 1 : 0) + (third != letter ? 1 : 0);
  long total = 1;
  for (int i = 0; i < spaces; ++i) total *= kNameLetterCount;
  int saved_errno = errno;
  for (long n = 0; n < total; ++n) {
    name_template[letter] = kNameLetters[n % kNameLetterCount];
    if (second != letter)
      name_template[second] = kNameLetters[(start2 + n / kNameLetterCount) % kNameLetterCount];
    if (third != letter)
      name_template[third] =
          kNameLetters[(start3 + n / (kNameLetterCount * kNameLetterCount)) % kNameLetterCount];
    if (access(name_template, F_OK) != 0 && errno != EACCES) {
      errno = saved_errno;
      return name_template;
    }
  }
  errno = saved_errno;
  return nullptr;
}

int disk_free(const char* path, int32_t* total_out, int32_t* free_out) {
  const char* where = path == nullptr || path[0] == '\0' || path[0] == '.' ? "." : path;
  struct statvfs vfs;
  if (statvfs(where, &vfs) != 0) return -1;
  uint64_t factor = vfs.f_frsize / 512;
  if (factor == 0) factor = 1;
  auto cap = [](uint64_t v) { return static_cast<int32_t>(v > 2147483647u ? 2147483647u : v); };
  if (total_out != nullptr) *total_out = cap(static_cast<uint64_t>(vfs.f_blocks) * factor);
  if (free_out != nullptr) *free_out = cap(static_cast<uint64_t>(vfs.f_bavail) * factor);
  return 0;
}

char* NT_getcwd(char* buffer, size_t size) { return getcwd(buffer, size); }

int NT_chdir(const char* path) { return chdir(path); }

ssize_t NT_readlink(const char* path, char* buffer, size_t size) {
  return readlink(path, buffer, size);
}

int NT_symlink(const char* from, const char* to) { return symlink(from, to); }

int fopen_mode_to_flags(const char* mode) {
  bool plus = mode[0] != '\0' && mode[1] == '+';
  switch (mode[0]) {
    case 'r':
      return plus ? O_RDWR : O_RDONLY;
    case 'w':
      return plus ? O_RDWR : O_WRONLY;
    case 'a':
      return (plus ? O_RDWR : O_WRONLY) | O_APPEND;
    default:
      return 0;
  }
}

int fopen_mode_to_access(const char* mode, uint32_t* access_out, int* disposition_out) {
  uint32_t access = 0;
  int disposition = 0;
  for (const char* p = mode; *p != '\0'; ++p) {
    switch (*p) {
      case 'r':
        access = NT_ACCESS_READ;
        disposition = NT_OPEN_EXISTING;
        break;
      case 'w':
        access = NT_ACCESS_WRITE;
        disposition = NT_CREATE_ALWAYS;
        break;
      case 'a':
        access = NT_ACCESS_WRITE;
        disposition = NT_OPEN_ALWAYS;
        break;
      case '+':
        if (p == mode) return 0;
        access = NT_ACCESS_READ | NT_ACCESS_WRITE;
        break;
      case 'b':
      case 't':
        break;
      default:
        return 0;
    }
  }
  *access_out = access;
  *disposition_out = disposition;
  return 1;
}
