#include "NT/NT_access.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>

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
