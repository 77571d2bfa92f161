#include <cstdio>
#include <string>

#include "mrvfile.h"

std::string mrvfile_escape(const std::string& bytes) {
  std::string out;
  out.reserve(bytes.size());
  for (unsigned char c : bytes) {
    if (c == '\\') {
      out += "\\\\";
    } else if (c == '\t') {
      out += "\\t";
    } else if (c == '\n') {
      out += "\\n";
    } else if (c < 0x20 || c >= 0x7F) {
      char hex[8];
      std::snprintf(hex, sizeof hex, "\\x%02X", c);
      out += hex;
    } else {
      out += static_cast<char>(c);
    }
  }
  return out;
}

namespace {
int hex_digit(char c) {
  if (c >= '0' && c <= '9') return c - '0';
  if (c >= 'a' && c <= 'f') return c - 'a' + 10;
  if (c >= 'A' && c <= 'F') return c - 'A' + 10;
  return -1;
}
}  // namespace

bool mrvfile_unescape(const std::string& text, std::string* out) {
  out->clear();
  for (size_t i = 0; i < text.size(); ++i) {
    char c = text[i];
    if (c != '\\') {
      out->push_back(c);
      continue;
    }
    if (++i >= text.size()) return false;
    switch (text[i]) {
      case '\\': out->push_back('\\'); break;
      case 't': out->push_back('\t'); break;
      case 'n': out->push_back('\n'); break;
      case 'x': {
        int hi = i + 1 < text.size() ? hex_digit(text[i + 1]) : -1;
        int lo = i + 2 < text.size() ? hex_digit(text[i + 2]) : -1;
        if (hi < 0 || lo < 0) return false;
        out->push_back(static_cast<char>(hi * 16 + lo));
        i += 2;
        break;
      }
      default: return false;
    }
  }
  return true;
}
