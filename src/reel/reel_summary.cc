#include "reel/reel_summary.h"

#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <ctime>
#include <filesystem>
#include <string_view>

#include "reel/reel_current.h"
#include "reel/reel_init.h"

RunSummary reel_summary;

namespace {

constexpr char kDictPrefix[] = "D_";

// The absolute path of MRV_SUMMARY, empty when no summary is asked for.
std::string summary_path;

SummaryAccount& account() {
  if (reel_summary.accounts.empty()) reel_summary.accounts.emplace_back();
  return reel_summary.accounts.back();
}

std::string trimmed_kind(int32_t kind) {
  std::string text = reel_file_kind_text(kind);
  while (!text.empty() && text.back() == ' ') text.pop_back();
  return text;
}

// The name on disk as the account shows it: a dictionary under "D_", a
// member of the account's top under the directory that holds it.
std::string target_of(const CurrentFile& f) {
  switch (f.file_kind) {
    case FILE_KIND_DICT:
      return kDictPrefix + f.short_name;
    case FILE_KIND_SAM:
      return "SAM/" + f.short_name;
    case FILE_KIND_DAM:
      return "DAM/" + f.short_name;
    default:
      return f.short_name;
  }
}

void json_string(std::string& out, std::string_view text) {
  out += '"';
  for (unsigned char c : text) {
    if (c == '"' || c == '\\') {
      out += '\\';
      out += static_cast<char>(c);
    } else if (c < 0x20 || c >= 0x7F) {
      // Tape names may hold any byte; \u00XX keeps the document valid
      // whatever their encoding.
      char escape[8];
      std::snprintf(escape, sizeof escape, "\\u%04x", c);
      out += escape;
    } else {
      out += static_cast<char>(c);
    }
  }
  out += '"';
}

void json_field(std::string& out, const char* name) {
  if (out.back() != '{') out += ", ";
  json_string(out, name);
  out += ": ";
}

void field(std::string& out, const char* name, std::string_view text) {
  json_field(out, name);
  json_string(out, text);
}

void field(std::string& out, const char* name, int64_t value) {
  json_field(out, name);
  out += std::to_string(value);
}

void field(std::string& out, const char* name, bool value) {
  json_field(out, name);
  out += value ? "true" : "false";
}

// A modulo that was not set stands as null.
void modulo_field(std::string& out, const char* name, int32_t value) {
  json_field(out, name);
  out += value != 0 ? std::to_string(value) : "null";
}

void file_object(std::string& out, const SummaryFile& f) {
  field(out, "kind", f.kind);
  field(out, "tape_name", f.tape_name);
  field(out, "target", f.target);
  field(out, "records_restored", f.records_restored);
  field(out, "records_dropped", f.records_dropped);
  field(out, "key_bytes", f.key_bytes);
  field(out, "data_bytes", f.data_bytes);
  field(out, "modulo", int64_t{f.modulo});
  modulo_field(out, "resized_to", f.resized_to);
  modulo_field(out, "suggested_modulo", f.suggested_modulo);
  field(out, "complete", f.complete);
}

void write_at_exit() {
  if (!summary_path.empty()) reel_summary_write(summary_path);
}

}  // namespace

const char* reel_run_end_text(RunEnd end) {
  switch (end) {
    case RunEnd::EndOfSave:
      return "end of save";
    case RunEnd::Operator:
      return "operator";
    case RunEnd::EndOfInput:
      return "end of input";
    case RunEnd::Break:
      return "break";
    case RunEnd::EndOfPlan:
      return "end of plan";
    case RunEnd::Fatal:
      break;
  }
  return "fatal";
}

double reel_clock() {
  timespec ts{};
  clock_gettime(CLOCK_MONOTONIC, &ts);
  return static_cast<double>(ts.tv_sec) + static_cast<double>(ts.tv_nsec) / 1e9;
}

void reel_summary_end(RunEnd end) {
  if (reel_summary.ended) return;
  reel_summary.ended = true;
  reel_summary.ended_by = end;
  reel_summary.completed = end == RunEnd::EndOfSave;
}

void reel_summary_account(const std::string& name, const std::string& directory) {
  reel_summary.accounts.push_back(SummaryAccount{.name = name, .directory = directory});
  reel_summary.open_file = -1;
}

void reel_summary_rename_account(const std::string& name) { account().name = name; }

void reel_summary_account_at(const std::string& directory) { account().directory = directory; }

