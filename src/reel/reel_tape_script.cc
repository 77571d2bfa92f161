#include "reel/reel_tape_script.h"

#include <cstdlib>
#include <cstring>
#include <functional>
#include <map>
#include <optional>
#include <sstream>
#include <vector>

#include "reel/reel_tape_writer.h"

namespace {

struct Token {
  std::string text;
  char quote = 0;  // '"', '\'' or 0
};

struct ScriptError {
  std::string what;
};

// A static sub-file whose items (records) are being listed.
struct PendingSubfile {
  uint16_t modulo = 0;
  size_t room = 1024;
  int32_t chunk = CHUNK_MAX;
  std::vector<TapeRecord> records;
};

struct Script {
  TapeWriterOptions options;
  TapeWriter writer;
  bool open = false;
  std::optional<PendingSubfile> subfile;
  std::optional<TapeDynFile> dynfile;  // a dynamic file whose items are being listed
};

int hex_digit(char c) {
  if (c >= '0' && c <= '9') return c - '0';
  if (c >= 'a' && c <= 'f') return c - 'a' + 10;
  if (c >= 'A' && c <= 'F') return c - 'A' + 10;
  return -1;
}

std::vector<Token> split(const std::string& line) {
  std::vector<Token> tokens;
  size_t i = 0;
  while (i < line.size()) {
    char c = line[i];
    if (c == ' ' || c == '\t' || c == '\r') {
      ++i;
      continue;
    }
    if (c == '#') break;
    Token t;
    if (c == '"' || c == '\'') {
      t.quote = c;
      for (++i;; ++i) {
        if (i >= line.size()) throw ScriptError{"unclosed quote"};
        char q = line[i];
        if (q == c) break;
        if (q != '\\') {
          t.text += q;
          continue;
        }
        if (++i >= line.size()) throw ScriptError{"unclosed quote"};
        switch (line[i]) {
          case 'n': t.text += '\n'; break;
          case 't': t.text += '\t'; break;
          case 'x': {
            int hi = i + 1 < line.size() ? hex_digit(line[i + 1]) : -1;
            int lo = i + 2 < line.size() ? hex_digit(line[i + 2]) : -1;
            if (hi < 0 || lo < 0) throw ScriptError{"bad \\x escape"};
            t.text += static_cast<char>(hi * 16 + lo);
            i += 2;
            break;
          }
          default: t.text += line[i]; break;
        }
      }
      ++i;
    } else {
      while (i < line.size() && line[i] != ' ' && line[i] != '\t' && line[i] != '\r')
        t.text += line[i++];
    }
    tokens.push_back(t);
  }
  return tokens;
}

long number(const std::string& text, long low, long high) {
  char* end = nullptr;
  long v = std::strtol(text.c_str(), &end, 0);
  if (text.empty() || *end != '\0' || v < low || v > high)
    throw ScriptError{"bad number '" + text + "'"};
  return v;
}

// "key=value" when the token has that key.
bool option(const Token& t, const char* key, std::string* value) {
  size_t n = std::strlen(key);
  if (t.quote != 0 || t.text.compare(0, n, key) != 0 || t.text.size() <= n || t.text[n] != '=')
    return false;
  *value = t.text.substr(n + 1);
  return true;
}

void append_item(std::vector<unsigned char>& out, const Token& t) {
  if (t.quote == '"') {
    auto text = reel_tape_text(t.text);
    out.insert(out.end(), text.begin(), text.end());
  } else if (t.quote == '\'') {
    out.insert(out.end(), t.text.begin(), t.text.end());
  } else if (t.text.rfind("hex:", 0) == 0) {
    std::string h = t.text.substr(4);
    if (h.size() % 2 != 0) throw ScriptError{"odd count of hex digits"};
    for (size_t i = 0; i < h.size(); i += 2) {
      int hi = hex_digit(h[i]);
      int lo = hex_digit(h[i + 1]);
      if (hi < 0 || lo < 0) throw ScriptError{"bad hex digit in '" + t.text + "'"};
      out.push_back(static_cast<unsigned char>(hi * 16 + lo));
    }
  } else if (t.text.rfind("zeros:", 0) == 0) {
    out.resize(out.size() + static_cast<size_t>(number(t.text.substr(6), 0, TAPE_MAX_BLOCK)), 0);
  } else if (t.text.rfind("u16:", 0) == 0) {
    unsigned char b[2];
    tape_put_u16(b, static_cast<uint16_t>(number(t.text.substr(4), 0, 0xFFFF)));
    out.insert(out.end(), b, b + 2);
  } else {
    throw ScriptError{"unknown item '" + t.text + "'"};
  }
}

uint8_t block_type(const std::string& name) {
  if (name == "data") return TAPE_BLOCK_DATA;
  if (name == "description") return TAPE_BLOCK_DESCRIPTION;
  if (name == "end") return TAPE_BLOCK_END;
  return static_cast<uint8_t>(number(name, 0, 255));
}

// An object type: sam (0), dam (1), hashed (2), dir (4) or a number.
uint8_t object_type(const std::string& name) {
  static const std::map<std::string, uint8_t> kinds = {{"sam", TAPE_OBJECT_SAM},
                                                       {"dam", TAPE_OBJECT_DAM},
                                                       {"hashed", TAPE_OBJECT_HASHED},
                                                       {"dir", TAPE_OBJECT_DIR}};
  auto it = kinds.find(name);
  return it != kinds.end() ? it->second : static_cast<uint8_t>(number(name, 0, 255));
}

// Pairs of name and object type, from token `first` on.
std::vector<TapePathEntry> entry_pairs(const std::vector<Token>& t, size_t first) {
  if (t.size() <= first || (t.size() - first) % 2 != 0)
    throw ScriptError{"'" + t[0].text + "' takes pairs of name and type"};
  std::vector<TapePathEntry> path;
  for (size_t i = first; i < t.size(); i += 2)
    path.push_back({t[i].text, object_type(t[i + 1].text)});
  return path;
}

void check(Script& s, int result) {
  if (result != 0) throw ScriptError{s.writer.error};
}

// Words and quoted texts of an item or a member, joined, as they are.
std::string plain_text(const std::vector<Token>& t, size_t first) {
  std::string text;
  for (size_t i = first; i < t.size(); ++i) text += t[i].text;
  return text;
}

// Writes the sub-file or dynamic file whose records have been listed.
void flush_subfile(Script& s) {
  if (s.dynfile) {
    TapeDynFile file = std::move(*s.dynfile);
    s.dynfile.reset();
    check(s, reel_writer_dyn_file(s.writer, file));
  }
  if (!s.subfile) return;
  PendingSubfile sub = std::move(*s.subfile);
  s.subfile.reset();
  check(s, reel_writer_static_subfile(s.writer, sub.modulo, sub.records, sub.room, sub.chunk));
}

void need_tape(const Script& s) {
  if (!s.open) throw ScriptError{"no tape line before this"};
}

void need_args(const std::vector<Token>& t, size_t n) {
  if (t.size() != n) throw ScriptError{"'" + t[0].text + "' takes " + std::to_string(n - 1) + " argument(s)"};
}

using Directive = std::function<void(Script&, const std::vector<Token>&)>;

const std::map<std::string, Directive>& directives() {
  static const std::map<std::string, Directive> table = {
      {"framing",
       [](Script& s, const std::vector<Token>& t) {
         need_args(t, 2);
         static const std::map<std::string, TapeFraming> kinds = {
             {"plain", TapeFraming::kPlain},
             {"buffered", TapeFraming::kBuffered},
             {"cartridge", TapeFraming::kCartridge},
             {"stream", TapeFraming::kStream}};
         auto it = kinds.find(t[1].text);
         if (it == kinds.end()) throw ScriptError{"unknown framing '" + t[1].text + "'"};
         s.options.framing = it->second;
       }},
      {"record",
       [](Script& s, const std::vector<Token>& t) {
         need_args(t, 2);
         s.options.record_size = static_cast<int32_t>(number(t[1].text, 0, TAPE_MAX_BLOCK));
       }},
      {"convert",
       [](Script& s, const std::vector<Token>& t) {
         need_args(t, 2);
         s.options.convert_mode = static_cast<char>('0' + number(t[1].text, 0, 3));
       }},
      {"tape",
       [](Script& s, const std::vector<Token>& t) {
         need_args(t, 2);
         if (s.open) check(s, reel_writer_close(s.writer));
         s.open = false;
         check(s, reel_writer_open(s.writer, t[1].text, s.options));
         s.open = true;
       }},
      {"label",
       [](Script& s, const std::vector<Token>& t) {
         need_tape(s);
         TapeLabel label;
         std::string v;
         for (size_t i = 1; i < t.size(); ++i) {
           if (option(t[i], "no", &v)) {
             label.tape_no = static_cast<int32_t>(number(v, 1, 255));
           } else if (option(t[i], "name", &v)) {
             if (v.size() > LABEL_NAME_SIZE) throw ScriptError{"a tape name has at most 6 characters"};
             std::snprintf(label.name, sizeof label.name, "%s", v.c_str());
           } else if (option(t[i], "date", &v)) {
             if (v.size() != 8) throw ScriptError{"a date is MM-DD-YY"};
             std::snprintf(label.date, sizeof label.date, "%s", v.c_str());
           } else if (option(t[i], "rev", &v)) {
             label.revision = static_cast<int32_t>(number(v, 0, 7));
           } else {
             throw ScriptError{"unknown label field '" + t[i].text + "'"};
           }
         }
         check(s, reel_writer_label(s.writer, label));
       }},
      {"number",
       [](Script& s, const std::vector<Token>& t) {
         need_tape(s);
         need_args(t, 2);
         s.writer.next_block_no = static_cast<uint16_t>(number(t[1].text, 0, 0xFFFF));
       }},
      {"block",
       [](Script& s, const std::vector<Token>& t) {
         need_tape(s);
         if (t.size() < 2) throw ScriptError{"'block' needs a type"};
         TapeBlockOverrides overrides;
         std::vector<unsigned char> payload;
         std::string v;
         for (size_t i = 2; i < t.size(); ++i) {
           if (option(t[i], "no", &v))
             overrides.number = static_cast<uint16_t>(number(v, 0, 0xFFFF));
           else if (option(t[i], "words", &v))
             overrides.words = static_cast<uint16_t>(number(v, 0, 0xFFFF));
           else
             append_item(payload, t[i]);
         }
         check(s, reel_writer_block(s.writer, block_type(t[1].text), payload.data(),
                                    payload.size(), overrides));
       }},
      {"account",
       [](Script& s, const std::vector<Token>& t) {
         need_tape(s);
         std::vector<TapePathEntry> path;
         uint8_t type = TAPE_OBJECT_DIR;
         std::string v;
         for (size_t i = 1; i < t.size(); ++i) {
           if (option(t[i], "type", &v))
             type = object_type(v);
           else
             path.push_back({t[i].text, TAPE_OBJECT_DIR});
         }
         if (!path.empty()) path.back().type = type;
         check(s, reel_writer_account(s.writer, path));
       }},
      {"file",
       [](Script& s, const std::vector<Token>& t) {
         need_tape(s);
         need_args(t, 3);
         check(s, reel_writer_file(s.writer, entry_pairs(t, 1).front()));
       }},
      {"sub",
       [](Script& s, const std::vector<Token>& t) {
         need_tape(s);
         check(s, reel_writer_sub(s.writer, entry_pairs(t, 1)));
       }},
      {"end",
       [](Script& s, const std::vector<Token>& t) {
         need_tape(s);
         need_args(t, 1);
         check(s, reel_writer_end_save(s.writer));
       }},
      {"mark",
       [](Script& s, const std::vector<Token>& t) {
         need_tape(s);
         need_args(t, 1);
         check(s, reel_writer_mark(s.writer));
       }},
      {"subfile",
       [](Script& s, const std::vector<Token>& t) {
         need_tape(s);
         PendingSubfile sub;
         std::string v;
         for (size_t i = 1; i < t.size(); ++i) {
           if (option(t[i], "modulo", &v))
             sub.modulo = static_cast<uint16_t>(number(v, 0, 0xFFFF));
           else if (option(t[i], "room", &v))
             sub.room = static_cast<size_t>(number(v, 2, TAPE_MAX_BLOCK - TAPE_HEADER_SIZE));
           else if (option(t[i], "chunk", &v))
             sub.chunk = static_cast<int32_t>(number(v, 1, CHUNK_MAX));
           else
             throw ScriptError{"unknown subfile field '" + t[i].text + "'"};
         }
         s.subfile = std::move(sub);
       }},
      {"item",
       [](Script& s, const std::vector<Token>& t) {
         if (!s.subfile && !s.dynfile) throw ScriptError{"'item' stands below a 'subfile' or 'dynfile' line"};
         if (t.size() < 2) throw ScriptError{"'item' needs a key"};
         if (t[1].text.size() > 255) throw ScriptError{"a key has at most 255 bytes"};
         if (s.dynfile)
           s.dynfile->records.push_back({t[1].text, plain_text(t, 2)});
         else
           s.subfile->records.push_back({t[1].text, plain_text(t, 2)});
       }},
      {"dynfile",
       [](Script& s, const std::vector<Token>& t) {
         need_tape(s);
         TapeDynFile file;
         std::string v;
         for (size_t i = 1; i < t.size(); ++i) {
           if (option(t[i], "modulo", &v)) {
             file.modulo = static_cast<int32_t>(number(v, 1, 0xFFFFFF));
           } else if (option(t[i], "units", &v)) {
             file.units = static_cast<int32_t>(number(v, 1, DYN_PAGE_MAX_UNITS));
           } else if (option(t[i], "room", &v)) {
             file.room = static_cast<size_t>(number(v, 2, TAPE_MAX_BLOCK - TAPE_HEADER_SIZE));
           } else if (option(t[i], "first", &v)) {
             file.cuts = {static_cast<size_t>(number(v, 2, TAPE_MAX_BLOCK - TAPE_HEADER_SIZE))};
           } else if (option(t[i], "order", &v)) {
             if (v != "chain" && v != "reversed") throw ScriptError{"order is chain or reversed"};
             file.order = v == "chain" ? TapeDynOrder::kChain : TapeDynOrder::kReversed;
           } else if (option(t[i], "free", &v)) {
             file.free_pages = static_cast<int32_t>(number(v, 0, 1000));
           } else if (option(t[i], "slip", &v)) {
             const size_t colon = v.find(':');
             if (colon == std::string::npos) throw ScriptError{"slip is PAGE:BYTES"};
             file.slip_page = static_cast<int32_t>(number(v.substr(0, colon), 1, 0xFFFFFF));
             file.slip_bytes = static_cast<int32_t>(number(v.substr(colon + 1), 1, DYN_PAGE_UNIT));
           } else if (option(t[i], "nomark", &v)) {
             file.unmarked_page = static_cast<int32_t>(number(v, 1, 0xFFFFFF));
           } else if (t[i].quote == 0 && t[i].text == "third") {
             file.third_subfile = true;
           } else {
             throw ScriptError{"unknown dynfile field '" + t[i].text + "'"};
           }
         }
         s.dynfile = std::move(file);
       }},
      {"large",
       [](Script& s, const std::vector<Token>& t) {
         if (!s.dynfile) throw ScriptError{"'large' stands below a 'dynfile' line"};
         if (t.size() < 2) throw ScriptError{"'large' needs a key"};
         if (t[1].text.size() > 255) throw ScriptError{"a key has at most 255 bytes"};
         long repeat = 1;
         std::string v;
         size_t first = 2;
         if (t.size() > 2 && option(t[2], "repeat", &v)) {
           repeat = number(v, 1, DYN_LARGE_LIMIT);
           first = 3;
         }
         std::string data;
         const std::string once = plain_text(t, first);
         for (long r = 0; r < repeat; ++r) data += once;
         s.dynfile->records.push_back({t[1].text, data, true});
       }},
      {"index",
       [](Script& s, const std::vector<Token>& t) {
         if (!s.dynfile) throw ScriptError{"'index' stands below a 'dynfile' line"};
         need_args(t, 5);
         if (t[2].text.size() != 1 || t[4].text.size() != 1)
           throw ScriptError{"an index has a one-letter type and a one-letter kind"};
         s.dynfile->indexes.push_back({t[1].text, t[2].text[0], static_cast<int32_t>(number(t[3].text, 0, 999999)),
                                       t[4].text[0]});
       }},
      {"text",
       [](Script& s, const std::vector<Token>& t) {
         need_tape(s);
         size_t room = 2048;
         long repeat = 1;
         std::string v;
         size_t i = 1;
         for (; i < t.size(); ++i) {
           if (option(t[i], "room", &v))
             room = static_cast<size_t>(number(v, 2, TAPE_MAX_BLOCK - TAPE_HEADER_SIZE));
           else if (option(t[i], "repeat", &v))
             repeat = number(v, 1, 1000000);
           else
             break;
         }
         const std::string once = plain_text(t, i);
         std::string text;
         for (long r = 0; r < repeat; ++r) text += once;
         check(s, reel_writer_text(s.writer, text, room));
       }},
      {"raw",
       [](Script& s, const std::vector<Token>& t) {
         need_tape(s);
         std::vector<unsigned char> bytes;
         for (size_t i = 1; i < t.size(); ++i) append_item(bytes, t[i]);
         check(s, reel_writer_raw(s.writer, bytes.data(), bytes.size()));
       }},
  };
  return table;
}

}  // namespace

int reel_run_tape_script(std::istream& in, std::string* error) {
  Script s;
  std::string line;
  int line_no = 0;
  try {
    while (std::getline(in, line)) {
      ++line_no;
      std::vector<Token> tokens = split(line);
      if (tokens.empty()) continue;
      auto it = directives().find(tokens[0].text);
      if (tokens[0].quote != 0 || it == directives().end())
        throw ScriptError{"unknown directive '" + tokens[0].text + "'"};
      if (tokens[0].text != "item" && tokens[0].text != "large" && tokens[0].text != "index")
        flush_subfile(s);
      it->second(s, tokens);
    }
    line_no = 0;
    flush_subfile(s);
    if (s.open) check(s, reel_writer_close(s.writer));
  } catch (const ScriptError& e) {
    if (s.open) reel_writer_close(s.writer);
    if (error != nullptr)
      *error = line_no > 0 ? "line " + std::to_string(line_no) + ": " + e.what : e.what;
    return -1;
  }
  return 0;
}
