// Directory scan and file identity.
#include <dirent.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <memory>
#include <string>

#include "NT/NT_utils.h"

struct NT_DIR {
  DIR* dir = nullptr;
  std::string path;
};

namespace {

// One record serves every scan of the process.
NT_dirent g_entry;

void fill_identity(const struct stat& st, MRV_STAT* r) {
  r->mode = st.st_mode;
  r->size = st.st_size;
  r->mtime = st.st_mtim.tv_sec;
  r->atime = st.st_atim.tv_sec;
  r->ctime = st.st_ctim.tv_sec;
  r->nlink = static_cast<uint32_t>(st.st_nlink);
  r->uid = st.st_uid;
  r->gid = st.st_gid;
  uint64_t dev = st.st_dev;
  uint64_t ino = st.st_ino;
  r->dev = static_cast<uint32_t>(dev ^ (dev >> 32));
  r->ino_high = static_cast<uint32_t>(ino >> 32);
  r->ino_low = static_cast<uint32_t>(ino);
}

}  // namespace

NT_DIR* NT_opendir(const char* path) {
  struct stat st;
  if (stat(path, &st) != 0) return nullptr;
  if (!S_ISDIR(st.st_mode)) {
    errno = ENOTDIR;
    return nullptr;
  }
  DIR* d = opendir(path);
  if (d == nullptr) return nullptr;
  auto* handle = new NT_DIR;
  handle->dir = d;
  handle->path = path;
  return handle;
}

NT_dirent* NT_readdir(NT_DIR* dir) {
  if (dir == nullptr || dir->dir == nullptr) return nullptr;
  dirent* e = readdir(dir->dir);
  if (e == nullptr) return nullptr;
  size_t n = strnlen(e->d_name, sizeof g_entry.d_name - 1);
  std::memcpy(g_entry.d_name, e->d_name, n);
  g_entry.d_name[n] = '\0';
  g_entry.d_namlen = static_cast<uint16_t>(n);
  return &g_entry;
}

int NT_closedir(NT_DIR* dir) {
  if (dir == nullptr) return -1;
  std::unique_ptr<NT_DIR> owned(dir);
  return owned->dir != nullptr ? closedir(owned->dir) : 0;
}

int mrv_stat(const char* path, MRV_STAT* record) {
  std::memset(record, 0, sizeof *record);
  struct stat st;
  if (stat(path, &st) != 0) return -1;
  fill_identity(st, record);
  return 0;
}

int mrv_fstat(int fd, MRV_STAT* record) {
  std::memset(record, 0, sizeof *record);
  struct stat st;
  if (fd < 0 || fstat(fd, &st) != 0) return -1;
  fill_identity(st, record);
  return 0;
}
