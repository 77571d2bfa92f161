#include "flib/parttbl.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <algorithm>
#include <cstring>
#include <cstdlib>
#include <fstream>
#include <sstream>
#include <string>

#include "NT/NT_utils.h"
#include "common/fl_errout.h"
#include "common/mrv_msg.h"
#include "common/readconf.h"
#include "common/readroot.h"
#include "flib/fl_globals.h"
#include "flib/fl_io.h"
#include "flib/fl_lock.h"
#include "flib/fl_rel.h"
#include "flib/fl_report.h"

std::vector<PartTableRow> M_part_table;
int32_t M_fl_debug = 0;

namespace {

constexpr int kMaxDirectoryFailures = 10;
constexpr char kPrefixTable[] = ".fil_prefix_tbl";

PartTableRow default_row() {
  PartTableRow row;
  std::snprintf(row.path, sizeof row.path, ".");
  row.reserve = DEFAULT_PARTITION_RESERVE;
  row.id = 0;
  return row;
}

const PartTableRow* find_partition(uint32_t id) {
  for (const auto& row : M_part_table)
    if (row.id == id) return &row;
  return nullptr;
}

uint32_t device_of(const char* path) {
  MRV_STAT st;
  return mrv_stat(path, &st) == 0 ? st.dev : 0;
}

// Available space of a partition in 512-byte units.
int64_t available_space(const PartTableRow& row, const char* path) {
  if (row.space_cell != nullptr) return *row.space_cell;
  int32_t total = 0, free_units = 0;
  const char* where = row.id == 0 ? path : row.path;
  if (disk_free(where, &total, &free_units) != 0) return 0;
  return free_units;
}

// The partition that holds a device; the default row when none does.
const PartTableRow& partition_of_device(uint32_t device) {
  for (const auto& row : M_part_table)
    if (row.id != 0 && device_of(row.path) == device) return row;
  return M_part_table.front();
}

char raise_letter(char c, bool* carry) {
  *carry = false;
  if (c == 'Z') return 'a';
  if (c == 'z') {
    *carry = true;
    return 'A';
  }
  return static_cast<char>(c + 1);
}

int create_error(const char* format, const char* a, const char* b = "") {
  M_errout(0, format, a, b);
  return -1;
}

}  // namespace

int M_load_part_table() {
  M_part_table.assign(1, default_row());
  if (std::getenv("PART_TBL") == nullptr && mrv_home_dir().empty()) return 0;
  std::ifstream in(M_cfg_part_tbl());
  if (!in) return 0;
  std::string line;
  while (std::getline(in, line)) {
    size_t hash = line.find('#');
    if (hash != std::string::npos) line.erase(hash);
    std::istringstream fields(line);
    std::string path;
    if (!(fields >> path)) continue;
    PartTableRow row;
    if (!(fields >> row.reserve >> row.id) || row.id == 0 || path.size() >= sizeof row.path) {
      M_errmsg(0, "Bad line in part table: %s\n", line.c_str());
      return -1;
    }
    std::snprintf(row.path, sizeof row.path, "%s", path.c_str());
    M_part_table.push_back(row);
  }
  return 0;
}

int M_check_partition_space(uint32_t partition_id, const char* path, uint32_t size) {
  if (M_part_table.empty()) M_part_table.assign(1, default_row());
  const PartTableRow* row = find_partition(partition_id);
  if (row == nullptr) {
    if (M_fl_debug == 1)
      M_errout(0, "In M_check_partition_space(), can't find partition (%d) information in part table.\n",
               static_cast<int>(partition_id));
    row = &M_part_table.front();
  }
  int64_t available = available_space(*row, path);
  int64_t need = size / 512;
  if (available > static_cast<int64_t>(row->reserve) + need) return 1;
  if (M_fl_debug == 1) {
    if (row->id == 0)
      M_errout(0,
               "In M_check_partition_space(), no space for current partition, avaiable space (%d), "
               "reserved space (%d) need space (%d).\n",
               static_cast<int>(available), static_cast<int>(row->reserve), static_cast<int>(need));
    else
      M_errout(0,
               "In M_check_partition_space(), no space for partition (%d) avaiable space (%d), "
               "reserved space (%d) need space (%d).\n",
               static_cast<int>(row->id), static_cast<int>(available), static_cast<int>(row->reserve),
               static_cast<int>(need));
  }
  return 0;
}

