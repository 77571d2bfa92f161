#include "common/init_logs.h"

#include <unistd.h>

#include <cctype>
#include <cstdarg>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <fstream>
#include <memory>
#include <sstream>

#include "common/readroot.h"

const char* mrv_log_source_file = nullptr;
const char* mrv_log_routine = nullptr;
int32_t mrv_log_line = 0;
FILE* mrv_log_streams[4] = {nullptr, nullptr, nullptr, nullptr};

namespace {

constexpr int32_t kVerbosity = 40;
constexpr size_t kWordLimit = 512;

std::unique_ptr<LogConfig> g_config;
std::string g_process_name = "morvane";
bool g_logs_initialised = false;

// A character stream with one character of push-back, counting lines.
struct RuleStream {
  std::string_view text;
  size_t pos = 0;
  int32_t line = 1;
  int get() {
    if (pos >= text.size()) {
      ++pos;  // so that unget after end of input stays at the end
      return EOF;
    }
    int c = static_cast<unsigned char>(text[pos++]);
    if (c == '\n') ++line;
    return c;
  }
  void unget() {
    if (pos > 0) --pos;
    if (pos < text.size() && text[pos] == '\n') --line;
  }
};

enum class RuleResult { kRule, kEnd, kError };

bool is_blank(int c) { return c == ' ' || c == '\t'; }
bool is_space(int c) { return is_blank(c) || c == '\n' || c == '\r'; }
bool ends_word(int c) {
  return c == EOF || is_space(c) || c == '/' || c == '+' || c == '*' || c == ',';
}

// Skips blank lines, leading blanks and comment lines ("#" first on a line).
void skip_to_rule(RuleStream& in) {
  bool line_start = true;
  for (;;) {
    int c = in.get();
    if (c == '\n' || c == '\r') {
      line_start = true;
    } else if (is_blank(c)) {
    } else if (c == '#' && line_start) {
      while (c != EOF && c != '\n') c = in.get();
      line_start = true;
    } else {
      in.unget();
      return;
    }
    if (c == EOF) return;
  }
}

void skip_blanks(RuleStream& in) {
  int c;
  do c = in.get();
  while (is_blank(c));
  in.unget();
}

void apply_keyword(LogConfig& rule, const std::string& word) {
  static const struct {
    const char* name;
    uint8_t flag;
  } kKeywords[] = {{"CON", LOG_CON}, {"PID", LOG_PID}, {"SI", LOG_SI},
                   {"DT", LOG_DT},   {"CWD", LOG_CWD}, {"EXE", LOG_EXE}};
  for (const auto& k : kKeywords)
    if (word == k.name) rule.flags |= k.flag;
}

RuleResult parse_rule(RuleStream& in, bool with_head, LogConfig& rule) {
  rule = LogConfig{};
  rule.flags = 0;
  skip_to_rule(in);
  if (with_head) {
    std::string head;
    int c = in.get();
    if (c == EOF) return RuleResult::kEnd;
    while (c != EOF && !is_space(c) && c != '=') {
      head += static_cast<char>(c);
      c = in.get();
    }
    in.unget();
    if (head == "0") return RuleResult::kEnd;
    bool digits = !head.empty();
    for (char ch : head) digits = digits && std::isdigit(static_cast<unsigned char>(ch));
    if (digits)
      rule.pid = static_cast<int32_t>(std::strtol(head.c_str(), nullptr, 10));
    else
      rule.process_name = head;
    skip_blanks(in);
    if (in.get() != '=') return RuleResult::kError;
  }
  skip_blanks(in);
  // The level: a first digit of 0..9, then further digits of 0..8 only.
  int c = in.get();
  if (c < '0' || c > '9') return RuleResult::kError;
  int32_t level = c - '0';
  for (c = in.get(); c >= '0' && c <= '8'; c = in.get()) level = level * 10 + (c - '0');
  in.unget();
  rule.level = level;
  for (;;) {
    c = in.get();
    if (is_space(c)) continue;
    if (c == ',' || c == EOF) return RuleResult::kRule;
    if (c != '/' && c != '+' && c != '*') return RuleResult::kError;
    std::string word;
    int w;
    for (w = in.get(); !ends_word(w); w = in.get())
      if (word.size() < kWordLimit) word += static_cast<char>(w);
    in.unget();
    if (word.empty()) continue;
    if (c == '/')
      apply_keyword(rule, word);
    else
      rule.filters.push_back({static_cast<char>(c), word});
  }
}

// The last path part of a name, folded to lower case.
std::string base_name_folded(const char* path) {
  const char* last = path;
  for (const char* p = path; *p != '\0'; ++p)
    if (*p == '/' || *p == '\\') last = p + 1;
  std::string out(last);
  for (char& ch : out) ch = static_cast<char>(std::tolower(static_cast<unsigned char>(ch)));
  return out;
}

std::optional<std::string> read_whole_file(const std::string& path) {
  std::ifstream in(path, std::ios::binary);
  if (!in) return std::nullopt;
  std::ostringstream text;
  text << in.rdbuf();
  return text.str();
}

std::unique_ptr<LogConfig> load_config() {
  if (const char* env = std::getenv("MRMSGCONFIG")) {
    auto rule = log_parse_single_rule(env);
    return std::make_unique<LogConfig>(rule ? *rule : LogConfig{});
  }
  std::string include = get_include_dir_if_known();
  if (!include.empty()) {
    if (auto text = read_whole_file(include + "/msglevelconfig")) {
      if (auto rule = log_select_rule(*text, static_cast<int32_t>(getpid()), g_process_name))
        return std::make_unique<LogConfig>(*rule);
    }
  }
  return std::make_unique<LogConfig>();
}

std::string build_prefix(const LogConfig& config) {
  std::string prefix;
  char part[512];
  if (config.flags & LOG_DT) {
    std::time_t now = std::time(nullptr);
    char stamp[32];
    ctime_r(&now, stamp);
    prefix.append(stamp, 19);
    prefix += ' ';
  }
  if (config.flags & LOG_PID) {
    std::snprintf(part, sizeof part, "pid=%d ", static_cast<int>(getpid()));
    prefix += part;
  }
  if ((config.flags & LOG_SI) && mrv_log_source_file != nullptr) {
    std::snprintf(part, sizeof part, "file=%s line=%d ", mrv_log_source_file, mrv_log_line);
    prefix += part;
  }
  if (config.flags & LOG_CWD) {
    char cwd[400];
    if (getcwd(cwd, sizeof cwd) == nullptr) cwd[0] = '\0';
    std::snprintf(part, sizeof part, "cwd=%s ", cwd);
    prefix += part;
  }
  return prefix;
}

// The platform's event log. This build keeps no event log; the text has
// already gone to the streams that the rule allows.
void report_to_event_log(const char*) {}

}  // namespace

