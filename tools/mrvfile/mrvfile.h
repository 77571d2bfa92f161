// mrvfile: a command line over the hashed file library for users and tests.
//
//   mrvfile create [--dynamic] [--modulo N] [--block CODE] [--hash TYPE]
//                  [--spread N] PATH
//   mrvfile info PATH
//   mrvfile check PATH
//   mrvfile put PATH KEY          (the record from standard input)
//   mrvfile get PATH KEY          (the record to standard output)
//   mrvfile delete PATH KEY
//   mrvfile list [--records] PATH
//   mrvfile load PATH [FILE]      (KEY<TAB>RECORD lines, buffered writer)
//   mrvfile resize PATH MODULO    (laid out again beside, then renamed)
//   mrvfile verify ACCOUNT [--summary PATH]
//   mrvfile index add|list|build|scan|find|drop|check ...  (mrvfile_index.cc)
//
// Each command is one function over the arguments after its name; it
// returns the exit status: 0 done, 1 failed (or findings), 2 usage error.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "flib/fl_open.h"

struct REL_TYPE;

using Args = std::vector<std::string>;

int mrvfile_create(const Args& args);
int mrvfile_info(const Args& args);
int mrvfile_check(const Args& args);
int mrvfile_put(const Args& args);
int mrvfile_get(const Args& args);
int mrvfile_delete(const Args& args);
int mrvfile_list(const Args& args);
int mrvfile_load(const Args& args);
int mrvfile_index(const Args& args);
int mrvfile_resize(const Args& args);
int mrvfile_verify(const Args& args);

// Opens `path` (mode as M_openfile takes it: 0 read, 2 read-write); when it
// can't, prints "mrvfile: PATH: <what is wrong>" ("no such file",
// "permission denied", "not a hashed file ...") and returns false.
bool mrvfile_open(REL_TYPE* rel, const std::string& path, OpenMode mode);
// What stands in the way of opening `path` for reading (and writing), in
// words; empty when nothing does.
std::string mrvfile_path_problem(const std::string& path, bool write);
// True when `path` is a static file or a directory holding dat001.
bool mrvfile_is_hashed(const std::string& path);
// The records in the file at `path`; -1 when it can't be opened (said on
// standard error) or read through.
int64_t mrvfile_count_records(const std::string& path);

// The text form of list and load: "\\", "\t", "\n" and "\xHH" stand for
// a backslash, a TAB, a newline and any other byte below 0x20 or above 0x7E.
std::string mrvfile_escape(const std::string& bytes);
// False when the text holds a bad escape.
bool mrvfile_unescape(const std::string& text, std::string* out);

// Prints the usage text to standard error and returns 2.
int mrvfile_usage();
// Parses a whole decimal number; false when `text` is not one.
bool mrvfile_number(const std::string& text, long* out);
