// mrvsort: sorts the lines of text files by their bytes, the way the index
// build needs it; files larger than memory are sorted in runs that are
// merged through the temporary directory.
//
//   mrvsort [-u] [-r] [-o FILE] [-S BYTES] [-T DIR] [FILE...]
//
//   -u        write one line of each group of equal lines
//   -r        descending order
//   -o FILE   output file (may be one of the inputs); standard output without
//   -S BYTES  memory for lines in one run (default 64 MiB; a K, M or G suffix
//             multiplies); MRVSORT_MEMORY gives the default
//   -T DIR    directory of the runs; default the system's temporary directory
//             (MRV_TEMP, TEMP, TMP, the registry's MRVTEMP), else /tmp
//
// Without FILE the lines come from standard input. A last line without a
// newline gets one. Lines compare as unsigned bytes; a line that is a
// prefix of another sorts first. Exit status 0, or 2 with a message.
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <queue>
#include <string>
#include <vector>

#include "common/readroot.h"

namespace {

struct Options {
  bool unique = false;
  bool reverse = false;
  std::string output;
  size_t memory = 64u << 20;
  std::string temp_dir;
  std::vector<std::string> inputs;
};

// Per-line bookkeeping counted against the memory budget.
constexpr size_t kLineOverhead = sizeof(std::string) + 16;
// Runs merged at once; more runs are merged in passes.
constexpr size_t kFanIn = 32;

[[noreturn]] void die(const std::string& what) {
  std::fprintf(stderr, "mrvsort: %s\n", what.c_str());
  std::exit(2);
}

std::string errno_text() { return std::strerror(errno); }

bool parse_size(const char* text, size_t* out) {
  char* end = nullptr;
  unsigned long long v = std::strtoull(text, &end, 10);
  if (end == text) return false;
  switch (*end) {
    case 'K': case 'k': v <<= 10; ++end; break;
    case 'M': case 'm': v <<= 20; ++end; break;
    case 'G': case 'g': v <<= 30; ++end; break;
    default: break;
  }
  if (*end != '\0' || v == 0) return false;
  *out = static_cast<size_t>(v);
  return true;
}

// A buffered line reader over a stdio stream.
class LineReader {
 public:
  explicit LineReader(FILE* f) : f_(f) {}
  bool next(std::string* line) {
    line->clear();
    int c;
    bool any = false;
    while ((c = getc_unlocked(f_)) != EOF) {
      any = true;
      if (c == '\n') return true;
      line->push_back(static_cast<char>(c));
    }
    if (std::ferror(f_)) die("read error: " + errno_text());
    return any;
  }

 private:
  FILE* f_;
};

class Sorter {
 public:
  explicit Sorter(const Options& o) : o_(o) {}
  ~Sorter() {
    for (const std::string& r : runs_) unlink(r.c_str());
  }

  void add(std::string&& line) {
    used_ += line.size() + kLineOverhead;
    lines_.push_back(std::move(line));
    if (used_ >= o_.memory) spill();
  }

  void finish(FILE* out) {
    if (runs_.empty()) {
      sort_lines();
      for (const std::string& l : lines_) put(out, l);
      return;
    }
    if (!lines_.empty()) spill();
    while (runs_.size() > kFanIn) {
      std::vector<std::string> group(runs_.begin(), runs_.begin() + kFanIn);
      runs_.erase(runs_.begin(), runs_.begin() + kFanIn);
      std::string merged = new_run_name();
      FILE* f = std::fopen(merged.c_str(), "wb");
      if (f == nullptr) die("cannot write " + merged + ": " + errno_text());
      runs_.push_back(merged);
      merge(group, f);
      if (std::fclose(f) != 0) die("cannot write " + merged + ": " + errno_text());
      for (const std::string& r : group) unlink(r.c_str());
    }
    std::vector<std::string> all = runs_;
    merge(all, out);
  }

 private:
  bool before(const std::string& a, const std::string& b) const { return o_.reverse ? b < a : a < b; }

  void sort_lines() {
    std::sort(lines_.begin(), lines_.end(), [this](const std::string& a, const std::string& b) { return before(a, b); });
    if (o_.unique) lines_.erase(std::unique(lines_.begin(), lines_.end()), lines_.end());
  }

  void put(FILE* out, const std::string& line) {
    if (o_.unique && have_last_ && line == last_) return;
    if (o_.unique) {
      last_ = line;
      have_last_ = true;
    }
    if (std::fwrite(line.data(), 1, line.size(), out) != line.size() || std::fputc('\n', out) == EOF)
      die("write error: " + errno_text());
  }

  std::string new_run_name() {
    std::string name = o_.temp_dir + "/mrvsortXXXXXX";
    std::vector<char> buffer(name.begin(), name.end());
    buffer.push_back('\0');
    int fd = mkstemp(buffer.data());
    if (fd < 0) die("cannot make a run file in " + o_.temp_dir + ": " + errno_text());
    close(fd);
    return buffer.data();
  }

