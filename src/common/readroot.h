// Home directories, the registry and the temporary directory.
//
// read_root finds MRVHOME and MRVBIN (environment first, then the registry),
// checks that they are directories, keeps them with a trailing "/", honours
// the administrator's STOPPED switch and settles the temporary directory. It
// runs once; every failure ends the process with status 1.
//
// The registry of this build is a text file of NAME=VALUE lines at the path
// in MRV_REGISTRY (default /etc/morvane/registry); a missing file is an empty
// registry.
#pragma once

#include <optional>
#include <string>

void read_root();
// "<MRVHOME>include", without a trailing separator; runs read_root first.
const char* get_include_dir();
// The temporary directory from MRV_TEMP, TEMP, TMP (first that can really
// take a file), else the registry's MRVTEMP untested; null when none.
const char* get_temp_path();

// Directories known so far, with trailing "/"; empty before read_root. These
// never end the process, for the logging paths that must not.
std::string mrv_home_dir();
std::string mrv_bin_dir();
std::string get_include_dir_if_known();
// The home read_root found, else MRVHOME of the environment with a trailing
// "/"; empty when neither is known.
std::string mrv_home_dir_if_known();

// Access test of a directory that really tries: for modes below 2 only the
// look-up counts; for 2 and above a probe file "_MRV_TEMP_<pid>_" is
// created in the directory, closed and deleted, so a directory that cannot
// really take a file fails. 0 or -1.
int check_access(const char* path, int mode);
// The modes of check_access by name.
enum class DirAccessMode : int {
  LookUp = 0,
  Write = 2,
};
inline int check_access(const char* path, DirAccessMode mode) { return check_access(path, static_cast<int>(mode)); }

std::optional<std::string> registry_value(const char* name);
int set_registry_value(const char* name, const char* text);
// Forgets everything read_root found (tests).
void reset_root_for_tests();
