// Dynamic files restored by REEL_INTAKE from tapes of the project's
// writer, read back through the file library byte for byte: chains whose
// pages arrive out of order, records cut over pages at every kind of
// place, multi-unit pages, large records, the index description, the
// target modulo, and damage with the lines it leaves.

#include <map>

#include "e2e/sandbox.h"
#include "reel/reel_tape_format.h"
#include "reel/reel_tape_writer.h"

namespace {

namespace fs = std::filesystem;

// n letters running on from `first` through its alphabet.
std::string bytes_of(size_t n, char first) {
  const char base = first >= 'a' ? 'a' : 'A';
  std::string s;
  for (size_t i = 0; i < n; ++i) s += static_cast<char>(base + (first - base + i) % 26);
  return s;
}

std::vector<std::string> lines_of(const std::vector<TapeDynRecord>& records) {
  std::vector<std::string> lines;
  for (const TapeDynRecord& r : records) lines.push_back(listed_record(r.key, r.data));
  std::sort(lines.begin(), lines.end());
  return lines;
}

// The records of the file at `path` against `records`, with a short
// account of the first difference.
testing::AssertionResult has_records(const std::string& path, const std::vector<TapeDynRecord>& records) {
  const std::vector<std::string> got = listed_records(path), want = lines_of(records);
  if (got == want) return testing::AssertionSuccess();
  size_t i = 0;
  while (i < got.size() && i < want.size() && got[i] == want[i]) ++i;
  auto shown = [](const std::vector<std::string>& v, size_t i) {
    return i < v.size() ? v[i].substr(0, 100) : std::string("(none)");
  };
  return testing::AssertionFailure() << path << ": " << got.size() << " records, " << want.size()
                                     << " wanted; first difference: " << shown(got, i) << " against "
                                     << shown(want, i);
}

// Size of an in-line page record with a key of `key` bytes and `data` bytes.
size_t record_size(size_t key, size_t data) { return DYN_REC_HEADER + key + key % 2 + data + data % 2; }

const size_t kBody = DYN_PAGE_UNIT - DYN_PAGE_HEAD;  // record bytes of a one-unit page

// A first record of `size` bytes that fills the primary page up to `left`
// bytes, then records that the page end cuts there.
std::vector<TapeDynRecord> tail_case(size_t left) {
  const size_t first = kBody - left;
  return {{"T0", bytes_of(first - record_size(2, 0), 'a')},
          {"NEXT1", bytes_of(300, 'n')},
          {"NEXT22", "after the cut"}};
}

// Files of the main tape, each restored and checked record by record.
std::map<std::string, TapeDynFile> clean_files() {
  std::map<std::string, TapeDynFile> files;
  // Two groups of many records in several overflow pages each; the
  // overflow part holds them the other way round, so most wait in
  // "overflow" for the pass after it.
  TapeDynFile chains{.modulo = 2, .order = TapeDynOrder::kReversed};
  for (int i = 0; i < 60; ++i)
    chains.records.push_back({"C" + std::to_string(100 + i), bytes_of(40 + 7 * i, static_cast<char>('A' + i % 20))});
  chains.records.push_back({"INLINE5000", bytes_of(5000, 'm')});   // in line over three pages
  chains.records.push_back({"INLINE16000", bytes_of(16000, 'w')});  // the longest in line
  files["CHAINS"] = chains;
  // Tails of 0, under 14 and over 14 bytes at the end of the primary page.
  files["TAIL0"] = {.records = tail_case(0)};
  files["TAIL6"] = {.records = tail_case(6)};
  files["TAIL60"] = {.records = tail_case(60)};
  // Pages of two units, blocks that cut them anywhere, overflow pages that
  // wait in two slots each.
  TapeDynFile two{.modulo = 2, .units = 2, .order = TapeDynOrder::kReversed, .room = 3000, .cuts = {5000}};
  for (int i = 0; i < 40; ++i) two.records.push_back({"TWO" + std::to_string(i), bytes_of(200 + 13 * i, 'c')});
  files["TWOUNIT"] = two;
  // Large records in page chains of their own, a free page and the index
  // description.
  TapeDynFile large{.modulo = 2, .free_pages = 1};
  large.records = {{"L60000", bytes_of(60000, 'L'), true},
                   {"L20000", bytes_of(20000, 'l'), true},
                   {"SMALL", "x\xFEy"},
                   {"L16384", bytes_of(16384, 'q'), false},
                   {"LSHORT", "large by choice", true}};
  large.indexes = {{"ORD.DATE", 'D', 3, 'N'}, {"CALC", 'I', 0, 'Y'}};
  files["LARGE"] = large;
  // A 0xFF 0xFE on tape inside a record's data: the end mark looked for is
  // not the end of the records.
  files["MARKS"] = {.records = {{"M1", "before\x7F\x7E" "after"}, {"M2", "still here"}}};
  files["MOD1"] = {.modulo = 1, .records = {{"ONE", "1"}}};
  files["MOD2"] = {.modulo = 2, .records = {{"ONE", "1"}, {"TWO", "2"}}};
  return files;
}

const std::string kKey130 = bytes_of(130, 'k');

std::vector<TapeDynRecord> key_records() {
  return {{"GOOD1", "first"}, {kKey130, "refused"}, {bytes_of(200, 'z'), "wrong"}, {"GOOD2", "second"}};
}

// The main tape: written, restored and analysed once for the suite.
struct MainTape {
  Sandbox box;
  ProgramResult restore;
  ProgramResult analysis;
  int keys_block = 0;  // the block whose records have the refused keys
};
MainTape* main_tape = nullptr;

void write_main_tape(MainTape& t) {
  TapeWriter w;
  auto ok = [&w](int result) { ASSERT_EQ(result, 0) << w.error; };
  ok(reel_writer_open(w, t.box.tape(), {}));
  ok(reel_writer_label(w, {}));
  ok(reel_writer_account(w, {{"SALES", TAPE_OBJECT_DIR}}));
  for (const auto& [name, file] : clean_files()) {
    ok(reel_writer_file(w, {name, TAPE_OBJECT_HASHED}));
    ok(reel_writer_dyn_file(w, file));
  }
  // A dictionary of a dynamic file is a dynamic source too.
  ok(reel_writer_file(w, {"D_LARGE", TAPE_OBJECT_HASHED}));
  ok(reel_writer_dyn_file(w, {.records = {{"@ID", "D\xFE" "0"}}, .third_subfile = true}));

  // Damage. Page 3 of SHIFT starts 10 bytes early, 4 bytes before the
  // end of a block: its head is found in the copy of that block.
  TapeDynFile shift{.modulo = 3, .records = {{"S0", "zero"}, {"S1", "one"}, {"S2", "two"}}};
  shift.cuts = {3 * DYN_PAGE_UNIT - 10 + 4};
  shift.slip_page = 3;
  shift.slip_bytes = 10;
  ok(reel_writer_file(w, {"SHIFT", TAPE_OBJECT_HASHED}));
  ok(reel_writer_dyn_file(w, shift));
  ok(reel_writer_file(w, {"NOMARK", TAPE_OBJECT_HASHED}));
  ok(reel_writer_dyn_file(w, {.modulo = 2, .records = {{"KEPT", "group 0"}, {"LOST", "group 1"}},
                              .unmarked_page = 2}));
  ok(reel_writer_file(w, {"SHORT", TAPE_OBJECT_HASHED}));
  ok(reel_writer_dyn_file(w, {.records = {{"GONE", "x"}}, .cuts = {2000}}));
  ok(reel_writer_file(w, {"KEYS", TAPE_OBJECT_HASHED}));
  t.keys_block = w.next_block_no + 1;  // the primary part's only data block
  ok(reel_writer_dyn_file(w, {.records = key_records()}));
  ok(reel_writer_file(w, {"AFTER", TAPE_OBJECT_HASHED}));
  ok(reel_writer_static_subfile(w, 3, {{"A1", "static after the damage"}}));
  ok(reel_writer_end_save(w));
  ok(reel_writer_close(w));
}

class DynamicRestore : public testing::Test {
 protected:
  static void SetUpTestSuite() {
    main_tape = new MainTape;
    write_main_tape(*main_tape);
    main_tape->restore = main_tape->box.reel({"ACC"});
    main_tape->analysis = main_tape->box.reel({"-A", "plan"});
  }
  static void TearDownTestSuite() {
    delete main_tape;
    main_tape = nullptr;
  }
  static std::string path(const std::string& file) { return main_tape->box.account("SALES") + "/" + file; }
};

TEST_F(DynamicRestore, EveryRecordArrivesWholeInASoundDynamicFile) {
  for (const auto& [name, file] : clean_files()) {
    EXPECT_TRUE(has_records(path(name), file.records)) << main_tape->restore.output;
    EXPECT_NE(info_of(path(name)).find("kind: dynamic"), std::string::npos) << name;
    EXPECT_EQ(check_of(path(name)), "");
  }
  EXPECT_EQ(listed_records(path("D_LARGE")), lines_of({{"@ID", "D\xFE" "0"}}));
  EXPECT_FALSE(fs::exists(path("overflow"))) << "the work file goes with the run";
}

// The target modulo is 1 for a source of one group and otherwise the next
// prime at or above twice the source's; the library makes no dynamic file
// of fewer than 3 groups, so a modulo of 1 comes to 3 on disk.
TEST_F(DynamicRestore, TargetModuloIsTheNextPrimeOfTwiceTheSourcesAndOneStaysOne) {
  EXPECT_NE(main_tape->restore.output.find("Create DATA MOD1 --- 1 \n"), std::string::npos) << main_tape->restore.output;
  EXPECT_NE(main_tape->restore.output.find("Create DATA MOD2 --- 5 \n"), std::string::npos);
  EXPECT_NE(info_of(path("MOD1")).find("\nmodulo: 3\n"), std::string::npos) << info_of(path("MOD1"));
  EXPECT_NE(info_of(path("MOD2")).find("\nmodulo: 5\n"), std::string::npos);
  EXPECT_NE(info_of(path("MOD2")).find("hash type: 64"), std::string::npos);
}

TEST_F(DynamicRestore, TheIndexDescriptionEndsInIdxList) {
  EXPECT_EQ(slurp(path("idx_list")),
            "'LARGE'  2 '('D - 1  I - 1')'\n'    ' 'ORD.DATE' D N 3\n'    ' 'CALC' I Y\n");
}

TEST_F(DynamicRestore, DamageIsReportedAndTheFilesAfterItArriveWhole) {
  const std::string log = slurp(path("dispmsg"));
  EXPECT_EQ(listed_records(path("SHIFT")), lines_of({{"S0", "zero"}, {"S1", "one"}, {"S2", "two"}}));
  EXPECT_NE(log.find("File SHIFT has 1 shift errors\n"), std::string::npos) << log;
  EXPECT_NE(main_tape->restore.output.find("File SHIFT has 1 shift errors\n"), std::string::npos);

  // The page without its mark goes whole to BAD_BLOCKS; the other group stays.
  EXPECT_EQ(listed_records(path("NOMARK")), lines_of({{"KEPT", "group 0"}}));
  EXPECT_NE(log.find("File NOMARK has 1 shift errors\n"), std::string::npos) << log;
  EXPECT_NE(log.find("\tGet data block error: unsolved data block error\n"), std::string::npos) << log;
  const std::string bad = slurp(path("BAD_BLOCKS"));
  EXPECT_EQ(bad.substr(0, 8), "\nNOMARK\n");
  EXPECT_EQ(bad.size(), 8 + kBody + DYN_PAGE_HEAD - 18) << "the page read from 18 bytes on";

  EXPECT_NE(log.find("\tGet sub-file description error: Dyn file header error\n"), std::string::npos) << log;
  EXPECT_FALSE(fs::exists(path("SHORT")));

  const std::string b = "Blkno = " + std::to_string(main_tape->keys_block) + " \tRecord error: ";
  EXPECT_NE(log.find(b + "incompatible key length [130  " + kKey130 + "]\n" + b + "invalid key length [200] \n"),
            std::string::npos)
      << log;
  EXPECT_EQ(listed_records(path("KEYS")), lines_of({{"GOOD1", "first"}, {"GOOD2", "second"}}));
  EXPECT_EQ(listed_records(path("AFTER")), std::vector<std::string>{listed_record("A1", "static after the damage")});
}

// The plan carries a dynamic file's counts as a static one's: records
// refused for their key are not counted.
TEST_F(DynamicRestore, AnAnalysisCountsTheRecordsOfDynamicFiles) {
  const std::string plan = slurp(main_tape->box.run() + "/plan");
  for (const auto& [name, file] : clean_files()) {
    long long keys = 0, data = 0;
    for (const TapeDynRecord& r : file.records) keys += r.key.size(), data += r.data.size();
    const int modulo = file.modulo < 2 ? 1 : file.modulo == 2 ? 5 : 7;
    const std::string tail = ", " + std::to_string(modulo) + ", " + std::to_string(keys) + ", " +
                             std::to_string(data) + ", " + std::to_string(file.records.size()) + "\n";
    EXPECT_NE(plan.find("DATA, " + name + ", "), std::string::npos) << plan;
    EXPECT_NE(plan.find(tail, plan.find("DATA, " + name + ", ")), std::string::npos) << name << "\n" << plan;
  }
  EXPECT_NE(plan.find("DATA, KEYS, 1, 1, 10, 11, 2\n"), std::string::npos) << plan;
}

TEST(DynamicReels, AFileSplitOverTwoReelsArrivesWhole) {
  Sandbox box;
  TapeDynFile file{.modulo = 3, .room = 2048, .cuts = {DYN_FIRST_BLOCK_MIN}, .break_after = 3, .next_reel = box.run() + "/two.tap"};
  for (int i = 0; i < 30; ++i) file.records.push_back({"R" + std::to_string(i), bytes_of(150 + i, 'r')});
  TapeWriter w;
  ASSERT_EQ(reel_writer_open(w, box.run() + "/one.tap", {}), 0);
  ASSERT_EQ(reel_writer_label(w, {.name = "SAVE"}), 0);
  ASSERT_EQ(reel_writer_account(w, {{"SALES", TAPE_OBJECT_DIR}}), 0);
  ASSERT_EQ(reel_writer_file(w, {"SPLIT", TAPE_OBJECT_HASHED}), 0);
  ASSERT_EQ(reel_writer_dyn_file(w, file), 0) << w.error;
  ASSERT_EQ(reel_writer_end_save(w), 0);
  ASSERT_EQ(reel_writer_close(w), 0);
  fs::create_symlink("one.tap", box.tape());

  Child child = box.start({"ACC"});
  ASSERT_TRUE(child.wait_for("Input C to continue next reel . or E to end\n")) << child.output();
  fs::remove(box.tape());
  fs::create_symlink("two.tap", box.tape());
  child.send("C\n");
  EXPECT_EQ(child.finish(), 1) << child.output();
  EXPECT_TRUE(has_records(box.account("SALES") + "/SPLIT", file.records)) << child.output();
  EXPECT_EQ(check_of(box.account("SALES") + "/SPLIT"), "");
}

// -H DYNAMIC1 and a save two levels deep.
TEST(DynamicOptions, HashTypeAndLevel) {
  Sandbox box(
      "tape t.tap\nlabel\naccount TOP SALES\nfile ORDERS hashed\ndynfile modulo=2\n"
      "item A1 'one'\nitem B2 'two'\nlarge C3 repeat=2000 'abc'\nend\n");
  ProgramResult r = box.reel({"-L2", "-H", "DYNAMIC1", "ACC"});
  const std::string file = box.account("SALES") + "/ORDERS";
  EXPECT_EQ(listed_records(file),
            lines_of({{"A1", "one"}, {"B2", "two"}, {"C3", [] {
                                                       std::string s;
                                                       for (int i = 0; i < 2000; ++i) s += "abc";
                                                       return s;
                                                     }()}}))
      << r.output;
  EXPECT_NE(info_of(file).find("hash type: 65"), std::string::npos) << info_of(file);
  EXPECT_EQ(check_of(file), "");

  // -D loads the data into the file the VOC names: the records are written
  // again over themselves.
  ProgramResult again = box.reel({"-L2", "-D", "SALES"});
  EXPECT_NE(again.output.find("Loading DATA ORDERS"), std::string::npos) << again.output;
  EXPECT_EQ(listed_records(file).size(), 3u);
  EXPECT_NE(slurp(box.account("SALES") + "/dispmsg").find("3 records restored\n"), std::string::npos);
  EXPECT_EQ(check_of(file), "");

  // Where the page store cannot be made, the file is passed over.
  fs::create_directories(box.account("SALES") + "/overflow/in the way");
  ProgramResult blocked = box.reel({"-L2", "-D", "SALES"});
  EXPECT_NE(blocked.output.find("open overflow error\n"), std::string::npos) << blocked.output;
  EXPECT_EQ(listed_records(file).size(), 3u);
}

// A save of 200,000 records, half in a static file and half in a dynamic
// one whose groups run over several pages.
TEST(DynamicVolume, TwoHundredThousandRecordsComeBack) {
  Sandbox box;
  std::vector<TapeRecord> fixed;
  TapeDynFile dynamic{.modulo = 1999, .room = 8000};
  std::vector<std::string> fixed_lines, dynamic_lines;
  for (int i = 0; i < 100000; ++i) {
    const std::string key = "K" + std::to_string(1000000 + i);
    const std::string data = "value " + std::to_string(i) + bytes_of(static_cast<size_t>(i % 37), 'v');
    fixed.push_back({key, data});
    dynamic.records.push_back({key, data});
    fixed_lines.push_back(listed_record(key, data));
  }
  std::sort(fixed_lines.begin(), fixed_lines.end());
  TapeWriter w;
  ASSERT_EQ(reel_writer_open(w, box.tape(), {}), 0);
  ASSERT_EQ(reel_writer_label(w, {}), 0);
  ASSERT_EQ(reel_writer_account(w, {{"SALES", TAPE_OBJECT_DIR}}), 0);
  ASSERT_EQ(reel_writer_file(w, {"FIXED", TAPE_OBJECT_HASHED}), 0);
  ASSERT_EQ(reel_writer_static_subfile(w, 997, fixed, 8000), 0);
  ASSERT_EQ(reel_writer_file(w, {"DYNAMIC", TAPE_OBJECT_HASHED}), 0);
  ASSERT_EQ(reel_writer_dyn_file(w, dynamic), 0) << w.error;
  ASSERT_EQ(reel_writer_end_save(w), 0);
  ASSERT_EQ(reel_writer_close(w), 0);
  ProgramResult r = box.reel({"ACC"});
  for (const char* name : {"FIXED", "DYNAMIC"}) {
    const std::string file = box.account("SALES") + "/" + name;
    EXPECT_TRUE(listed_records(file) == fixed_lines) << name << r.output.substr(0, 2000);
    EXPECT_EQ(check_of(file), "");
  }
  const std::string log = slurp(box.account("SALES") + "/dispmsg");
  EXPECT_NE(log.find("100000 records restored\n"), log.rfind("100000 records restored\n")) << log;
}

}  // namespace
