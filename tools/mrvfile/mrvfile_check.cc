#include <cstdio>

#include "flib/fl_check.h"
#include "mrvfile.h"

int mrvfile_check(const Args& args) {
  if (args.size() != 1) return mrvfile_usage();
  if (std::string problem = mrvfile_path_problem(args[0], false); !problem.empty()) {
    std::fprintf(stderr, "mrvfile: %s: %s\n", args[0].c_str(), problem.c_str());
    return 1;
  }
  std::vector<std::string> findings;
  int count = M_check_file(args[0].c_str(), &findings);
  for (const auto& line : findings) std::printf("%s\n", line.c_str());
  if (count == 0) {
    std::printf("%s: sound\n", args[0].c_str());
    return 0;
  }
  std::printf("%s: %d finding%s\n", args[0].c_str(), count, count == 1 ? "" : "s");
  return 1;
}
