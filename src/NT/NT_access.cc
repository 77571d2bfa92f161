#include "NT/NT_access.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <string>

int NT_access(const char* path, int mode) {
  struct stat st;
  if (stat(path, &st) != 0) {
    if (errno == ENOENT || errno == ENOTDIR) errno = ENOENT;
    return -1;
  }
  if (S_ISDIR(st.st_mode) || mode < 2) return 0;
  int fd = open(path, mode == 2 ? O_RDWR : O_RDONLY);
  if (fd < 0) {
    errno = errno == ENOENT ? ENOENT : (errno == ENOMEM ? ENOMEM : EACCES);
    return -1;
  }
  close(fd);
  return 0;
}

int check_access(const char* path, int mode) {
  if (mode < 2) {
    struct stat st;
    return stat(path, &st) == 0 ? 0 : -1;
  }
  std::string probe = std::string(path);
  if (!probe.empty() && probe.back() != '/') probe += '/';
  probe += "_MRV_TEMP_" + std::to_string(getpid()) + "_";
  int fd = open(probe.c_str(), O_CREAT | O_RDWR, 0600);
  if (fd < 0) return -1;
  close(fd);
  unlink(probe.c_str());
  return 0;
}
