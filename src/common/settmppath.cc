#include "common/settmppath.h"

#include <sys/stat.h>

#include <algorithm>
#include <cstdio>
#include <string>

#include "common/mrv_exit.h"
#include "common/mrv_msg.h"
#include "common/readroot.h"

char M_tmp_path[TMP_PATH_SIZE];

namespace {

bool g_tmp_done = false;

int set_path(bool fatal) {
  if (g_tmp_done) return 0;
  const char* found = get_temp_path();
  std::string dir = found != nullptr ? found : "/tmp/";
  std::replace(dir.begin(), dir.end(), '\\', '/');
  if (dir.size() > 1 && dir.back() == '/') dir.pop_back();
  struct stat st;
  const char* failure = nullptr;
  if (stat(dir.c_str(), &st) != 0)
    failure = "Can't stat %s.\n";
  else if (!S_ISDIR(st.st_mode))
    failure = "%s is not a directory file.\n";
  if (failure != nullptr) {
    M_errmsg(0, failure, dir.c_str());
    if (fatal) MRV_EXIT(1);
    return -1;
  }
  if (dir.back() != '/') dir += '/';
  std::snprintf(M_tmp_path, sizeof M_tmp_path, "%s", dir.c_str());
  g_tmp_done = true;
  return 0;
}

}  // namespace

void settmppath() { set_path(true); }

int settmppath_report() { return set_path(false); }
