// bench_gensave: writes the description of the benchmark save for mkreel
// to standard output.
//
//   bench_gensave [--records N] [--seed S] [--dynamic] TAPE
//
// One account BENCH on the reel TAPE: kBenchFiles static hashed files S01..
// holding the first half of the records, and with --dynamic kBenchFiles
// dynamic files D01.. holding the second half. Without --dynamic the second
// half is left out of the save.
#include <cstdio>
#include <cstdlib>
#include <algorithm>
#include <string>
#include <vector>

#include "bench/bench_records.h"

namespace {

constexpr uint64_t kRoom = 8186;  // stream bytes in a data block
constexpr uint64_t kChunk = 255;

// Quotes a value for mkreel: printable bytes as they are, the rest (and the
// quote and backslash) as \xHH.
void put_quoted(const std::string& s, std::string* out) {
  static const char kHex[] = "0123456789ABCDEF";
  out->push_back('\'');
  for (unsigned char c : s) {
    if (c >= 0x20 && c < 0x7F && c != '\'' && c != '\\') {
      out->push_back(static_cast<char>(c));
    } else {
      out->append("\\x");
      out->push_back(kHex[c >> 4]);
      out->push_back(kHex[c & 15]);
    }
  }
  out->push_back('\'');
}

// The source modulo a file of `records` records would have had on the
// saving system: about five records a group.
unsigned source_modulo(uint64_t records) {
  uint64_t m = records / 5 + 1;
  return static_cast<unsigned>(m > 65535 ? 65535 : m);
}

// The line that opens a file's records: a static sub-file, or the dynamic
// file's pages (the mkreel directive for these is "dynfile").
std::string records_line(bool dynamic, uint64_t records) {
  return std::string(dynamic ? "dynfile" : "subfile") + " modulo=" + std::to_string(source_modulo(records)) +
         " room=" + std::to_string(kRoom) + (dynamic ? "" : " chunk=" + std::to_string(kChunk)) + "\n";
}

// Bytes of a static record in the tape stream: header, key and pad,
// chunks with their headers and pads, and the chunk of length 0.
uint64_t stream_size(const std::string& key, const std::string& value) {
  uint64_t n = 4 + key.size() + key.size() % 2;
  for (uint64_t at = 0; at < value.size(); at += kChunk) {
    uint64_t m = std::min(kChunk, value.size() - at);
    n += 2 + m + m % 2;
  }
  return n + 2;
}

// The order of a file's records on tape. A record that ends exactly at a
// block end stays open for the decoder, which then reads the next
// record's size bytes as one more chunk (the source system's reader does
// the same); the saving system's order of groups is free, so such a
// record is held back and put behind one that does not end there.
std::vector<uint64_t> tape_order(uint64_t seed, uint64_t first, uint64_t last) {
  std::vector<uint64_t> order, held;
  std::string key, value;
  auto size_of = [&](uint64_t i) {
    bench_key(seed, i, &key);
    bench_value(seed, i, &value);
    return stream_size(key, value);
  };
  uint64_t at = 0;
  for (uint64_t next = first; next <= last || !held.empty();) {
    bool placed = false;
    for (size_t h = 0; h < held.size() && !placed; ++h) {
      uint64_t n = size_of(held[h]);
      if ((at + n) % kRoom != 0) {
        at += n;
        order.push_back(held[h]);
        held.erase(held.begin() + static_cast<std::ptrdiff_t>(h));
        placed = true;
      }
    }
    if (placed) continue;
    if (next > last) {
      // Only held records are left: the last one may end at a block end,
      // since the sub-file's end mark follows it.
      at += size_of(held.front());
      order.push_back(held.front());
      held.erase(held.begin());
      continue;
    }
    uint64_t n = size_of(next);
    if ((at + n) % kRoom == 0) {
      held.push_back(next++);
      continue;
    }
    at += n;
    order.push_back(next++);
  }
  return order;
}

}  // namespace

int main(int argc, char** argv) {
  uint64_t records = 1000000, seed = 16;
  bool dynamic = false;
  std::string tape;
  for (int i = 1; i < argc; ++i) {
    std::string a = argv[i];
    if (a == "--dynamic") {
      dynamic = true;
    } else if ((a == "--records" || a == "--seed") && i + 1 < argc) {
      (a == "--records" ? records : seed) = std::strtoull(argv[++i], nullptr, 10);
    } else if (tape.empty() && a[0] != '-') {
      tape = a;
    } else {
      std::fputs("usage: bench_gensave [--records N] [--seed S] [--dynamic] TAPE\n", stderr);
      return 2;
    }
  }
  if (tape.empty() || records < 2) {
    std::fputs("usage: bench_gensave [--records N] [--seed S] [--dynamic] TAPE\n", stderr);
    return 2;
  }
  std::string out = "framing plain\ntape " + tape + "\nlabel name=BENCH\naccount BENCH\n";
  std::string key, value;
  uint64_t end = dynamic ? records : records / 2;
  for (uint64_t first = 0; first < end;) {
    int file = bench_file_of(first, records);
    uint64_t last = first;
    while (last + 1 < end && bench_file_of(last + 1, records) == file) ++last;
    out += "file " + bench_file_name(file) + " hashed\n" + records_line(file >= kBenchFiles, last - first + 1);
    for (uint64_t i : tape_order(seed, first, last)) {
      bench_key(seed, i, &key);
      bench_value(seed, i, &value);
      out += "item " + key + " ";
      put_quoted(value, &out);
      out.push_back('\n');
      if (out.size() > (1 << 20)) {
        std::fwrite(out.data(), 1, out.size(), stdout);
        out.clear();
      }
    }
    first = last + 1;
  }
  out += "end\n";
  std::fwrite(out.data(), 1, out.size(), stdout);
  return std::fflush(stdout) == 0 ? 0 : 1;
}
