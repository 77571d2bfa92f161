// Writing a member's chunks: the first makes the file afresh, later ones
// append; a trailing field mark is not part of the name; a member that
// can't be written is reported and the caller goes on.
#include "reel/reel_member.h"

#include "common/mrv_marks.h"
#include "support/files.h"
#include "support/run_program.h"
#include "support/temp_dir.h"

namespace {

int write_chunk(const std::string& dir, const std::string& item, const std::string& data,
                int first) {
  return reel_write_member(dir.c_str(), item.c_str(), static_cast<int32_t>(item.size()),
                           data.data(), static_cast<int32_t>(data.size()), first);
}

TEST(WriteMember, FirstChunkTruncatesLaterChunksAppendFailuresAreReported) {
  TempDir dir;
  spill(dir.path() / "PROG", "old text that is longer");
  EXPECT_EQ(write_chunk(dir.str(), "PROG", "one\n", 1), 1);
  EXPECT_EQ(write_chunk(dir.str(), "PROG", "two\n", 0), 1);
  EXPECT_EQ(slurp(dir.path() / "PROG"), "one\ntwo\n");
  EXPECT_EQ(write_chunk(dir.str(), std::string("MARKED") + static_cast<char>(M_FM), "", 1), 1);
  EXPECT_TRUE(std::filesystem::exists(dir.path() / "MARKED"));

  const std::string missing = dir.str() + "/no-such-dir";
  ProgramResult r =
      run_in_child([&] { std::printf("%d\n", write_chunk(missing, "PROG", "x", 1)); });
  EXPECT_EQ(r.output, "WRITE item PROG to file " + missing + " error.\n-1\n");
}

}  // namespace
