// The sorted build of an index: every record's values go, as lines, into a
// temporary file; the program mrvsort sorts the file in reverse order and
// drops repeats; the tree is then filled from the sorted lines, greatest
// first, without a single split.
//
// A line is the hexadecimal form of the key, a space and the hexadecimal
// form of the @ID, so that the byte order of lines is the order of the
// tree; a numeric index puts before it a flag and the 16 hex digits of an
// order-keeping image of the number.
#include "flib/fl_idxbuild.h"

#include <fcntl.h>
#include <unistd.h>

#include <cerrno>
#include <cmath>
#include <cstdio>
#include <cstring>
#include <fstream>

#include "NT/NT_command.h"
#include "NT/NT_utils.h"
#include "common/fl_errout.h"
#include "common/mrv_msg.h"
#include "common/readroot.h"
#include "flib/fl_idxupd.h"
#include "flib/fl_index.h"
#include "flib/fl_read.h"
#include "flib/fl_rel.h"

namespace {

constexpr size_t kBufferBytes = 1 << 20;
constexpr const char* kHex = "0123456789abcdef";

void put_hex(std::string* out, const std::string& bytes) {
  for (unsigned char c : bytes) {
    out->push_back(kHex[c >> 4]);
    out->push_back(kHex[c & 15]);
  }
}

bool get_hex(const std::string& text, size_t from, size_t to, std::string* out) {
  out->clear();
  if ((to - from) % 2 != 0) return false;
  auto digit = [](char c) { return c >= '0' && c <= '9' ? c - '0' : (c >= 'a' && c <= 'f' ? c - 'a' + 10 : -1); };
  for (size_t i = from; i < to; i += 2) {
    int hi = digit(text[i]);
    int lo = digit(text[i + 1]);
    if (hi < 0 || lo < 0) return false;
    out->push_back(static_cast<char>(hi * 16 + lo));
  }
  return true;
}

// Order-keeping image of a number: flip the sign bit of a positive
// double, every bit of a negative one.
std::string number_prefix(const std::string& key) {
  char* end = nullptr;
  double v = key.empty() ? 0 : std::strtod(key.c_str(), &end);
  if (key.empty() || end != key.c_str() + key.size() || !std::isfinite(v)) return "1";
  if (v == 0) v = 0;  // -0 sorts as 0
  uint64_t bits;
  std::memcpy(&bits, &v, sizeof bits);
  bits = (bits & 0x8000000000000000ull) != 0 ? ~bits : bits | 0x8000000000000000ull;
  char text[20];
  std::snprintf(text, sizeof text, "0%016llx", static_cast<unsigned long long>(bits));
  return text;
}

class TempFile {
 public:
  TempFile() = default;
  ~TempFile() {
    if (fd_ >= 0) close(fd_);
    if (!path_.empty()) unlink(path_.c_str());
  }
  TempFile(const TempFile&) = delete;
  TempFile& operator=(const TempFile&) = delete;
  // Makes a new file in the temporary directory. false after a report.
  bool make(const char* stem) {
    const char* dir = get_temp_path();
    std::string name = std::string(dir != nullptr ? dir : "/tmp/");
    if (name.back() != '/') name += '/';
    name += stem;
    name += "XXXXXX";
    std::vector<char> buffer(name.begin(), name.end());
    buffer.push_back('\0');
    for (int attempt = 0; attempt < 8; ++attempt) {
      if (mrv_mktemp(buffer.data()) == nullptr) break;
      fd_ = open(buffer.data(), O_RDWR | O_CREAT | O_EXCL, 0666);
      if (fd_ >= 0) {
        path_ = buffer.data();
        return true;
      }
      if (errno != EEXIST) break;
      std::copy(name.begin(), name.end(), buffer.begin());
    }
    M_errout(0, "Index: cannot make a temporary file in %s: %s\n", dir != nullptr ? dir : "/tmp", std::strerror(errno));
    return false;
  }
  bool append(const std::string& bytes) {
    size_t done = 0;
    while (done < bytes.size()) {
      ssize_t n = write(fd_, bytes.data() + done, bytes.size() - done);
      if (n < 0 && errno == EINTR) continue;
      if (n <= 0) return false;
      done += static_cast<size_t>(n);
    }
    return true;
  }
  void close_now() {
    if (fd_ >= 0) close(fd_);
    fd_ = -1;
  }
  const std::string& path() const { return path_; }

 private:
  int fd_ = -1;
  std::string path_;
};

}  // namespace

std::string M_index_sort_line(char key_type, const std::string& key, const std::string& id) {
  std::string line;
  line.reserve(2 * (key.size() + id.size()) + 20);
  if (key_type == 'N') line += number_prefix(key);
  put_hex(&line, key);
  line += ' ';
  put_hex(&line, id);
  line += '\n';
  return line;
}

