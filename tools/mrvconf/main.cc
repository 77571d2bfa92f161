// mrvconf: writes and checks the installation's configuration file.
//
//   mrvconf write [PATH]   a complete mrvconfig: every parameter with its
//                          default, under the comment rows of the table
//   mrvconf check [PATH]   loads the file with defaults for what it lacks,
//                          runs the checks and prints every finding; a
//                          parameter the file lacks is an error too, since a
//                          tool run refuses such a file
//
// PATH defaults to "<MRVHOME>/include/mrvconfig". Exit 0, or 1 on an error.
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

#include "common/init_params.h"
#include "common/readroot.h"

namespace {

int usage() {
  std::fprintf(stderr, "Usage: mrvconf write [PATH]\n       mrvconf check [PATH]\n");
  return 2;
}

std::string standard_path() { return std::string(get_include_dir()) + "/" + CONFIG_FILE_NAME; }

int write_config(const std::string& path) {
  ConfigRecord r;
  config_default_record(config_home(), &r);
  std::string text = config_file_text(r);
  FILE* f = std::fopen(path.c_str(), "w");
  if (f == nullptr) {
    std::fprintf(stderr, "mrvconf: can't write %s: %s\n", path.c_str(), std::strerror(errno));
    return 1;
  }
  bool ok = std::fwrite(text.data(), 1, text.size(), f) == text.size();
  ok = std::fclose(f) == 0 && ok;
  if (!ok) {
    std::fprintf(stderr, "mrvconf: can't write %s: %s\n", path.c_str(), std::strerror(errno));
    return 1;
  }
  std::printf("%s written\n", path.c_str());
  return 0;
}

int check_config(const std::string& path) {
  ConfigRecord r;
  std::vector<ConfigFinding> findings;
  int errors = init_params(path, &r, &findings);
  if (errors < 0) {
    std::printf("%s does not load\n", path.c_str());
    return 1;
  }
  for (const ConfigParam& p : config_params()) {
    if (p.kind == ParamKind::Comment || config_find_line(p.text) < config_line_count()) continue;
    std::printf("mrvconfig parameter %s is missed.\n", p.text);
    ++errors;
  }
  for (const ConfigFinding& f : findings) {
    std::string text = f.text;
    if (text.empty() || text.back() != '\n') text += '\n';
    std::fputs(text.c_str(), stdout);
  }
  if (errors > 0) {
    std::printf("%s: %d error%s\n", path.c_str(), errors, errors == 1 ? "" : "s");
    return 1;
  }
  std::printf("%s: no errors\n", path.c_str());
  return 0;
}

}  // namespace

int main(int argc, char** argv) {
  setenv("MRV_MSG_PAUSE_MS", "0", 0);
  if (argc < 2 || argc > 3) return usage();
  std::string command = argv[1];
  std::string path = argc == 3 ? argv[2] : standard_path();
  if (command == "write") return write_config(path);
  if (command == "check") return check_config(path);
  return usage();
}
