#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <fstream>
#include <iostream>
#include <iterator>
#include <string>
#include <utility>
#include <vector>

#include "flib/fl_delete.h"
#include "flib/fl_hash.h"
#include "flib/fl_mem.h"
#include "flib/fl_open.h"
#include "flib/fl_read.h"
#include "flib/fl_rel.h"
#include "flib/fl_write.h"
#include "mrvfile.h"

namespace {

const uint8_t* bytes(const std::string& s) { return reinterpret_cast<const uint8_t*>(s.data()); }
int32_t length(const std::string& s) { return static_cast<int32_t>(s.size()); }

std::string read_all(std::istream& in) {
  return std::string(std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>());
}

}  // namespace

int mrvfile_put(const Args& args) {
  if (args.size() != 2) return mrvfile_usage();
  std::string record = read_all(std::cin);
  REL_TYPE rel;
  if (!mrvfile_open(&rel, args[0], OpenMode::ReadWrite)) return 1;
  int r = M_append_strtuple(&rel, bytes(args[1]), length(args[1]), bytes(record), length(record), 0, nullptr);
  M_closefile(&rel);
  return r == 1 ? 0 : 1;
}

int mrvfile_get(const Args& args) {
  if (args.size() != 2) return mrvfile_usage();
  REL_TYPE rel;
  if (!mrvfile_open(&rel, args[0], OpenMode::Read)) return 1;
  std::string record;
  int r = M_read_tuple(&rel, bytes(args[1]), length(args[1]), &record);
  M_closefile(&rel);
  if (r == 0) std::fprintf(stderr, "mrvfile: %s: no record %s\n", args[0].c_str(), args[1].c_str());
  if (r != 1) return 1;
  std::fwrite(record.data(), 1, record.size(), stdout);
  return 0;
}

int mrvfile_delete(const Args& args) {
  if (args.size() != 2) return mrvfile_usage();
  REL_TYPE rel;
  if (!mrvfile_open(&rel, args[0], OpenMode::ReadWrite)) return 1;
  int r = M_delete_tuple(&rel, bytes(args[1]), length(args[1]), nullptr);
  M_closefile(&rel);
  if (r == 0) std::fprintf(stderr, "mrvfile: %s: no record %s\n", args[0].c_str(), args[1].c_str());
  return r == 1 ? 0 : 1;
}

int mrvfile_list(const Args& args) {
  bool records = !args.empty() && args[0] == "--records";
  if (args.size() != (records ? 2u : 1u)) return mrvfile_usage();
  REL_TYPE rel;
  if (!mrvfile_open(&rel, args.back(), OpenMode::Read)) return 1;
  std::string record;
  int r = M_for_each_key(&rel, [&](const uint8_t* key, int32_t key_length, const uint8_t* block, int32_t row,
                                   uint32_t address) {
    std::string k(reinterpret_cast<const char*>(key), static_cast<size_t>(key_length));
    std::string line = mrvfile_escape(k);
    if (records) {
      if (M_catch_tuple(&rel, key, key_length, block, row, address, &record, 0) != 1) return -1;
      line += '\t';
      line += mrvfile_escape(record);
    }
    line += '\n';
    std::fwrite(line.data(), 1, line.size(), stdout);
    return 0;
  });
  M_closefile(&rel);
  return r == 0 ? 0 : 1;
}

int mrvfile_load(const Args& args) {
  if (args.empty() || args.size() > 2) return mrvfile_usage();
  std::string text;
  if (args.size() == 2) {
    std::ifstream in(args[1], std::ios::binary);
    if (!in) {
      std::fprintf(stderr, "mrvfile: %s: %s\n", args[1].c_str(), mrvfile_path_problem(args[1], false).c_str());
      return 1;
    }
    text = read_all(in);
  } else {
    text = read_all(std::cin);
  }
  std::vector<std::pair<std::string, std::string>> records;
  size_t start = 0;
  for (int line = 1; start < text.size(); ++line) {
    size_t end = text.find('\n', start);
    if (end == std::string::npos) end = text.size();
    std::string row = text.substr(start, end - start);
    start = end + 1;
    size_t tab = row.find('\t');
    std::pair<std::string, std::string> entry;
    if (tab == std::string::npos || !mrvfile_unescape(row.substr(0, tab), &entry.first) ||
        !mrvfile_unescape(row.substr(tab + 1), &entry.second)) {
      std::fprintf(stderr, "mrvfile: %s: line %d: not KEY<TAB>RECORD\n", args.size() == 2 ? args[1].c_str() : "standard input", line);
      return 1;
    }
    records.push_back(std::move(entry));
  }
  REL_TYPE rel;
  if (!mrvfile_open(&rel, args[0], OpenMode::ReadWrite)) return 1;
  // In group order, as a restore hands them over: the head blocks are then
  // written in long runs.
  std::vector<std::pair<uint32_t, size_t>> order;
  for (size_t i = 0; i < records.size(); ++i)
    order.push_back({M_hash(bytes(records[i].first), length(records[i].first), &rel), i});
  std::stable_sort(order.begin(), order.end(), [](const auto& x, const auto& y) { return x.first < y.first; });
  int result = 0;
  if (M_init_mem_buffers(&rel) != 1) {
    M_closefile(&rel);
    return 1;
  }
  for (const auto& [group, i] : order) {
    const auto& [key, record] = records[i];
    if (M_mem_add_tuple(&rel, bytes(key), length(key), bytes(record), length(record)) != 1) {
      std::fprintf(stderr, "mrvfile: %s: record %s not loaded\n", args[0].c_str(), mrvfile_escape(key).c_str());
      result = 1;
    }
  }
  if (M_mem_force_flush(&rel, 1) != 1) result = 1;
  M_closefile(&rel);
  return result;
}
