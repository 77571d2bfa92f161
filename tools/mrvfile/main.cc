#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "common/readconf.h"
#include "common/readroot.h"
#include "flib/fl_mempool.h"
#include "flib/parttbl.h"
#include "shmem/shmaddr.h"
#include "mrvfile.h"

namespace {

struct Command {
  const char* name;
  int (*run)(const Args&);
};

constexpr Command kCommands[] = {
    {"create", mrvfile_create},
    {"info", mrvfile_info},
    {"check", mrvfile_check},
    {"put", mrvfile_put},
    {"get", mrvfile_get},
    {"delete", mrvfile_delete},
    {"list", mrvfile_list},
    {"load", mrvfile_load},
    {"resize", mrvfile_resize},
    {"verify", mrvfile_verify},
    {"index", mrvfile_index},
};

}  // namespace

int mrvfile_usage() {
  std::fputs(
      "usage: mrvfile create [--dynamic] [--keydata] [--modulo N] [--block CODE] [--hash TYPE] [--spread N] PATH\n"
      "       mrvfile info PATH\n"
      "       mrvfile check PATH\n"
      "       mrvfile put PATH KEY < RECORD\n"
      "       mrvfile get PATH KEY\n"
      "       mrvfile delete PATH KEY\n"
      "       mrvfile list [--records] PATH\n"
      "       mrvfile load PATH [FILE]\n"
      "       mrvfile resize PATH MODULO\n"
      "       mrvfile verify ACCOUNT [--summary PATH]\n"
      "       mrvfile index add PATH NAME FIELD [--multi] [--numeric] [--later] [--no-empty]\n"
      "                         [--key-length N] [--block CODE] [--compress] [--large] [--ov-modulo N]\n"
      "       mrvfile index list|build|check PATH, index build|scan|drop PATH NAME,\n"
      "       mrvfile index find PATH NAME VALUE\n",
      stderr);
  return 2;
}

bool mrvfile_number(const std::string& text, long* out) {
  if (text.empty()) return false;
  char* end = nullptr;
  long v = std::strtol(text.c_str(), &end, 10);
  if (*end != '\0') return false;
  *out = v;
  return true;
}

int main(int argc, char** argv) {
  if (argc < 2) return mrvfile_usage();
  // An installation's configuration, marks and part table apply when its
  // home is known.
  if (std::getenv("MRVHOME") != nullptr) {
    M_readconfg();
    M_init_process(-1, 1);
  }
  M_init_pools();
  if (M_load_part_table() < 0) return 1;
  for (const auto& command : kCommands) {
    if (std::strcmp(argv[1], command.name) == 0) return command.run(Args(argv + 2, argv + argc));
  }
  return mrvfile_usage();
}
