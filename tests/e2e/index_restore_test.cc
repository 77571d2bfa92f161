// A restored file given an index, restored into again with -O: the bulk
// load leaves the index to be built, and a build answers for every record.

#include "e2e/sandbox.h"

namespace {

const char* kSave = R"(tape t.tap
label name=SAVE
account SALES
file CUSTOMERS hashed
subfile modulo=7
item C1 'Smith\xFEJohn'
item C2 'Jones\xFEMary'
item C3 'Smith\xFEAnne'
end
)";

ProgramResult mrvfile(std::vector<std::string> args) {
  return run_program({.program = "mrvfile", .args = std::move(args), .env = {{"MRVBIN", REEL_BIN_DIR}}});
}

TEST(IndexRestore, AnIndexedFileRestoredIntoIsLeftToBeBuilt) {
  Sandbox box(kSave);
  ProgramResult first = box.reel({"ACC"});
  const std::string file = box.account("SALES") + "/CUSTOMERS";
  ASSERT_EQ(listed_records(file).size(), 3u) << first.output;
  // Added to a file with records, the index is built at once.
  ASSERT_EQ(mrvfile({"index", "add", file, "SURNAME", "1"}).status, 0);
  EXPECT_EQ(mrvfile({"index", "find", file, "SURNAME", "Smith"}).output, "C1\nC3\n");

  ProgramResult again = box.reel({"-O", "SALES"});
  EXPECT_EQ(listed_records(file).size(), 3u) << again.output;
  EXPECT_NE(mrvfile({"index", "list", file}).output.find("SURNAME\tfield 1\tsingle\ttext\tto be built"),
            std::string::npos);
  EXPECT_EQ(mrvfile({"index", "find", file, "SURNAME", "Smith"}).status, 1) << "no answers from a stale tree";
  ASSERT_EQ(mrvfile({"index", "build", file}).status, 0);
  EXPECT_EQ(mrvfile({"index", "find", file, "SURNAME", "Smith"}).output, "C1\nC3\n");
  EXPECT_EQ(mrvfile({"index", "check", file}).status, 0);
  EXPECT_EQ(mrvfile({"check", file}).status, 0);
}

}  // namespace
