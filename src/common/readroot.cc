#include "common/readroot.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <map>
#include <vector>

#include "common/mrv_exit.h"
#include "common/mrv_msg.h"

namespace {

bool g_root_done = false;
std::string g_home;
std::string g_bin;
std::string g_include;
std::string g_temp;
bool g_temp_done = false;

std::string registry_path() {
  const char* p = std::getenv("MRV_REGISTRY");
  return p != nullptr && *p != '\0' ? p : "/etc/morvane/registry";
}

std::map<std::string, std::string> read_registry() {
  std::map<std::string, std::string> values;
  std::ifstream in(registry_path());
  std::string line;
  while (std::getline(in, line)) {
    if (!line.empty() && line.back() == '\r') line.pop_back();
    auto eq = line.find('=');
    if (eq == std::string::npos || eq == 0) continue;
    values[line.substr(0, eq)] = line.substr(eq + 1);
  }
  return values;
}

[[noreturn]] void root_failure(const char* format, const std::string& arg) {
  M_errmsg(0, format, arg.c_str());
  MRV_EXIT(1);
}

// One of the two home directories: environment, else registry (exported).
std::string find_directory(const char* name, const char* missing_text, const char* stat_text) {
  std::string dir;
  if (const char* env = std::getenv(name); env != nullptr && *env != '\0') {
    dir = env;
  } else {
    auto value = registry_value(name);
    if (!value || value->empty()) root_failure("%s", missing_text);
    dir = *value;
    setenv(name, dir.c_str(), 1);
  }
  struct stat st;
  if (stat(dir.c_str(), &st) != 0) root_failure(stat_text, dir);
  if (!S_ISDIR(st.st_mode)) root_failure("%s is not a directory file.\n", dir);
  if (dir.back() != '/' && dir.back() != '\\') dir += '/';
  return dir;
}

// The short form of a path. Paths here have no short form, so the path
// stands as it is.
std::string short_form(const char* path) { return path; }

}  // namespace

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

namespace {

bool usable_temp_dir(const char* path) {
  struct stat st;
  return stat(path, &st) == 0 && S_ISDIR(st.st_mode) && check_access(path, DirAccessMode::Write) == 0;
}

}  // namespace

std::optional<std::string> registry_value(const char* name) {
  auto values = read_registry();
  auto it = values.find(name);
  if (it == values.end()) return std::nullopt;
  return it->second;
}

int set_registry_value(const char* name, const char* text) {
  auto values = read_registry();
  values[name] = text;
  std::ofstream out(registry_path(), std::ios::trunc);
  if (!out) {
    std::printf("Cannot open Morvane key in Registry.\n");
    return -1;
  }
  for (const auto& [k, v] : values) out << k << '=' << v << '\n';
  return 0;
}

void read_root() {
  if (g_root_done) return;
  setvbuf(stdout, nullptr, _IONBF, 0);
  setvbuf(stderr, nullptr, _IONBF, 0);

  std::string path = registry_path();
  if (FILE* f = std::fopen(path.c_str(), "r"))
    std::fclose(f);
  else if (errno != ENOENT)
    root_failure("%s", "Cannot open Morvane key in Registry.\n");

  if (auto stopped = registry_value("STOPPED"); stopped && std::atoi(stopped->c_str()) != 0)
    root_failure("%s",
                 "An Administrator has stopped Morvane from running.\n"
                 "Use startmr to restart Morvane.\n");

  g_home = find_directory("MRVHOME", "Cannot read MRVHOME from Registry.\n", "Can't stat %s.\n");
  g_bin = find_directory("MRVBIN", "Cannot read MRVBIN from Registry.\n", "Can't access %s.\n");

  std::string temp;
  if (const char* t = get_temp_path()) {
    temp = t;
  } else {
    temp = g_home + "Temp";
    setenv("TEMP", temp.c_str(), 1);
    setenv("TMP", temp.c_str(), 1);
  }
  struct stat st;
  if (stat(temp.c_str(), &st) != 0) root_failure("Can't access %s.\n", temp);
  if (!S_ISDIR(st.st_mode)) root_failure("%s is not a directory file.\n", temp);
  if (check_access(temp.c_str(), DirAccessMode::Write) != 0) root_failure("Unable to access %s directory file.\n", temp);
  g_root_done = true;
}

const char* get_include_dir() {
  if (g_home.empty()) read_root();
  if (g_include.empty()) g_include = g_home + "include";
  return g_include.c_str();
}

const char* get_temp_path() {
  if (g_temp_done) return g_temp.empty() ? nullptr : g_temp.c_str();
  static const char* const kNames[] = {"MRV_TEMP", "TEMP", "TMP"};
  for (const char* name : kNames) {
    const char* value = std::getenv(name);
    if (value == nullptr || *value == '\0') continue;
    std::string form = short_form(value);
    if (!usable_temp_dir(form.c_str())) continue;
    // The short form is what stands in the environment from now on, for the
    // winner and, untested, for the names below it.
    g_temp = form;
    setenv(name, form.c_str(), 1);
    bool after = false;
    for (const char* below : kNames) {
      if (after)
        if (const char* v = std::getenv(below); v != nullptr && *v != '\0')
          setenv(below, short_form(v).c_str(), 1);
      if (below == name) after = true;
    }
    g_temp_done = true;
    return g_temp.c_str();
  }
  if (auto reg = registry_value("MRVTEMP"); reg && !reg->empty()) g_temp = *reg;
  g_temp_done = true;
  return g_temp.empty() ? nullptr : g_temp.c_str();
}

std::string mrv_home_dir() { return g_home; }

std::string mrv_bin_dir() {
  if (!g_bin.empty()) return g_bin;
  const char* env = std::getenv("MRVBIN");
  if (env == nullptr || *env == '\0') return {};
  std::string dir = env;
  if (dir.back() != '/') dir += '/';
  return dir;
}

std::string mrv_home_dir_if_known() {
  if (!g_home.empty()) return g_home;
  const char* env = std::getenv("MRVHOME");
  if (env == nullptr || *env == '\0') return {};
  std::string dir = env;
  if (dir.back() != '/') dir += '/';
  return dir;
}

std::string get_include_dir_if_known() {
  std::string home = mrv_home_dir_if_known();
  return home.empty() ? home : home + "include";
}

void reset_root_for_tests() {
  g_root_done = false;
  g_home.clear();
  g_bin.clear();
  g_include.clear();
  g_temp.clear();
  g_temp_done = false;
}
