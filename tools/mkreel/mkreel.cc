// mkreel: writes tapes in the foreign system's format from a text
// description (see README.md, "mkreel").
//
//   mkreel [DESCRIPTION]    reads standard input without DESCRIPTION
//
// Exit status 0 when every tape was written, 1 otherwise.
#include <cstdio>
#include <fstream>
#include <iostream>
#include <string>

#include "reel/reel_tape_script.h"

int main(int argc, char** argv) {
  if (argc > 2) {
    std::fprintf(stderr, "usage: mkreel [DESCRIPTION]\n");
    return 1;
  }
  std::string error;
  int result;
  if (argc == 2) {
    std::ifstream in(argv[1]);
    if (!in) {
      std::fprintf(stderr, "mkreel: cannot open %s\n", argv[1]);
      return 1;
    }
    result = reel_run_tape_script(in, &error);
  } else {
    result = reel_run_tape_script(std::cin, &error);
  }
  if (result != 0) {
    std::fprintf(stderr, "mkreel: %s\n", error.c_str());
    return 1;
  }
  return 0;
}
