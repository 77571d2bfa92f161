// A small reader of JSON documents, for the files the programs write for
// scripts (the run summary) and read back (mrvfile verify). Numbers are
// kept as double; strings as bytes, with \uXXXX below 0x100 taken as that
// byte and others as UTF-8.
#pragma once

#include <string>
#include <utility>
#include <vector>

struct JsonValue {
  enum class Type { Null, Bool, Number, String, Array, Object };
  Type type = Type::Null;
  bool boolean = false;
  double number = 0;
  std::string text;
  std::vector<JsonValue> items;                             // an array's
  std::vector<std::pair<std::string, JsonValue>> members;  // an object's, in order

  // The member `name` of an object, or null when absent or not an object.
  const JsonValue* get(const std::string& name) const;
  // Typed reads of a member with a fallback when absent or of another type.
  std::string text_of(const std::string& name, const std::string& fallback = "") const;
  double number_of(const std::string& name, double fallback = 0) const;
  bool bool_of(const std::string& name, bool fallback = false) const;
};

// Parses a whole document. False with a message naming the offset when the
// text is not one JSON value.
bool M_json_parse(const std::string& text, JsonValue* out, std::string* error);
