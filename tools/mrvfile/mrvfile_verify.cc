// mrvfile verify ACCOUNT [--summary PATH]: checks a restored account.
//
// Every hashed file that the account's VOC names (the data and dictionary
// paths of its "F" entries, the dictionaries of "DIR" entries) goes through
// the structural check, and a path that the VOC names but that is missing is
// a finding. With a run summary, each DATA and DICT file the run restored
// into this account must hold at least the records the run reported, and
// files the run left incomplete are named.
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <map>
#include <string>
#include <vector>

#include "common/mrv_json.h"
#include "flib/fl_check.h"
#include "flib/fl_open.h"
#include "flib/fl_read.h"
#include "flib/fl_rel.h"
#include "flib/fl_voc.h"
#include "mrvfile.h"

namespace {

namespace fs = std::filesystem;

struct Verify {
  std::string account;
  int findings = 0;
  int files = 0;
  // Records counted per path relative to the account.
  std::map<std::string, int64_t> counts;

  void finding(const std::string& name, const std::string& what) {
    std::printf("%s: %s\n", name.c_str(), what.c_str());
    ++findings;
  }
  std::string full(const std::string& relative) const {
    return relative.starts_with("/") ? relative : account + "/" + relative;
  }
};

// One path of a VOC entry: checked when it is a hashed file.
void check_path(Verify& v, const std::string& entry, const std::string& relative, bool must_be_hashed) {
  if (relative.empty() || v.counts.contains(relative)) return;
  const std::string path = v.full(relative);
  if (!mrvfile_is_hashed(path)) {
    std::string problem = mrvfile_path_problem(path, false);
    if (problem == "no such file")
      v.finding(relative, "no such file (named by the VOC entry " + entry + ")");
    else if (must_be_hashed)
      v.finding(relative, problem.empty() ? "not a hashed file" : problem);
    v.counts[relative] = -1;  // named once; the summary's count adds nothing
    return;
  }
  ++v.files;
  std::vector<std::string> findings;
  if (M_check_file(path.c_str(), &findings) > 0) {
    for (const std::string& f : findings) v.finding(relative, f);
    v.counts[relative] = -1;
    return;
  }
  v.counts[relative] = mrvfile_count_records(path);
}

bool check_voc(Verify& v) {
  REL_TYPE voc;
  if (!mrvfile_open(&voc, v.full("VOC"), OpenMode::Read)) return false;
  std::vector<std::pair<std::string, VocEntry>> entries;
  std::string record;
  int r = M_for_each_key(&voc, [&](const uint8_t* key, int32_t key_length, const uint8_t* block, int32_t row,
                                   uint32_t address) {
    if (M_catch_tuple(&voc, key, key_length, block, row, address, &record, 0) != 1) return -1;
    entries.emplace_back(std::string(reinterpret_cast<const char*>(key), static_cast<size_t>(key_length)),
                         M_voc_fields(record));
    return 0;
  });
  M_closefile(&voc);
  if (r != 0) {
    v.finding("VOC", "cannot be read through");
    return false;
  }
  for (const auto& [name, entry] : entries) {
    if (entry.type == "F") {
      check_path(v, name, entry.data_path, true);
      check_path(v, name, entry.dict_path, true);
    } else if (entry.type == "DIR") {
      check_path(v, name, entry.dict_path, true);
    }
  }
  return true;
}

// The summary's account for this one: the same directory, else the same name.
const JsonValue* summary_account(const JsonValue& summary, const std::string& account) {
  const JsonValue* accounts = summary.get("accounts");
  if (accounts == nullptr) return nullptr;
  std::error_code ec;
  const fs::path here = fs::weakly_canonical(account, ec);
  for (const JsonValue& a : accounts->items)
    if (fs::weakly_canonical(a.text_of("directory"), ec) == here) return &a;
  const std::string name = here.filename().string();
  for (const JsonValue& a : accounts->items)
    if (a.text_of("name") == name) return &a;
  return nullptr;
}

void reconcile(Verify& v, const std::string& summary_path) {
  std::ifstream in(summary_path, std::ios::binary);
  if (!in) {
    v.finding(summary_path, mrvfile_path_problem(summary_path, false));
    return;
  }
  std::string text((std::istreambuf_iterator<char>(in)), std::istreambuf_iterator<char>());
  JsonValue summary;
  std::string error;
  if (!M_json_parse(text, &summary, &error)) {
    v.finding(summary_path, "not a run summary: " + error);
    return;
  }
  if (!summary.bool_of("completed"))
    v.finding(summary_path, "the run did not reach the end of the save (ended by " +
                                summary.text_of("ended_by", "?") + ")");
  const JsonValue* account = summary_account(summary, v.account);
  if (account == nullptr) {
    v.finding(summary_path, "names no account at " + v.account);
    return;
  }
  const JsonValue* files = account->get("files");
  for (const JsonValue& f : files != nullptr ? files->items : std::vector<JsonValue>{}) {
    const std::string kind = f.text_of("kind");
    const std::string target = f.text_of("target");
    if (!f.bool_of("complete")) v.finding(target, "the run left this file incomplete");
    if (kind != "DATA" && kind != "DICT") continue;
    const auto expected = static_cast<int64_t>(f.number_of("records_restored"));
    auto it = v.counts.find(target);
    int64_t have = it != v.counts.end() ? it->second : -1;
    if (it == v.counts.end() && mrvfile_is_hashed(v.full(target))) have = mrvfile_count_records(v.full(target));
    if (have < 0) {
      if (it == v.counts.end()) v.finding(target, "restored by the run but not found through the VOC");
      continue;
    }
    // More is no fault: a new dictionary holds its own @ID, and -O and -D
    // load into files that had records before.
    if (have < expected)
      v.finding(target, std::to_string(have) + " records, the run restored " + std::to_string(expected));
  }
}

}  // namespace

int mrvfile_verify(const Args& args) {
  Verify v;
  std::string summary;
  for (size_t i = 0; i < args.size(); ++i) {
    if (args[i] == "--summary" && i + 1 < args.size())
      summary = args[++i];
    else if (v.account.empty() && !args[i].empty() && args[i][0] != '-')
      v.account = args[i];
    else
      return mrvfile_usage();
  }
  if (v.account.empty()) return mrvfile_usage();
  while (v.account.size() > 1 && v.account.back() == '/') v.account.pop_back();
  if (!check_voc(v)) {
    // The VOC's own fault has been named; without it nothing is checked.
    std::printf("%s: not an account that can be verified\n", v.account.c_str());
    return 1;
  }
  if (!summary.empty()) reconcile(v, summary);
  if (v.findings == 0) {
    std::printf("%s: sound, %d hashed file%s checked\n", v.account.c_str(), v.files, v.files == 1 ? "" : "s");
    return 0;
  }
  std::printf("%s: %d finding%s\n", v.account.c_str(), v.findings, v.findings == 1 ? "" : "s");
  return 1;
}
