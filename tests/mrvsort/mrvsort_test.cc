// The mrvsort program, as the index build starts it.

#include <algorithm>
#include <random>

#include "support/files.h"
#include "support/run_program.h"
#include "support/temp_dir.h"

namespace {

using Mrvsort = ScratchTest;

ProgramResult mrvsort(const std::vector<std::string>& args, const std::string& input = "") {
  ProgramRun run;
  run.program = "mrvsort";
  run.args = args;
  run.input = input;
  return run_program(run);
}

std::string joined(const std::vector<std::string>& lines) {
  std::string out;
  for (const auto& l : lines) out += l + "\n";
  return out;
}

TEST_F(Mrvsort, ByteOrderReverseAndUnique) {
  // Bytes compare unsigned; a prefix sorts first; a last line without a
  // newline gets one.
  std::string input = "b\na\n\xff\nab\na\n\nb";
  ProgramResult plain = mrvsort({}, input);
  EXPECT_EQ(plain.status, 0);
  EXPECT_EQ(plain.output, "\na\na\nab\nb\nb\n\xff\n");
  ProgramResult both = mrvsort({"-u", "-r"}, input);
  EXPECT_EQ(both.output, "\xff\nb\nab\na\n\n");
}

TEST_F(Mrvsort, OutputMayBeTheInput) {
  std::string f = tmp.str() + "/lines";
  spill(f, "3\n1\n2\n1\n");
  ASSERT_EQ(mrvsort({"-u", "-r", "-o", f, f}).status, 0);
  EXPECT_EQ(slurp(f), "3\n2\n1\n");
}

TEST_F(Mrvsort, AFileLargerThanItsMemoryIsSortedInRuns) {
  std::string runs = tmp.str() + "/runs";
  std::filesystem::create_directories(runs);
  std::mt19937 rng(7);
  std::vector<std::string> lines;
  size_t bytes = 0;
  while (bytes < 3u << 20) {
    std::string l(rng() % 60 + 1, ' ');
    for (char& c : l) c = static_cast<char>('0' + rng() % 40);
    bytes += l.size() + 1;
    lines.push_back(l);
  }
  for (int i = 0; i < 500; ++i) lines.push_back(lines[rng() % lines.size()]);  // repeats
  std::string in = tmp.str() + "/in";
  spill(in, joined(lines));
  std::sort(lines.begin(), lines.end(), std::greater<>());
  lines.erase(std::unique(lines.begin(), lines.end()), lines.end());
  // Three times the memory in one merge; and more runs than one merge
  // takes, so that runs are merged in passes.
  for (const char* memory : {"1M", "48K"}) {
    std::string out = tmp.str() + "/out";
    ProgramResult r = mrvsort({"-u", "-r", "-S", memory, "-T", runs, "-o", out, in});
    ASSERT_EQ(r.status, 0) << r.output;
    EXPECT_TRUE(slurp(out) == joined(lines)) << memory;
    EXPECT_TRUE(std::filesystem::is_empty(runs)) << "runs are removed";
  }
}

TEST_F(Mrvsort, Refusals) {
  ProgramResult bad = mrvsort({"-x"});
  EXPECT_EQ(bad.status, 2);
  EXPECT_NE(bad.output.find("mrvsort: unknown option -x"), std::string::npos);
  EXPECT_EQ(mrvsort({"-S", "lots"}).status, 2);
  ProgramResult missing = mrvsort({"/nonexistent/file"});
  EXPECT_EQ(missing.status, 2);
  EXPECT_NE(missing.output.find("cannot read /nonexistent/file"), std::string::npos);
}

}  // namespace