bool M_index_parse_line(char key_type, const std::string& line, std::string* key, std::string* id) {
  size_t start = 0;
  if (key_type == 'N') {
    if (line.empty()) return false;
    start = line[0] == '0' ? 17 : 1;
    if (line.size() < start) return false;
  }
  size_t space = line.find(' ', start);
  if (space == std::string::npos) return false;
  return get_hex(line, start, space, key) && get_hex(line, space + 1, line.size(), id);
}

int M_write_sorted_keys(IndexBuild* build, bool run_sort) {
  if (!build->buffer.empty()) {
    std::string out;
    out.swap(build->buffer);
    auto* file = static_cast<TempFile*>(build->unsorted);
    if (!file->append(out)) {
      M_errout(0, "Index: write of %s failed: %s\n", file->path().c_str(), std::strerror(errno));
      return -1;
    }
  }
  if (!run_sort) return 0;
  auto* in = static_cast<TempFile*>(build->unsorted);
  auto* out = static_cast<TempFile*>(build->sorted);
  in->close_now();
  out->close_now();
  int status = NT_run_program("mrvsort", {"-u", "-r", "-o", out->path(), in->path()});
  if (status != 0) {
    M_errout(0, "Index: mrvsort %s (status %d)\n", status < 0 ? "cannot be run" : "failed", status);
    return -1;
  }
  return 0;
}

void M_index_space_report(const char* file, const char* index, const IndexState* h, const char* reason) {
  char path[64];
  std::snprintf(path, sizeof path, "/tmp/LARGERPT%u", static_cast<unsigned>(getpid()));
  std::ofstream out(path, std::ios::trunc);
  out << "\nExecuting Status:\n"
      << "Building index '" << index << "' of file " << file << " stopped: no room for a further node.\n"
      << "\nIndex File status:\n";
  if (h != nullptr) {
    out << "block size " << h->node_size << ", key length " << h->head.key_length << ", "
        << (h->head.large_flag ? "large index of " : "index of ") << static_cast<int>(h->head.part_count)
        << " part(s), part size limit " << h->head.part_size_limit << ", used " << h->head.end_offset
        << " bytes in idx001\n";
  }
  out << "\nReasoning:\n"
      << reason << "\n"
      << "Processing Suggestion: reclaim space on the file system of the index, or raise MAX_FLENGTH,"
         " then build the index again.\n";
  out.close();
  M_errmsg(0, "Index space problem while building index '%s' of %s: see %s\n", index, file, path);
}

int M_build_index(REL_TYPE* rel, int row) {
  IndexState* h = rel->index;
  if (h == nullptr || row < 0 || row >= static_cast<int>(h->rows.size())) return -1;
  IndexEntry e = h->rows[static_cast<size_t>(row)].entry;
  if (e.field_type != 'D') {
    M_errout(0, "Index: index '%s' of field type %c cannot be built here\n", e.name, e.field_type);
    return -1;
  }
  // Searches see the index as unusable until the load is done.
  if (M_clear_index(h, row, 2) < 0) return -1;
  unlink(M_xlog_path(rel->path, rel_is_dynamic(rel)).c_str());
  TempFile unsorted;
  TempFile sorted;
  if (!unsorted.make("mrvidx") || !sorted.make("mrvsrt")) return -1;
  IndexBuild build;
  build.unsorted = &unsorted;
  build.sorted = &sorted;
  std::string record;
  int walked = M_for_each_key(rel, [&](const uint8_t* key, int32_t key_length, const uint8_t* block, int32_t r,
                                       uint32_t address) {
    std::string id(reinterpret_cast<const char*>(key), static_cast<size_t>(key_length));
    if (M_catch_tuple(rel, key, key_length, block, r, address, &record, 0) < 0) return -1;
    for (const std::string& v : M_index_values(e, id, record)) build.buffer += M_index_sort_line(e.key_type, v, id);
    if (build.buffer.size() >= kBufferBytes && M_write_sorted_keys(&build, false) < 0) return -1;
    return 0;
  });
  if (walked < 0 || M_write_sorted_keys(&build, true) < 0) return -1;
  std::ifstream in(sorted.path(), std::ios::binary);
  std::string line;
  int loaded = M_index_load_sorted(h, row, [&](std::string* key, std::string* id) {
    if (!std::getline(in, line)) return in.eof() ? 0 : -1;
    if (!M_index_parse_line(e.key_type, line, key, id)) {
      M_errout(0, "Index: bad line in the sorted keys of index '%s'\n", e.name);
      return -1;
    }
    return 1;
  });
  if (loaded < 0) {
    if (errno == ENOSPC)
      M_index_space_report(rel->path, e.name, h, "The file system or the part limit of the index file is full.");
    return -1;
  }
  return 1;
}