std::optional<LogConfig> log_parse_single_rule(std::string_view text) {
  RuleStream in{text};
  LogConfig rule;
  if (parse_rule(in, false, rule) != RuleResult::kRule) return std::nullopt;
  return rule;
}

std::optional<LogConfig> log_select_rule(std::string_view text, int32_t pid,
                                         std::string_view process_name) {
  RuleStream in{text};
  std::optional<LogConfig> candidate;
  for (;;) {
    LogConfig rule;
    if (parse_rule(in, true, rule) != RuleResult::kRule) break;
    if (rule.pid != -1 && rule.pid == pid) return rule;
    if (!candidate && rule.process_name && *rule.process_name == process_name) candidate = rule;
  }
  return candidate;
}

bool log_source_passes(const LogConfig& config, const char* source_file, const char* routine) {
  if (config.filters.empty() || (source_file == nullptr && routine == nullptr)) return true;
  for (const LogFilter& f : config.filters) {
    const char* subject = f.kind == '+' ? source_file : routine;
    if (subject != nullptr && base_name_folded(subject) == base_name_folded(f.text.c_str()))
      return true;
  }
  return false;
}

const LogConfig& log_current_config() {
  if (!g_config) g_config = load_config();
  return *g_config;
}

void log_reset_config() { g_config.reset(); }

void init_logs(const char* name) {
  if (g_logs_initialised) return;
  g_logs_initialised = true;
  g_process_name = name;
  if (g_process_name == "morvane") {
    std::string bin = mrv_bin_dir();
    if (!bin.empty()) {
      if (FILE* f = std::fopen((bin + "mrv.errlog").c_str(), "a")) {
        setvbuf(f, nullptr, _IONBF, 0);
        mrv_log_streams[0] = f;
      }
    }
    if (mrv_log_streams[1] != nullptr) std::fclose(mrv_log_streams[1]);
    mrv_log_streams[1] = nullptr;
  } else if (g_process_name == "rfs") {
    mrv_log_streams[0] = stderr;
  }
}

const char* log_process_name() { return g_process_name.c_str(); }

int mrv_log(int32_t level_word, const char* format, ...) {
  const LogConfig& config = log_current_config();
  int32_t level = level_word & 0xFF;
  bool force = (level_word & MRV_LOG_FORCE) != 0;
  bool unconditional = level == 1 || level == 3;

  va_list args;
  va_start(args, format);
  char text[16000];
  int n = std::vsnprintf(text, sizeof text, format, args);
  va_end(args);
  if (n < 0) n = 0;

  bool dropped = !unconditional &&
                 (level > config.level ||
                  !log_source_passes(config, mrv_log_source_file, mrv_log_routine));
  if (!dropped) {
    std::string prefix = unconditional ? std::string() : build_prefix(config);
    FILE* primary = mrv_log_streams[0] != nullptr ? mrv_log_streams[0] : stdout;
    if ((level == 2 || level == 3) &&
        (mrv_log_streams[0] == nullptr || mrv_log_streams[1] != nullptr)) {
      FILE* secondary = mrv_log_streams[1] != nullptr ? mrv_log_streams[1] : stderr;
      std::fputs(text, secondary);
      std::fflush(secondary);
    }
    std::fprintf(primary, "%s%s", prefix.c_str(), text);
    std::fflush(primary);
    bool to_more = force || (config.flags & LOG_CON);
    if (mrv_log_streams[2] != nullptr && (kVerbosity >= 51 || to_more))
      std::fprintf(mrv_log_streams[2], "%s%s", prefix.c_str(), text);
    if (mrv_log_streams[3] != nullptr && mrv_log_streams[0] != nullptr &&
        (kVerbosity >= 76 || to_more))
      std::fprintf(mrv_log_streams[3], "%s%s", prefix.c_str(), text);
  }
  report_to_event_log(text);
  return n;
}
