#include "common/mrv_lang.h"

#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <sstream>

#include "common/mrv_msg.h"

namespace {

bool parse_range(const std::string& token, ByteRange* out) {
  size_t dash = token.find('-', 1);
  if (dash == std::string::npos) return false;
  char* end = nullptr;
  std::string low = token.substr(0, dash), high = token.substr(dash + 1);
  long lo = std::strtol(low.c_str(), &end, 0);
  if (low.empty() || *end != '\0') return false;
  long hi = std::strtol(high.c_str(), &end, 0);
  if (high.empty() || *end != '\0') return false;
  if (lo < 0 || hi > 255 || lo > hi) return false;
  *out = {static_cast<int>(lo), static_cast<int>(hi)};
  return true;
}

bool overlaps(const ByteRange& a, const ByteRange& b) { return a.low <= b.high && b.low <= a.high; }

// Each code set's first byte range must be clear of the others', or else its
// first two bytes together must be.
int check_consistency(const std::vector<CodeSet>& sets, const std::string& path) {
  for (size_t i = 0; i < sets.size(); ++i)
    for (size_t j = i + 1; j < sets.size(); ++j) {
      const CodeSet &a = sets[i], &b = sets[j];
      if (a.ranges.empty() || b.ranges.empty()) {
        M_errmsg(0, "Logic error in check_consistency().\n");
        return -1;
      }
      if (!overlaps(a.ranges[0], b.ranges[0])) continue;
      if (a.ranges.size() > 1 && b.ranges.size() > 1 && !overlaps(a.ranges[1], b.ranges[1])) continue;
      M_errmsg(0,
               "Invalid Multi-byte configuration: first two bytes do not determine a character. file is %s\n",
               path.c_str());
      return -1;
    }
  return 0;
}

}  // namespace

int read_multibyte_config(const std::string& home, const std::string& language, std::vector<CodeSet>* sets) {
  sets->clear();
  const std::string path = home + "sys/" + MULTIBYTE_FILE;
  std::ifstream in(path);
  if (!in) return 0;
  std::string line;
  bool inside = false;
  while (std::getline(in, line)) {
    std::istringstream words(line);
    std::string first;
    if (!(words >> first) || first[0] == '#') continue;
    if (!inside) {
      inside = first == language;
      continue;
    }
    if (first == "END") break;
    CodeSet set{};
    std::string bytes;
    char* end = nullptr;
    set.number = static_cast<int>(std::strtol(first.c_str(), &end, 10));
    if (*end != '\0' || !(words >> bytes)) {
      M_errmsg(0, "Invalid format for %s in %ssys\\multibyte.config\n", language.c_str(), home.c_str());
      return -1;
    }
    set.bytes = std::atoi(bytes.c_str());
    if (set.bytes < 1 || set.bytes > 4) {
      M_errmsg(0, "Invalid number of bytes for a character in file %s\n", path.c_str());
      return -1;
    }
    std::string token;
    while (words >> token) {
      ByteRange r;
      if (!parse_range(token, &r)) {
        M_errmsg(0, "Invalid range format in file %s\n", path.c_str());
        return -1;
      }
      set.ranges.push_back(r);
    }
    if (static_cast<int>(set.ranges.size()) != set.bytes) {
      M_errmsg(0, "Invalid range format in file %s\n", path.c_str());
      return -1;
    }
    if (set.bytes > 1 && set.ranges[0].low < 0x80) {
      M_errmsg(0, "First byte of a non-ASCII character must have high 8 bit on in file %s\n", path.c_str());
      return -1;
    }
    if (!sets->empty() && set.ranges[0].low < sets->back().ranges[0].low) {
      M_errmsg(0, "Ranges are not in accending order. codeset=%i, byte=%i, file=%s\n", set.number, 1, path.c_str());
      return -1;
    }
    sets->push_back(set);
  }
  return check_consistency(*sets, path);
}

std::string M_msg_format(int32_t message_number) {
  char text[32];
  std::snprintf(text, sizeof text, "Error msgno = %d. ", message_number);
  return text;
}
