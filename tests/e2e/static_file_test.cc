// Static hashed files restored by REEL_INTAKE from one tape of the
// project's writer, read back through the file library byte for byte:
// records cut by block ends at every awkward place, the modulo, the key
// flip, a machine that carries over into the next sub-file, and damage.

#include "e2e/sandbox.h"
#include "reel/reel_tape_format.h"
#include "reel/reel_tape_writer.h"

namespace {

std::string bytes_of(size_t n, char first) {
  std::string s;
  for (size_t i = 0; i < n; ++i) s += static_cast<char>(first + i % 26);
  return s;
}

// An odd key (with its pad) and odd chunks, marks in the data, an empty
// record, a record of several chunks, an even key.
const std::vector<TapeRecord> kRecords = {{"ALPHA", bytes_of(300, 'a')},
                                          {"BETA", "x\xFEy\xFDz\xFCw\xFB"},
                                          {"C", ""},
                                          {"DELTA1", bytes_of(600, 'A')},
                                          {"EE", "last one"}};
const std::string kLongKey = bytes_of(130, 'k');
const std::vector<TapeRecord> kDamaged = {
    {"GOOD1", "first"},        {"BIG", "claims too much", false, RECORD_SIZE_LIMIT / 2},
    {"GOOD2", "second"},       {kLongKey, "refused"},
    {bytes_of(200, 'z'), "x"}, {"GOOD3", "third"}};

// Where each record starts in a sub-file's stream, and where the last ends.
std::vector<size_t> offsets(const std::vector<TapeRecord>& records) {
  std::vector<size_t> at{0};
  std::vector<unsigned char> stream;
  for (const TapeRecord& r : records) {
    tape_encode_static_record(stream, r.key, r.data, CHUNK_MAX, r.open_end);
    at.push_back(stream.size());
  }
  return at;
}

std::vector<std::string> lines_of(const std::vector<TapeRecord>& records) {
  std::vector<std::string> lines;
  for (const TapeRecord& r : records) lines.push_back(listed_record(r.key, r.data));
  std::sort(lines.begin(), lines.end());
  return lines;
}

struct CutCase {
  const char* file;
  std::vector<TapeRecord> records;
  std::vector<size_t> cuts;  // bytes of the stream in the first blocks
  size_t room;               // then blocks of this many
};

std::vector<CutCase> cut_cases() {
  const std::vector<size_t> at = offsets(kRecords);
  std::vector<TapeRecord> many;
  for (int i = 0; i < 300; ++i)
    many.push_back({"R" + std::to_string(1000 + i).substr(1), bytes_of(100, 'd')});
  std::vector<TapeRecord> open = kRecords;
  open[1].open_end = true;  // BETA is ended by C's size bytes
  return {
      {"HEADER2", kRecords, {at[1] + 2}, 1024},
      {"KEYCUT", kRecords, {at[3] + RECORD_HEADER_SIZE + 2}, 1024},
      {"KEYEND", kRecords, {at[3] + RECORD_HEADER_SIZE + 6}, 1024},
      {"CHUNKCUT", kRecords, {at[0] + RECORD_HEADER_SIZE + 6 + CHUNK_HEADER_SIZE + 100}, 1024},
      {"LASTCHUNK", kRecords, {at[2] - CHUNK_HEADER_SIZE}, 1024},
      {"OPENEND", open, {offsets(open)[2]}, 1024},
      {"ROOM22", kRecords, {}, 22},  // small blocks cut everything, each at another phase
      {"ROOM30", kRecords, {}, 30},
      {"ROOM46", kRecords, {}, 46},
      {"MANY", many, {}, 1024},
  };
}

class StaticRestore : public testing::Test {
 protected:
  // One tape for the suite, restored once and analysed once.
  static void SetUpTestSuite() {
    box_ = new Sandbox;
    TapeWriter w;
    auto ok = [&w](int result) { ASSERT_EQ(result, 0) << w.error; };
    auto subfile = [&](uint16_t modulo, const std::vector<unsigned char>& stream,
                       const std::vector<size_t>& cuts, size_t room) {
      ok(reel_writer_sub(w, {{"", TAPE_OBJECT_SAM}}));
      ok(reel_writer_stream(w, modulo, stream, cuts, room));
    };
    auto file = [&](const char* name) { ok(reel_writer_file(w, {name, TAPE_OBJECT_HASHED})); };
    ok(reel_writer_open(w, box_->tape(), {}));
    ok(reel_writer_label(w, {}));
    ok(reel_writer_account(w, {{"SALES", TAPE_OBJECT_DIR}}));
    for (const CutCase& c : cut_cases()) {
      file(c.file);
      subfile(3, reel_static_stream(c.records), c.cuts, c.room);
    }
    // A direct sub-file after the first is passed with its data.
    ok(reel_writer_sub(w, {{"", TAPE_OBJECT_DAM}}));
    ok(reel_writer_stream(w, 3, reel_static_stream({{"GHOST", "never read"}}), {}, 1024));
    file("EMPTY");
    subfile(10, reel_static_stream({}), {}, 1024);  // modulo 11
    file("NOMOD");  // offset 10 holds 0; the first block has 1036 bytes
    subfile(0,
            reel_static_stream({{std::string("K\0Y", 3), "zero"}, {"PAD", std::string(1200, 'p')}}),
            {}, 1024);
    file("CARRY");  // the first sub-file ends inside ONE, whose last chunk ends its block
    subfile(3, reel_static_stream({{"ONE", "first", true}}, CHUNK_MAX, false), {}, 1024);
    subfile(3, reel_static_stream({{"TWO", "swallowed"}, {"THREE", "arrives"}}), {}, 1024);
    file("DAMAGED");  // the bad size ends the first block; the second starts at GOOD2
    damaged_block_ = w.next_block_no + 1;
    subfile(3, reel_static_stream(kDamaged), {offsets(kDamaged)[2]}, 1024);
    ok(reel_writer_end_save(w));
    ok(reel_writer_close(w));
    restore_ = new ProgramResult(box_->reel({"ACC"}));
    analysis_ = new ProgramResult(box_->reel({"-A", "plan"}));
  }
  static void TearDownTestSuite() {
    delete restore_;
    delete analysis_;
    delete box_;
  }
  static std::string path(const std::string& file) { return box_->account("SALES") + "/" + file; }

