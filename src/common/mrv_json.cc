#include "common/mrv_json.h"

#include <cstdlib>
#include <utility>

namespace {

// Nesting deeper than this is refused rather than recursed into.
constexpr int kMaxDepth = 64;

struct Parser {
  const std::string& s;
  size_t at = 0;
  std::string error;

  bool fail(const char* what) {
    if (error.empty()) error = std::string(what) + " at offset " + std::to_string(at);
    return false;
  }
  void blanks() {
    while (at < s.size() && (s[at] == ' ' || s[at] == '\t' || s[at] == '\n' || s[at] == '\r')) ++at;
  }
  bool literal(const char* word) {
    size_t n = std::char_traits<char>::length(word);
    if (s.compare(at, n, word) != 0) return fail("unknown word");
    at += n;
    return true;
  }
  static void put_utf8(std::string& out, unsigned code) {
    if (code < 0x100 && code >= 0x80) {
      out += static_cast<char>(code);  // a byte escaped by the writer
    } else if (code < 0x80) {
      out += static_cast<char>(code);
    } else if (code < 0x800) {
      out += static_cast<char>(0xC0 | (code >> 6));
      out += static_cast<char>(0x80 | (code & 0x3F));
    } else {
      out += static_cast<char>(0xE0 | (code >> 12));
      out += static_cast<char>(0x80 | ((code >> 6) & 0x3F));
      out += static_cast<char>(0x80 | (code & 0x3F));
    }
  }
  bool string(std::string* out) {
    ++at;  // the opening quote
    while (at < s.size() && s[at] != '"') {
      char c = s[at++];
      if (c != '\\') {
        *out += c;
        continue;
      }
      if (at >= s.size()) break;
      char e = s[at++];
      switch (e) {
        case '"': case '\\': case '/': *out += e; break;
        case 'b': *out += '\b'; break;
        case 'f': *out += '\f'; break;
        case 'n': *out += '\n'; break;
        case 'r': *out += '\r'; break;
        case 't': *out += '\t'; break;
        case 'u': {
          if (at + 4 > s.size()) return fail("short \\u escape");
          char* end = nullptr;
          std::string hex = s.substr(at, 4);
          unsigned code = static_cast<unsigned>(std::strtoul(hex.c_str(), &end, 16));
          if (*end != '\0') return fail("bad \\u escape");
          at += 4;
          put_utf8(*out, code);
          break;
        }
        default:
          return fail("bad escape");
      }
    }
    if (at >= s.size()) return fail("unterminated string");
    ++at;
    return true;
  }
  bool value(JsonValue* v, int depth) {
    if (depth > kMaxDepth) return fail("nesting too deep");
    blanks();
    if (at >= s.size()) return fail("value expected");
    char c = s[at];
    if (c == '{') {
      v->type = JsonValue::Type::Object;
      ++at;
      blanks();
      if (at < s.size() && s[at] == '}') return ++at, true;
      for (;;) {
        blanks();
        if (at >= s.size() || s[at] != '"') return fail("member name expected");
        std::string name;
        if (!string(&name)) return false;
        blanks();
        if (at >= s.size() || s[at] != ':') return fail("':' expected");
        ++at;
        JsonValue member;
        if (!value(&member, depth + 1)) return false;
        v->members.push_back({std::move(name), std::move(member)});
        blanks();
        if (at < s.size() && s[at] == ',') { ++at; continue; }
        if (at < s.size() && s[at] == '}') return ++at, true;
        return fail("',' or '}' expected");
      }
    }
    if (c == '[') {
      v->type = JsonValue::Type::Array;
      ++at;
      blanks();
      if (at < s.size() && s[at] == ']') return ++at, true;
      for (;;) {
        JsonValue item;
        if (!value(&item, depth + 1)) return false;
        v->items.push_back(std::move(item));
        blanks();
        if (at < s.size() && s[at] == ',') { ++at; continue; }
        if (at < s.size() && s[at] == ']') return ++at, true;
        return fail("',' or ']' expected");
      }
    }
    if (c == '"') {
      v->type = JsonValue::Type::String;
      return string(&v->text);
    }
    if (c == 't' || c == 'f') {
      v->type = JsonValue::Type::Bool;
      v->boolean = c == 't';
      return literal(c == 't' ? "true" : "false");
    }
    if (c == 'n') return literal("null");
    char* end = nullptr;
    v->number = std::strtod(s.c_str() + at, &end);
    if (end == s.c_str() + at) return fail("value expected");
    v->type = JsonValue::Type::Number;
    at = static_cast<size_t>(end - s.c_str());
    return true;
  }
};

}  // namespace

const JsonValue* JsonValue::get(const std::string& name) const {
  if (type != Type::Object) return nullptr;
  for (const auto& [key, value] : members)
    if (key == name) return &value;
  return nullptr;
}

std::string JsonValue::text_of(const std::string& name, const std::string& fallback) const {
  const JsonValue* v = get(name);
  return v != nullptr && v->type == Type::String ? v->text : fallback;
}

double JsonValue::number_of(const std::string& name, double fallback) const {
  const JsonValue* v = get(name);
  return v != nullptr && v->type == Type::Number ? v->number : fallback;
}

bool JsonValue::bool_of(const std::string& name, bool fallback) const {
  const JsonValue* v = get(name);
  return v != nullptr && v->type == Type::Bool ? v->boolean : fallback;
}

bool M_json_parse(const std::string& text, JsonValue* out, std::string* error) {
  Parser p{text};
  *out = JsonValue{};
  bool ok = p.value(out, 0);
  if (ok) {
    p.blanks();
    if (p.at != text.size()) ok = p.fail("text after the value");
  }
  if (!ok && error != nullptr) *error = p.error;
  return ok;
}
