// mrvhome: lays out and checks an installation's home directory.
//
//   mrvhome init DIR   makes DIR/include with a complete mrvconfig, DIR/sys
//                      with tapeinfo and LANGGRP, and DIR/Temp; files that
//                      exist are kept
//   mrvhome check      says what is wrong with the home that MRVHOME (or the
//                      registry) names
//
// Exit 0, or 1 when something failed or is wrong.
#include <sys/stat.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <sstream>
#include <string>
#include <vector>

#include "NT/NT_access.h"
#include "common/init_params.h"
#include "common/mrv_marks.h"
#include "common/readroot.h"
#include "reel/reel_device.h"

namespace fs = std::filesystem;

namespace {

// tapeinfo has no comment syntax, but a line that does not start with the
// unit is passed over: this one tells how a line reads.
constexpr char kTapeinfoText[] = "# unit device rewind-device block-size (e.g. 0 /dev/nst0 /dev/st0 8192)\n";
constexpr char kLanggrpText[] =
    "# Language groups: a group, then one line per language with its locales, then END.\n"
    "255/192/129\n"
    "ENGLISH C POSIX en_US en_GB\n"
    "END\n";

int usage() {
  std::fprintf(stderr, "Usage: mrvhome init DIR\n       mrvhome check\n");
  return 2;
}

bool write_new(const fs::path& path, const std::string& text) {
  if (fs::exists(path)) {
    std::printf("%s kept\n", path.c_str());
    return true;
  }
  std::ofstream out(path);
  out << text;
  out.close();
  if (!out) {
    std::fprintf(stderr, "mrvhome: can't write %s: %s\n", path.c_str(), std::strerror(errno));
    return false;
  }
  std::printf("%s made\n", path.c_str());
  return true;
}

int init_home(const std::string& dir) {
  fs::path home = fs::absolute(dir);
  for (const char* sub : {"include", "sys", "Temp"}) {
    std::error_code ec;
    fs::create_directories(home / sub, ec);
    if (ec) {
      std::fprintf(stderr, "mrvhome: can't make %s: %s\n", (home / sub).c_str(), ec.message().c_str());
      return 1;
    }
  }
  ConfigRecord r;
  config_default_record(home.string() + "/", &r);
  bool ok = write_new(home / "include" / CONFIG_FILE_NAME, config_file_text(r));
  ok = write_new(home / "sys" / "tapeinfo", kTapeinfoText) && ok;
  ok = write_new(home / "sys" / "LANGGRP", kLanggrpText) && ok;
  return ok ? 0 : 1;
}

// A device of a tapeinfo line: a rewind name may carry the "r" prefix of a
// tape image.
bool device_there(const std::string& name, bool rewind) {
  if (fs::exists(name)) return true;
  return rewind && name.size() > 1 && name[0] == 'r' && fs::exists(name.substr(1));
}

void check_tapeinfo(const std::string& path, std::vector<std::string>* problems) {
  std::ifstream in(path);
  if (!in) {
    problems->push_back(path + ": missing");
    return;
  }
  std::string line;
  for (int n = 1; std::getline(in, line); ++n) {
    std::string where = path + ", line " + std::to_string(n) + ": ";
    if (line.size() > static_cast<size_t>(REEL_TAPEINFO_LINE - 1))
      problems->push_back(where + "longer than " + std::to_string(REEL_TAPEINFO_LINE - 1) +
                          " characters; the rest is not read");
    std::istringstream words(line);
    std::string unit, norewind, rewind, block;
    if (!(words >> unit) || unit[0] == '#') continue;
    if (!(words >> norewind >> rewind >> block)) {
      problems->push_back(where + "needs four fields: unit, device, rewind device, block size");
      continue;
    }
    if (!device_there(norewind, false))
      problems->push_back(where + "device " + norewind + " is not there (relative names from the current directory)");
    if (!device_there(rewind, true))
      problems->push_back(where + "device " + rewind + " is not there (relative names from the current directory)");
  }
}

int check_home() {
  std::string home;
  if (const char* env = std::getenv("MRVHOME"); env != nullptr && *env != '\0')
    home = env;
  else if (auto reg = registry_value("MRVHOME"))
    home = *reg;
  if (home.empty()) {
    std::printf("MRVHOME is not set, and the registry names no home\n");
    return 1;
  }
  if (home.back() != '/') home += '/';
  std::vector<std::string> problems;
  for (const char* sub : {"include", "sys", "Temp"})
    if (!fs::is_directory(home + sub)) problems.push_back(home + sub + ": missing directory");
  std::string config = home + "include/" + CONFIG_FILE_NAME;
  if (!fs::exists(config)) {
    problems.push_back(config + ": missing");
  } else {
    config_set_path(config);
    ConfigRecord r{};
    int loaded = config_strict_load(&r);
    if (loaded == 1) problems.push_back(config + ": does not load; 'mrvconf check' tells why");
    if (loaded == 2) problems.push_back(config + ": holds invalid values; 'mrvconf check' tells which");
  }
  check_tapeinfo(home + "sys/tapeinfo", &problems);
  if (!fs::exists(home + "sys/LANGGRP")) problems.push_back(home + "sys/LANGGRP: missing");
  for (const std::string& p : problems) std::printf("%s\n", p.c_str());
  if (problems.empty()) std::printf("%s: no problems\n", home.c_str());
  return problems.empty() ? 0 : 1;
}

}  // namespace

int main(int argc, char** argv) {
  setenv("MRV_MSG_PAUSE_MS", "0", 0);
  if (argc == 3 && std::strcmp(argv[1], "init") == 0) return init_home(argv[2]);
  if (argc == 2 && std::strcmp(argv[1], "check") == 0) return check_home();
  return usage();
}