  static Sandbox* box_;
  static ProgramResult* restore_;
  static ProgramResult* analysis_;
  static int damaged_block_;
};
Sandbox* StaticRestore::box_ = nullptr;
ProgramResult* StaticRestore::restore_ = nullptr;
ProgramResult* StaticRestore::analysis_ = nullptr;
int StaticRestore::damaged_block_ = 0;

TEST_F(StaticRestore, RecordsCutAtEveryAwkwardPlaceArriveWhole) {
  for (const CutCase& c : cut_cases()) {
    EXPECT_EQ(listed_records(path(c.file)), lines_of(c.records)) << c.file << restore_->output;
    EXPECT_EQ(check_of(path(c.file)), "") << c.file;
  }
}

TEST_F(StaticRestore, ModuloFromTheFirstSubfileAndAZeroByteInAKey) {
  auto modulo = [](const std::string& file) {
    return info_of(path(file)).find("\nmodulo: " + std::string(file == "EMPTY" ? "11" : "2") + "\n");
  };
  EXPECT_EQ(listed_records(path("EMPTY")), std::vector<std::string>{});
  EXPECT_NE(modulo("EMPTY"), std::string::npos);
  EXPECT_NE(modulo("NOMOD"), std::string::npos);
  EXPECT_EQ(listed_records(path("NOMOD")),
            lines_of({{std::string("K\0Y", 3), "zero"}, {"PAD", std::string(1200, 'p')}}));
}

// The open record is finished by the next sub-file's first record (of the
// same key length), which its size then passes over.
TEST_F(StaticRestore, ThePhaseOfTheMachineCarriesIntoTheNextSubfile) {
  EXPECT_EQ(listed_records(path("CARRY")), lines_of({{"ONE", "first"}, {"THREE", "arrives"}}));
}

TEST_F(StaticRestore, DamagedRecordsAreLoggedAndTheRestArrives) {
  EXPECT_EQ(listed_records(path("DAMAGED")), lines_of({kDamaged[0], kDamaged[2], kDamaged[5]}));
  const std::string b1 = "Blkno = " + std::to_string(damaged_block_) + " \tRecord error: ";
  const std::string b2 = "Blkno = " + std::to_string(damaged_block_ + 1) + " \tRecord error: ";
  const std::string log = slurp(path("dispmsg"));
  EXPECT_NE(
      log.find(b1 + "invalid record size[524288] \n" + b2 + "incompatible key length [130  " +
               kLongKey.substr(0, 128) + "...]\n" + b2 + "invalid key length [200] \n3 records"),
      std::string::npos)
      << log;
  EXPECT_EQ(count_of(log, "Blkno"), 3u) << "no other damage reported";
}

// An analysis counts refused records too, and suggests a modulo from the
// counts, never below the tape's: MANY's 300 records of 4-byte keys and
// 100 bytes of data fill 34 blocks of 989 usable bytes; 1 + 1.1 * 34 is
// 38, whose next prime is 41.
TEST_F(StaticRestore, AnAnalysisPlansTheRealCounts) {
  const std::string plan = slurp(box_->run() + "/plan");
  EXPECT_NE(plan.find("DATA, ROOM46, 3, 3, 18, 916, 5\nDATA, MANY, 41, 3, 1200, 30000, 300\n"
                      "DATA, EMPTY, 11, 11, 0, 0, 0\nDATA, NOMOD, 2, 2, 6, 1204, 2\n"
                      "DATA, CARRY, 3, 3, 8, 12, 2\nDATA, DAMAGED, 3, 3, 345, 24, 5\n"),
            std::string::npos)
      << plan << analysis_->output;
}

}  // namespace
