// Damaged tapes that once crashed REEL_INTAKE, made it write outside the
// account or lose records it had read, each cut down to the few blocks
// that did it. A restore and an analysis of each must end as every run
// does (status 1), keep what can be read, log the damage, and leave
// nothing outside the run directory's accounts.

#include <set>

#include "e2e/sandbox.h"

namespace {

namespace fs = std::filesystem;

struct DamagedTape {
  const char* name;
  std::string save;  // mkreel's text form
  // Hashed files (path from the run directory) and their records as
  // listed_records shows them.
  std::vector<std::pair<std::string, std::vector<std::string>>> files;
  std::vector<std::pair<std::string, std::string>> members;  // path, text
  // A line of SALES/dispmsg.
  std::string logged;
};

const std::string kHead = "tape t.tap\nlabel\naccount SALES\n";

// A group whose key room is made by moving the record of an empty key (a
// key of only a field mark, which the library cuts off), its sizes as
// found; the key of 255 bytes is refused but shapes the stream.
DamagedTape moved_empty_key() {
  const std::vector<std::pair<std::string, size_t>> items = {
      {"AAAAAAA", 52}, {"B", 0},      {"CCCCCCC", 1630}, {std::string(255, 'D'), 937},
      {"EEEEEEE", 7},  {"FFFFF", 58}, {"\\xFE", 412},    {"HHHHHHH", 2288}};
  DamagedTape t{"a record of an empty key moved for key room",
                kHead + "file F hashed\nsubfile room=46 chunk=100\n",
                {{"SALES/F", {}}},
                {},
                "Record error: invalid key length [255]"};
  for (const auto& [key, size] : items) {
    const bool mark = key == "\\xFE";
    std::string data;
    for (size_t i = 0; i < size; ++i) data += mark ? "\\xFE" : "d";
    t.save += "item '" + key + "' '" + data + "'\n";
    if (key.size() < 255)
      t.files[0].second.push_back(
          listed_record(mark ? "" : key, std::string(size, mark ? '\xFE' : 'd')));
  }
  t.save += "end\n";
  std::sort(t.files[0].second.begin(), t.files[0].second.end());
  return t;
}

std::vector<DamagedTape> damaged_tapes() {
  return {
      moved_empty_key(),
      {"member block shorter than its header",
       kHead +
           "file BP dir\nsub MAIN sam\nblock data words=2 'PRINT'\nsub NEXT sam\ntext 'END\\n'\n"
           "file NOTES sam\nblock data words=1 'x'\ntext 'kept\\n'\nend\n",
       {},
       {{"SALES/BP/NEXT", "END\n"}, {"SALES/SAM/NOTES", "kept\n"}},
       ""},
      {"account names that lead out of the run directory or onto a file",
       kHead + "file F hashed\nsubfile modulo=1\nitem A 'one'\n"
               "account '../ESC'\nfile G hashed\nsubfile modulo=1\nitem B 'two'\n"
               "account 't.tap'\nfile H hashed\nsubfile modulo=1\nitem C 'three'\n"
               "account '..'\nfile I hashed\nsubfile modulo=1\nitem D 'four'\n"
               "account ''\nfile J hashed\nsubfile modulo=1\nitem E 'five'\nend\n",
       {{"SALES/F", {"A\tone"}},
        {"SALES/G", {"B\ttwo"}},
        {"SALES/H", {"C\tthree"}},
        {"SALES/I", {"D\tfour"}},
        {"SALES/J", {"E\tfive"}}},
       {},
       "Blkno = 5 \tGet acct_name error\n"},
      {"file names holding field and record marks",
       kHead + "file '..\\xFEX' hashed\nsubfile modulo=1\nitem A 'one'\n"
               "file 'P\\xFFQ' hashed\nsubfile modulo=1\nitem B 'two'\n"
               "file '..\\xFEY' dir\nsub M sam\ntext 'mm\\n'\nend\n",
       {{"SALES/.._Xa", {"A\tone"}}, {"SALES/P_Qa", {"B\ttwo"}}},
       {{"SALES/.._Ya/M", "mm\n"}},
       ""},
      {"an empty file name",
       kHead + "file '' hashed\nsubfile modulo=1\nitem A 'one'\nend\n",
       {{"SALES/a", {"A\tone"}}},
       {},
       ""},
  };
}

// No report of a sanitizer build (undefined behaviour, a bad access).
bool unflagged(const std::string& output) {
  return output.find("runtime error:") == std::string::npos &&
         output.find("Sanitizer") == std::string::npos;
}

// What stands in the sandbox besides the run directory's accounts and tape.
std::set<std::string> strays(const Sandbox& box) {
  std::set<std::string> found;
  const fs::path run = box.run();
  for (const auto& e : fs::directory_iterator(run.parent_path()))
    if (e.path() != run) found.insert(e.path().filename().string());
  for (const char* own : {"home", "bin", "tmp"}) found.erase(own);
  for (const auto& e : fs::directory_iterator(run))
    if (!e.is_directory() && e.path().filename() != "t.tap") found.insert(e.path().string());
  return found;
}

TEST(DamagedTapes, RunToTheEndKeepWhatCanBeReadAndStayInTheAccount) {
  for (const DamagedTape& t : damaged_tapes()) {
    SCOPED_TRACE(t.name);
    Sandbox box(t.save);
    ProgramResult restore = box.reel({"ACC"});
    EXPECT_EQ(restore.status, 1) << restore.output;
    EXPECT_TRUE(unflagged(restore.output)) << restore.output;
    EXPECT_EQ(strays(box), std::set<std::string>{});
    for (const auto& [file, records] : t.files) {
      EXPECT_EQ(listed_records(box.run() + "/" + file), records) << file << restore.output;
      EXPECT_EQ(check_of(box.run() + "/" + file), "") << file;
    }
    for (const auto& [member, text] : t.members)
      EXPECT_EQ(slurp(box.run() + "/" + member), text) << member << restore.output;
    if (!t.logged.empty()) {
      const std::string log = slurp(box.account("SALES") + "/dispmsg");
      EXPECT_NE(log.find(t.logged), std::string::npos) << log;
    }

    ProgramResult analysis = box.reel({"-A", "plan"});
    EXPECT_EQ(analysis.status, 1) << analysis.output;
    EXPECT_TRUE(unflagged(analysis.output)) << analysis.output;
    EXPECT_NE(analysis.output.find("REEL_INTAKE is finished"), std::string::npos)
        << analysis.output;
  }
}

}  // namespace
