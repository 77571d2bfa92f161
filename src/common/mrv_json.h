// A small reader of JSON documents, for the files the programs write for
// scripts (the run summary) and read back (mrvfile verify). Numbers are
// kept as double; strings as bytes, with \uXXXX below 0x100 taken as that
// byte and others as UTF-8.
#pragma once

#include <string>
#include <vector>

struct JsonMember;

struct JsonValue {
  enum class Type { Null, Bool, Number, String, Array, Object };
  Type type = Type::Null;
  bool boolean = false;
  double number = 0;
  std::string text;
  std::vector<JsonValue> items;                             // an array's
  std::vector<JsonMember> members;  // an object's, in order

  // The member `name` of an object, or null when absent or not an object.
  const JsonValue* get(const std::string& name) const;
  // Typed reads of a member with a fallback when absent or of another type.
  std::string text_of(const std::string& name, const std::string& fallback = "") const;
  double number_of(const std::string& name, double fallback = 0) const;
  bool bool_of(const std::string& name, bool fallback = false) const;
};

// One member of an object. A struct of its own rather than a std::pair, since
// a pair may not hold the still incomplete JsonValue.
struct JsonMember {
  std::string name;
  JsonValue value;
};

// Parses a whole document. False with a message naming the offset when the
// text is not one JSON value.
bool M_json_parse(const std::string& text, JsonValue* out, std::string* error);
