// Restores that break: failing writes, a kill at any point and the resume
// with -R ALL, the interrupt key with no input left, a tape that ends
// before its save does, and accounts named by absolute paths. The faults
// come from the platform layer's test switch (MRV_FAULT), so each point is
// reached exactly.

#include <map>
#include <regex>

#include "e2e/sandbox.h"
#include "flib/fl_block.h"
#include "flib/fl_filehdr.h"

namespace {

namespace fs = std::filesystem;

// Hashed files of the save (paths in the account) and its members.
const std::vector<std::string> kHashed = {"CUST", "ORDERS", "D_CUST", "DYN", "PARTS"};
const std::vector<std::string> kMembers = {"BP/MAIN", "BP/NEXT", "SAM/NOTES"};

// Static files large enough for many flushes under -K 8, a dictionary, a
// directory with a member long enough for several writes, a member at the
// top of the account.
std::string save_text(bool with_end = true) {
  std::string s = "tape t.tap\nlabel\naccount SALES\n";
  for (const auto& [file, count] : {std::pair{"CUST", 900}, std::pair{"ORDERS", 600}}) {
    s += std::string("file ") + file + " hashed\nsubfile modulo=3\n";
    for (int i = 0; i < count; ++i)
      s += "item K" + std::to_string(10000 + i) + " 'record " + std::to_string(i) + " of " + file + " " +
           std::string(static_cast<size_t>(i % 90), 'x') + "'\n";
  }
  s += "file D_CUST hashed\nsubfile modulo=1\nitem NAME 'D\\xFE1\\xFE\\xFEName'\n";
  s += "file BP dir\nsub MAIN sam\ntext 'PRINT 1\\nEND\\n'\nsub NEXT sam\n"
       "text room=2048 repeat=60000 'LINE OF TEXT\\n'\n";
  s += "file NOTES sam\ntext 'kept\\n'\n";
  s += "file DYN hashed\ndynfile modulo=3\n";
  for (int i = 0; i < 500; ++i)
    s += "item D" + std::to_string(i) + " 'dynamic " + std::to_string(i) + " " +
         std::string(static_cast<size_t>(i % 70), 'y') + "'\n";
  s += "file PARTS hashed\nsubfile modulo=2\n";
  for (int i = 0; i < 300; ++i) s += "item P" + std::to_string(i) + " 'part " + std::to_string(i) + "'\n";
  if (with_end) s += "end\n";
  return s;
}

// A sandbox whose account SALES (the tape's name, so nothing is renamed)
// is made beforehand: the faults of a run then fall on the restore alone.
struct FaultSandbox : Sandbox {
  explicit FaultSandbox(const std::string& save = save_text()) : Sandbox(save) {
    fs::create_directories(account("SALES"));
    ProgramResult made = run_program({.program = "newacct", .directory = account("SALES")});
    EXPECT_EQ(made.status, 0) << made.output;
  }
  ProgramResult restore(const std::string& fault, std::vector<std::string> more = {}) const {
    std::vector<std::string> args = {"-K", "8"};
    args.insert(args.end(), more.begin(), more.end());
    args.push_back("SALES");
    return reel(args, fault.empty() ? std::vector<std::pair<std::string, std::string>>{}
                                    : std::vector<std::pair<std::string, std::string>>{{"MRV_FAULT", fault}});
  }
};

int lines_of(const std::string& text) { return static_cast<int>(count_of(text, "\n")); }

// Writes of an uninterrupted restore, from the switch's count.
int writes_of_a_restore() {
  FaultSandbox box;
  ProgramResult r = box.restore("count");
  std::smatch m;
  EXPECT_TRUE(std::regex_search(r.output, m, std::regex("fault seam: (\\d+) writes"))) << r.output;
  return m.empty() ? 0 : std::stoi(m[1]);
}

// "%d records restored" of each hashed file of dispmsg, by the tape name
// of the "Create ..." line before it.
std::map<std::string, int> restored_counts(const std::string& dispmsg) {
  std::map<std::string, int> counts;
  std::string file;
  std::smatch m;
  for (size_t at = 0, nl; (nl = dispmsg.find('\n', at)) != std::string::npos; at = nl + 1) {
    const std::string line = dispmsg.substr(at, nl - at);
    if (std::regex_match(line, m, std::regex("Create (DATA|DICT) (\\S+) .*")))
      file = (m[1] == "DICT" ? "D_" : "") + m[2].str();
    else if (std::regex_match(line, m, std::regex("(\\d+) records restored")))
      counts[file] = std::stoi(m[1]);
  }
  return counts;
}

TEST(Faults, AFailingWriteAtEveryTenthWriteEndsItsFileCleanlyAndCountsHonestly) {
  const int writes = writes_of_a_restore();
  ASSERT_GT(writes, 30);
  const ProgramResult clean = FaultSandbox().restore("");
  for (int n = 10; n <= writes; n += 10) {
    FaultSandbox box;
    const std::string fault = "write:" + std::to_string(n) + (n % 20 == 0 ? ":EIO" : ":ENOSPC");
    ProgramResult r = box.restore(fault);
    SCOPED_TRACE(fault + "\n" + r.output);
    // A failure while the account is set up ends the run there, as every
    // fault of the set-up does; later ones end their file and go on.
    EXPECT_EQ(r.status, 1);
    EXPECT_TRUE(r.output.find("REEL_INTAKE is finished!!!") != std::string::npos ||
                r.output.find("Can't open file") != std::string::npos);
    const std::string account = box.account("SALES");
    const std::string dispmsg = slurp(account + "/dispmsg");
    const std::map<std::string, int> restored = restored_counts(dispmsg);
    int failing = static_cast<int>(count_of(r.output, "failure!\n"));
    for (const std::string& file : kHashed) {
      if (!fs::exists(account + "/" + file)) continue;
      const bool named = dispmsg.find(" " + (file.starts_with("D_") ? file.substr(2) : file) +
                                      " failed: ") != std::string::npos;
      failing += named ? 1 : 0;
      // A file that reads whole has its count right; one that does not is
      // one the run named as incomplete.
      ProgramResult listed = run_program({.program = "mrvfile", .args = {"list", account + "/" + file}});
      if (listed.status == 0 && restored.contains(file)) {
        EXPECT_EQ(restored.at(file), lines_of(listed.output)) << file;
      }
      if (!named) {
        EXPECT_EQ(listed.status, 0) << file;
        EXPECT_EQ(check_of(account + "/" + file), "") << file;
      }
    }
    // A failing file says so in a few lines (the full disk's question, the
    // write that failed, the VOC entry it broke off), never in one per
    // record.
    EXPECT_LT(lines_of(r.output) - lines_of(clean.output), 12 * std::max(failing, 1)) << dispmsg;
  }
}

// The bytes of a static hashed file with the time of the last change of
// each block blanked: that is when it was written, not what it holds.
std::string bytes_but_times(const std::string& path) {
  if (fs::is_directory(path)) {  // a dynamic file: its parts in name order
    std::vector<std::string> parts;
    for (const auto& e : fs::directory_iterator(path)) parts.push_back(e.path().string());
    std::sort(parts.begin(), parts.end());
    std::string all;
    for (const std::string& part : parts) all += part.substr(path.size()) + "\n" + bytes_but_times(part);
    return all;
  }
  std::string bytes = slurp(path);
  if (bytes.size() < FH_READ_SIZE) return bytes;
  const FileHeader header = decode_file_header(reinterpret_cast<const uint8_t*>(bytes.data()));
  const uint32_t b = block_size_of_code(header.block_code);
  for (size_t block = b; b != 0 && block + GB_TIME + 4 <= bytes.size(); block += b)
    bytes.replace(block + GB_TIME, 4, 4, '\0');
  return bytes;
}

// An account as the restore leaves it: each hashed file's records and its
// bytes but for the times, each member's bytes.
struct AccountImage {
  std::map<std::string, std::vector<std::string>> records;
  std::map<std::string, std::string> bytes;
};

AccountImage image_of(const std::string& account) {
  AccountImage image;
  for (const std::string& file : kHashed) {
    image.records[file] = listed_records(account + "/" + file);
    image.bytes[file] = fs::exists(account + "/" + file) ? bytes_but_times(account + "/" + file) : "absent";
  }
  for (const std::string& member : kMembers)
    image.bytes[member] = fs::exists(account + "/" + member) ? slurp(account + "/" + member) : "absent";
  return image;
}

// Kills at evenly spaced writes: enough of them that each kind of object
// below has one (a file made to be loaded writes little before its load).
constexpr int kKillPoints = 14;

TEST(Resume, KilledAtEvenPointsThenRestartedWithRAllEndsEqualToAnUnbrokenRestore) {
  const int writes = writes_of_a_restore();
  ASSERT_GT(writes, 30);
  FaultSandbox whole;
  whole.restore("");
  const AccountImage expected = image_of(whole.account("SALES"));
  std::string noted;  // what the kills broke off
  for (int point = 1; point <= kKillPoints; ++point) {
    const int n = writes * point / (kKillPoints + 1);
    FaultSandbox box;
    ProgramResult killed = box.restore("kill:" + std::to_string(n));
    ASSERT_EQ(killed.status, 128 + SIGKILL) << killed.output;
    const std::string note_path = box.account("SALES") + "/.reel_loading";
    if (fs::exists(note_path)) noted += slurp(note_path);
    ProgramResult resumed = box.restore("", {"-R", "ALL"});
    SCOPED_TRACE("killed before write " + std::to_string(n) + "\n" + killed.output + resumed.output);
    const AccountImage got = image_of(box.account("SALES"));
    EXPECT_EQ(got.records, expected.records);
    for (const auto& [name, bytes] : expected.bytes) EXPECT_TRUE(got.bytes.at(name) == bytes) << name;
    EXPECT_FALSE(fs::exists(box.account("SALES") + "/.reel_loading"));
  }
  // The points fell on the account's set-up, static files, a dictionary, a
  // resize and a directory's members.
  for (const char* object : {"WORK ", "DATA CUST", "DICT CUST", "TEMP resz__", "DIR  BP", "DATA DYN"})
    EXPECT_NE(noted.find(object), std::string::npos) << object << "\n" << noted;
}

TEST(Interrupt, WithNoInputLeftTheFileAtHandCompletesAndTheRunClosesDownInOrder) {
  const int writes = writes_of_a_restore();
  const size_t creates = count_of(FaultSandbox().restore("").output, "Create ");
  // Points after the set-up of the account, where the interrupt key is the
  // run's to handle.
  for (int n : {writes / 3, writes / 2, writes * 2 / 3}) {
    FaultSandbox box;
    ProgramResult r = box.restore("interrupt:" + std::to_string(n));
    SCOPED_TRACE(r.output);
    EXPECT_EQ(r.status, 1);
    EXPECT_NE(r.output.find("BREAK: Enter Q<return> to Quit."), std::string::npos);
    EXPECT_NE(r.output.find("End of input while waiting for an answer.\n"), std::string::npos);
    EXPECT_NE(r.output.find("REEL_INTAKE is finished!!!"), std::string::npos);
    EXPECT_EQ(r.output.find("usage"), std::string::npos);
    const std::string account = box.account("SALES");
    const std::map<std::string, int> restored = restored_counts(slurp(account + "/dispmsg"));
    for (const std::string& file : kHashed) {
      if (!fs::exists(account + "/" + file)) continue;
      EXPECT_EQ(check_of(account + "/" + file), "") << file;
      EXPECT_EQ(restored.at(file), static_cast<int>(listed_records(account + "/" + file).size())) << file;
    }
    // The quit took effect at the next file: the save's last was never begun.
    EXPECT_LT(count_of(r.output, "Create "), creates);
  }
}

TEST(Faults, AFailedTapeReadWithNoInputLeftEndsTheSaveEarlyAndSaysWhatWasCut) {
  FaultSandbox box;
  ProgramResult r = box.restore("read:40");
  const std::string dispmsg = slurp(box.account("SALES") + "/dispmsg");
  std::smatch m;
  ASSERT_TRUE(std::regex_search(dispmsg, m,
                                std::regex("The tape ended early: the save has no end block\\. DATA (\\w+) was "
                                           "cut, (\\d+) of its records restored\\.\n$")))
      << dispmsg << r.output;
  EXPECT_EQ(std::stoi(m[2]), static_cast<int>(listed_records(box.account("SALES/") + m[1].str()).size()));
  EXPECT_NE(r.output.find(m[0].str()), std::string::npos);
  EXPECT_NE(r.output.find("REEL_INTAKE is finished!!!"), std::string::npos);
}

TEST(Truncated, ATapeWithoutItsEndSaysItEndedEarlyAndWhichFileWasCut) {
  std::string save = save_text(false);
  save.resize(save.find("item K10100", save.find("file ORDERS")));  // ORDERS is cut after 100 records
  FaultSandbox box(save);
  ProgramResult r = box.restore("");
  const std::string dispmsg = slurp(box.account("SALES") + "/dispmsg");
  const std::string said =
      "The tape ended early: the save has no end block. DATA ORDERS was cut, 100 of its records restored.\n";
  EXPECT_TRUE(dispmsg.ends_with(said)) << dispmsg;
  EXPECT_NE(r.output.find(said), std::string::npos) << r.output;
  EXPECT_EQ(listed_records(box.account("SALES/ORDERS")).size(), 100u);
  EXPECT_EQ(check_of(box.account("SALES/ORDERS")), "");
}

TEST(Paths, AnAbsoluteAccountAndAnAbsoluteTargetHoldTheWholeAccount) {
  Sandbox box(save_text());
  const std::string elsewhere = box.root() + "/elsewhere";
  fs::create_directories(elsewhere);
  fs::create_symlink(box.tape(), elsewhere + "/t.tap");  // the unit is "../t.tap" from the account
  ProgramResult r = box.reel({elsewhere + "/ACC"});
  EXPECT_TRUE(fs::exists(elsewhere + "/SALES/CUST")) << r.output;
  EXPECT_EQ(listed_records(elsewhere + "/SALES/CUST").size(), 900u);
  EXPECT_EQ(slurp(elsewhere + "/SALES/BP/MAIN"), "PRINT 1\nEND\n");
  EXPECT_FALSE(fs::exists(box.run() + "/CUST"));
  EXPECT_FALSE(fs::exists(box.run() + "/SALES"));

  const std::string target = box.root() + "/target";
  r = box.reel({"-T", target, "STAGE"});
  EXPECT_EQ(r.output.find("cannot move"), std::string::npos) << r.output;
  EXPECT_EQ(listed_records(target + "/CUST").size(), 900u) << r.output;
  EXPECT_EQ(listed_records(target + "/D_CUST").size(), listed_records(elsewhere + "/SALES/D_CUST").size());
  for (const char* member : {"BP/MAIN", "BP/NEXT", "NOTES"})
    EXPECT_TRUE(fs::exists(target + "/" + std::string(member))) << member << "\n" << r.output;
  EXPECT_TRUE(fs::exists(target + "/VOC"));
}

TEST(Paths, AnAccountThatCannotBeEnteredEndsTheRunBeforeAnyWrite) {
  Sandbox box(save_text());
  spill(box.run() + "/FILE", "not a directory");
  ProgramResult r = box.reel({"FILE"});
  EXPECT_NE(r.output.find("Can't enter account directory FILE\n"), std::string::npos) << r.output;
  EXPECT_EQ(slurp(box.run() + "/FILE"), "not a directory");
}

}  // namespace
