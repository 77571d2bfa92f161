// mrvfile: a command line over the hashed file library for users and tests.
//
//   mrvfile create [--dynamic] [--modulo N] [--block CODE] [--hash TYPE]
//                  [--spread N] PATH
//   mrvfile info PATH
//   mrvfile check PATH
//
// Each command is one function over the arguments after its name; it
// returns the exit status: 0 done, 1 failed (or findings), 2 usage error.
#pragma once

#include <string>
#include <vector>

using Args = std::vector<std::string>;

int mrvfile_create(const Args& args);
int mrvfile_info(const Args& args);
int mrvfile_check(const Args& args);

// Prints the usage text to standard error and returns 2.
int mrvfile_usage();
// Parses a whole decimal number; false when `text` is not one.
bool mrvfile_number(const std::string& text, long* out);