const PartTableRow* search_available_partition(REL_TYPE* rel, uint32_t* device, uint32_t size, int wait,
                                               int* result) {
  *result = 0;
  bool waited = false;
  for (;;) {
    const PartTableRow* best = nullptr;
    int64_t best_spare = 0;
    for (int pass = 0; pass < 2; ++pass) {
      for (auto& row : M_part_table) {
        if (row.id == 0 || device_of(row.path) == *device || access(row.path, W_OK) != 0) continue;
        int64_t spare = available_space(row, row.path) - row.reserve;
        if (spare > static_cast<int64_t>(size / 512)) {
          // The reservation charges one block to the partition at once.
          if (rel != nullptr && row.space_cell != nullptr && *row.space_cell >= rel->block_size / 512)
            *row.space_cell -= rel->block_size / 512;
          if (waited && wait) *result = -2;
          return &row;
        }
        if (best == nullptr || spare > best_spare) {
          best = &row;
          best_spare = spare;
        }
      }
      if (pass == 0) M_load_part_table();
    }
    if (best != nullptr && best_spare > static_cast<int64_t>(size / 5120)) {
      M_errout(0, "Warning: Please clean up some space for create file.\n");
      return best;
    }
    if (M_no_wait != 0 || M_fs_full_wait() < 0) return nullptr;
    waited = true;
  }
}

void next_prefix(char prefix[3]) {
  bool carry = false;
  prefix[1] = raise_letter(prefix[1], &carry);
  if (carry) prefix[0] = raise_letter(prefix[0], &carry);
  prefix[2] = '\0';
}

int form_relative_dirname(char* target, size_t size, const char* partition, const char* file_path) {
  std::string file(file_path);
  while (file.size() > 1 && file.back() == '/') file.pop_back();
  size_t slash = file.rfind('/');
  std::string name = slash == std::string::npos ? file : file.substr(slash + 1);
  std::string table = std::string(partition) + "/" + kPrefixTable;
  int fd = open(table.c_str(), O_RDWR | O_CREAT, 0666);
  if (fd < 0) {
    M_errout(0, "open file (%s) error\n", table.c_str());
    return M_file_error(nullptr, "form_relative_dirname", "open .fil_prefix_tbl", nullptr, 0, 0);
  }
  if (M_mrvlockf(fd, LOCK_EXCLUSIVE, 0, 1) != 0) {
    M_errout(0, "Lock file (%s) error\n", table.c_str());
    close(fd);
    return M_file_error(nullptr, "form_relative_dirname", "lock_file", nullptr, 0, 0);
  }
  std::string text;
  char buffer[4096];
  for (ssize_t n; (n = NT_read(fd, buffer, sizeof buffer)) > 0;) text.append(buffer, static_cast<size_t>(n));
  char prefix[3] = {};
  char last[3] = {};
  std::istringstream lines(text);
  for (std::string line; std::getline(lines, line);) {
    if (line.size() < 3 || line[2] != ':') continue;
    std::memcpy(last, line.data(), 2);
    if (line.compare(3, std::string::npos, name) == 0) std::memcpy(prefix, line.data(), 2);
  }
  int result = 0;
  if (prefix[0] == '\0') {
    if (last[0] == '\0') {
      std::memcpy(prefix, "AA", 2);
    } else {
      std::memcpy(prefix, last, 3);
      next_prefix(prefix);
    }
    std::string line = std::string(prefix, 2) + ":" + name + "\n";
    if (M_ls_write(fd, reinterpret_cast<const uint8_t*>(line.data()), line.size(),
                   static_cast<off_t>(text.size())) != static_cast<ssize_t>(line.size())) {
      M_errout(0, "create file (%s) error\n", table.c_str());
      result = M_file_error(nullptr, "form_relative_dirname", "create .fil_prefix_tbl", nullptr, 0, 0);
    }
  }
  M_mrvunlock(fd, 0, 1);
  close(fd);
  if (result == 0) std::snprintf(target, size, "%s/%s%s", partition, prefix, name.c_str());
  return result;
}