void reel_summary_file_begin() {
  const CurrentFile& f = reel_current;
  SummaryAccount& a = account();
  // A second announcement of the same file (made, then opened) keeps its entry.
  if (SummaryFile* open = reel_summary_current_file();
      open != nullptr && open->tape_name == f.name && open->kind == trimmed_kind(f.file_kind))
    return;
  a.files.push_back(SummaryFile{.kind = trimmed_kind(f.file_kind),
                                .tape_name = f.name,
                                .target = target_of(f),
                                .modulo = f.modulo});
  reel_summary.open_file = static_cast<int32_t>(a.files.size()) - 1;
}

SummaryFile* reel_summary_current_file() {
  if (reel_summary.open_file < 0 || reel_summary.accounts.empty()) return nullptr;
  auto& files = reel_summary.accounts.back().files;
  if (static_cast<size_t>(reel_summary.open_file) >= files.size()) return nullptr;
  return &files[static_cast<size_t>(reel_summary.open_file)];
}

void reel_summary_file_end(int64_t records, bool complete) {
  SummaryFile* file = reel_summary_current_file();
  if (file == nullptr) return;
  const CurrentFile& f = reel_current;
  if (records >= 0) file->records_restored = records;
  file->key_bytes = f.key_bytes;
  file->data_bytes = f.data_bytes;
  file->complete = complete && file->records_dropped == 0;
  reel_summary.open_file = -1;
}

void reel_summary_member() {
  ++account().members;
  if (SummaryFile* file = reel_summary_current_file()) ++file->records_restored;
}

void reel_summary_dispmsg_error(bool record_dropped) {
  ++account().dispmsg_errors;
  if (SummaryFile* file = reel_summary_current_file(); file != nullptr && record_dropped)
    ++file->records_dropped;
}

void reel_summary_bad_block() { ++account().bad_blocks; }

std::string reel_summary_json(const RunSummary& summary, double now) {
  int64_t total = 0;
  for (const SummaryAccount& a : summary.accounts)
    for (const SummaryFile& f : a.files)
      if (f.kind == "DATA" || f.kind == "DICT") total += f.records_restored;

  std::string out = "{";
  field(out, "program", std::string_view(REEL_PROGRAM));
  field(out, "version", std::string_view(REEL_VERSION));
  field(out, "completed", summary.completed);
  field(out, "ended_by", std::string_view(reel_run_end_text(summary.ended_by)));
  json_field(out, "seconds");
  char seconds[32];
  std::snprintf(seconds, sizeof seconds, "%.3f", now - summary.started);
  out += seconds;
  field(out, "records_restored", total);
  json_field(out, "accounts");
  out += "[";
  for (size_t i = 0; i < summary.accounts.size(); ++i) {
    const SummaryAccount& a = summary.accounts[i];
    out += i == 0 ? "\n  {" : ",\n  {";
    field(out, "name", a.name);
    field(out, "directory", a.directory);
    json_field(out, "files");
    out += "[";
    for (size_t j = 0; j < a.files.size(); ++j) {
      out += j == 0 ? "\n    {" : ",\n    {";
      file_object(out, a.files[j]);
      out += "}";
    }
    out += a.files.empty() ? "]" : "\n  ]";
    field(out, "members", int64_t{a.members});
    field(out, "bad_blocks", int64_t{a.bad_blocks});
    field(out, "dispmsg_errors", int64_t{a.dispmsg_errors});
    out += "}";
  }
  out += summary.accounts.empty() ? "]}\n" : "\n]}\n";
  return out;
}

int reel_summary_write(const std::string& path) {
  // The file still open is written with what it holds so far.
  if (SummaryFile* file = reel_summary_current_file()) {
    file->key_bytes = reel_current.key_bytes;
    file->data_bytes = reel_current.data_bytes;
  }
  const std::string text = reel_summary_json(reel_summary, reel_clock());
  const std::string temporary = path + ".tmp" + std::to_string(getpid());
  FILE* out = std::fopen(temporary.c_str(), "w");
  if (out == nullptr) return 0;
  const bool written = std::fwrite(text.data(), 1, text.size(), out) == text.size();
  const bool closed = std::fclose(out) == 0;
  if (!written || !closed || std::rename(temporary.c_str(), path.c_str()) != 0) {
    std::remove(temporary.c_str());
    return 0;
  }
  return 1;
}

void reel_summary_arm() {
  reel_summary.started = reel_clock();
  const char* path = std::getenv("MRV_SUMMARY");
  if (path == nullptr || *path == '\0') return;
  std::error_code ec;
  std::filesystem::path absolute = std::filesystem::absolute(path, ec);
  summary_path = ec ? std::string(path) : absolute.string();
  // A summary left by an earlier run must not pass for this one's if this
  // one is killed before it can write its own.
  std::remove(summary_path.c_str());
  std::atexit(write_at_exit);
}