  void spill() {
    sort_lines();
    std::string name = new_run_name();
    runs_.push_back(name);
    FILE* f = std::fopen(name.c_str(), "wb");
    if (f == nullptr) die("cannot write " + name + ": " + errno_text());
    for (const std::string& l : lines_)
      if (std::fwrite(l.data(), 1, l.size(), f) != l.size() || std::fputc('\n', f) == EOF)
        die("cannot write " + name + ": " + errno_text());
    if (std::fclose(f) != 0) die("cannot write " + name + ": " + errno_text());
    lines_.clear();
    lines_.shrink_to_fit();
    used_ = 0;
  }

  void merge(const std::vector<std::string>& names, FILE* out) {
    struct Source {
      FILE* f;
      std::unique_ptr<LineReader> reader;
      std::string line;
    };
    std::vector<Source> sources;
    for (const std::string& n : names) {
      FILE* f = std::fopen(n.c_str(), "rb");
      if (f == nullptr) die("cannot read " + n + ": " + errno_text());
      sources.push_back(Source{f, std::make_unique<LineReader>(f), {}});
    }
    auto worse = [&](size_t a, size_t b) { return before(sources[b].line, sources[a].line); };
    std::priority_queue<size_t, std::vector<size_t>, decltype(worse)> heap(worse);
    for (size_t i = 0; i < sources.size(); ++i)
      if (sources[i].reader->next(&sources[i].line)) heap.push(i);
    have_last_ = false;
    while (!heap.empty()) {
      size_t i = heap.top();
      heap.pop();
      put(out, sources[i].line);
      if (sources[i].reader->next(&sources[i].line)) heap.push(i);
    }
    have_last_ = false;
    for (Source& s : sources) std::fclose(s.f);
  }

  const Options& o_;
  std::vector<std::string> lines_;
  size_t used_ = 0;
  std::vector<std::string> runs_;
  std::string last_;
  bool have_last_ = false;
};

Options parse(int argc, char** argv) {
  Options o;
  if (const char* m = std::getenv("MRVSORT_MEMORY"); m != nullptr && !parse_size(m, &o.memory))
    die(std::string("bad MRVSORT_MEMORY: ") + m);
  const char* temp = get_temp_path();
  o.temp_dir = temp != nullptr ? temp : "/tmp";
  for (int i = 1; i < argc; ++i) {
    std::string a = argv[i];
    auto value = [&]() -> std::string {
      if (i + 1 >= argc) die("option " + a + " needs a value");
      return argv[++i];
    };
    if (a == "-u") {
      o.unique = true;
    } else if (a == "-r") {
      o.reverse = true;
    } else if (a == "-ur" || a == "-ru") {
      o.unique = o.reverse = true;
    } else if (a == "-o") {
      o.output = value();
    } else if (a == "-S") {
      std::string v = value();
      if (!parse_size(v.c_str(), &o.memory)) die("bad memory size: " + v);
    } else if (a == "-T") {
      o.temp_dir = value();
    } else if (a.size() > 1 && a[0] == '-') {
      die("unknown option " + a + "\nusage: mrvsort [-u] [-r] [-o FILE] [-S BYTES] [-T DIR] [FILE...]");
    } else {
      o.inputs.push_back(a);
    }
  }
  return o;
}

}  // namespace

int main(int argc, char** argv) {
  Options o = parse(argc, argv);
  Sorter sorter(o);
  std::string line;
  auto read_from = [&](FILE* f) {
    LineReader reader(f);
    while (reader.next(&line)) sorter.add(std::move(line));
  };
  if (o.inputs.empty()) {
    read_from(stdin);
  } else {
    for (const std::string& name : o.inputs) {
      FILE* f = std::fopen(name.c_str(), "rb");
      if (f == nullptr) die("cannot read " + name + ": " + errno_text());
      read_from(f);
      std::fclose(f);
    }
  }
  if (o.output.empty()) {
    sorter.finish(stdout);
    if (std::fflush(stdout) != 0) die("write error: " + errno_text());
    return 0;
  }
  // The output may be one of the inputs: it is written aside and renamed.
  std::string temp = o.output + ".mrvsortXXXXXX";
  std::vector<char> buffer(temp.begin(), temp.end());
  buffer.push_back('\0');
  int fd = mkstemp(buffer.data());
  if (fd < 0) die("cannot write " + o.output + ": " + errno_text());
  mode_t mask = umask(0);
  umask(mask);
  fchmod(fd, 0666 & ~mask);
  FILE* out = fdopen(fd, "wb");
  sorter.finish(out);
  if (std::fclose(out) != 0 || std::rename(buffer.data(), o.output.c_str()) != 0) {
    unlink(buffer.data());
    die("cannot write " + o.output + ": " + errno_text());
  }
  return 0;
}