int M_create_part_file(REL_TYPE* rel, const char* path, uint32_t* device, uint32_t size, int wait) {
  if (M_part_table.empty()) M_part_table.assign(1, default_row());
  std::string full(path);
  size_t slash = full.rfind('/');
  if (slash == std::string::npos) return create_error("filename (%s) is illegal.\n", path);
  std::string dir = full.substr(0, slash);
  std::string last = full.substr(slash + 1);
  bool overflow = last.compare(0, 4, "over") == 0;
  if (!overflow && last.compare(0, 3, "dat") != 0) return create_error("filename (%s) is illegal.\n", path);

  // A later part takes the device and the owner of the first part.
  uint32_t current = device_of(dir.empty() ? "/" : dir.c_str());
  MRV_STAT sibling{};
  bool have_sibling = false;
  if (last != "dat001" && last != "over001") {
    std::string first = dir + (overflow ? "/over001" : "/dat001");
    if (mrv_stat(first.c_str(), &sibling) != 0) {
      M_errout(0, "stat file (%s) error", first.c_str());
      return M_file_error(rel, "M_create_part_file", "stat file", nullptr, 0, 0);
    }
    current = sibling.dev;
    have_sibling = true;
  }
  uint64_t b = rel->block_size;
  uint64_t wanted = std::max<uint64_t>(size, (static_cast<uint64_t>(std::max(rel->modulo, 0)) + 1) * b);
  if (rel->groups_per_part > 0) wanted = std::min<uint64_t>(wanted, rel->groups_per_part * b);
  auto want = static_cast<uint32_t>(std::min<uint64_t>(wanted, 0xFFFFFFFFu));

  const PartTableRow* chosen = &partition_of_device(current);
  int search_result = 0;
  if (!M_check_partition_space(chosen->id, dir.c_str(), want)) {
    chosen = search_available_partition(rel, &current, want, wait, &search_result);
    if (chosen == nullptr) return -1;
  }
  std::string part_path = full;
  uint32_t chosen_device = current;
  if (chosen->id != 0 && std::strcmp(chosen->path, ".") != 0 && device_of(chosen->path) != current) {
    char target[REL_NAME_SIZE + 160];
    int failures = 0;
    for (;;) {
      if (form_relative_dirname(target, sizeof target, chosen->path, dir.c_str()) != 0) return -1;
      struct stat st;
      if (stat(target, &st) == 0 || mkdir(target, 0777) == 0) break;
      M_errout(0, "create directory %s\n", target);
      if (++failures >= kMaxDirectoryFailures) return create_error("file (%s) is bad", target);
      chosen = search_available_partition(rel, &current, want, wait, &search_result);
      if (chosen == nullptr) return -1;
    }
    part_path = std::string(target) + "/" + last;
    chosen_device = device_of(target);
    struct stat link_st;
    if (lstat(path, &link_st) == 0) {
      M_errout(0, "File (%s) is existed.\n", path);
      if (unlink(path) != 0) return create_error("Unlink file (%s) error, please delete this file.\n", path);
    }
    while (NT_symlink(part_path.c_str(), path) != 0) {
      if ((errno == EIO || errno == ENOSPC) && M_no_wait == 0 && M_fs_full_wait() == 0) continue;
      return create_error("make symbol mrv_link (%s, %s) error\n", part_path.c_str(), path);
    }
  }
  int fd = open(part_path.c_str(), O_CREAT | O_EXCL | O_RDWR, 0666);
  if (fd < 0) {
    if (errno == EEXIST) return create_error("File (%s) is existed.\n", part_path.c_str());
    return create_error("Open file (%s) error.\n", part_path.c_str());
  }
  if (have_sibling) {
    // Only the superuser can hand a file over; anyone else keeps the part
    // as their own, which is what they could write anyway.
    int ignored = fchown(fd, sibling.uid, sibling.gid);
    (void)ignored;
  }
  if (search_result == -2) {
    // Placed only after a wait: the caller searches its parts afresh, so
    // the part is not left half-registered.
    close(fd);
    unlink(part_path.c_str());
    if (part_path != full) unlink(path);
    return -2;
  }
  *device = chosen_device;
  return fd;
}
