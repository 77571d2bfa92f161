#include "flib/fl_voc.h"

#include <sys/stat.h>
#include <unistd.h>

#include <cstdio>

#include "common/mrv_marks.h"
#include "flib/fl_delete.h"
#include "flib/fl_open.h"
#include "flib/fl_read.h"
#include "flib/fl_write.h"

REL_TYPE M_voc;

namespace {

bool voc_open = false;

const uint8_t* bytes(const std::string& s) { return reinterpret_cast<const uint8_t*>(s.data()); }
int32_t length(const std::string& s) { return static_cast<int32_t>(s.size()); }

}  // namespace

bool M_voc_is_open() { return voc_open; }

int M_open_voc(const char* path) {
  if (voc_open) M_close_voc();
  M_voc = REL_TYPE{};
  int rc = M_openfile(&M_voc, path, OpenMode::ReadWrite);
  voc_open = rc == 1;
  return rc;
}

void M_close_voc() {
  if (!voc_open) return;
  M_closefile(&M_voc);
  voc_open = false;
}

int M_voc_read(const std::string& key, std::string* record) {
  if (!voc_open) return 0;
  return M_read_tuple(&M_voc, bytes(key), length(key), record);
}

int M_voc_write(const std::string& key, const std::string& record) {
  if (!voc_open) return 0;
  return M_append_strtuple(&M_voc, bytes(key), length(key), bytes(record), length(record), 0, nullptr);
}

int M_voc_delete(const std::string& key) {
  if (!voc_open) return 0;
  return M_delete_tuple(&M_voc, bytes(key), length(key), nullptr);
}

VocEntry M_voc_fields(const std::string& record) {
  VocEntry entry;
  std::string* fields[] = {&entry.type, &entry.data_path, &entry.dict_path};
  size_t at = 0;
  for (std::string* field : fields) {
    if (at > record.size()) break;
    size_t end = at;
    while (end < record.size() && static_cast<unsigned char>(record[end]) != M_FM &&
           static_cast<unsigned char>(record[end]) != M_RM)
      ++end;
    *field = record.substr(at, end - at);
    if (end >= record.size() || static_cast<unsigned char>(record[end]) == M_RM) break;
    at = end + 1;
  }
  return entry;
}

int M_open_by_voc(REL_TYPE* rel, const std::string& name, int which) {
  std::string record;
  if (M_voc_read(name, &record) != 1) return 0;
  VocEntry entry = M_voc_fields(record);
  const std::string& path = which == 3 ? entry.dict_path : entry.data_path;
  if (path.empty()) return 0;
  // A directory without a primary part is a directory-type file: a handle
  // of modulo 0 whose records are the directory's files.
  struct stat st;
  if (stat(path.c_str(), &st) == 0 && S_ISDIR(st.st_mode) && access((path + "/dat001").c_str(), F_OK) != 0) {
    *rel = REL_TYPE{};
    std::snprintf(rel->path, sizeof rel->path, "%s", path.c_str());
    size_t slash = path.rfind('/');
    std::snprintf(rel->name, sizeof rel->name, "%s", path.c_str() + (slash == std::string::npos ? 0 : slash + 1));
    rel->modulo = 0;
    return 1;
  }
  return M_openfile(rel, path.c_str(), OpenMode::ReadWrite);
}
