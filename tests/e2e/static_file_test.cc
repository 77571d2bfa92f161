// Static hashed files restored by REEL_INTAKE from tapes of the project's
// writer, read back through the file library byte for byte: records cut by
// block ends at every awkward place, the modulo, keys that need the flip,
// a record machine that carries over into the next sub-file, and damage.
#include <functional>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "e2e/sandbox.h"
#include "reel/reel_tape_format.h"
#include "reel/reel_tape_writer.h"

namespace {

std::string bytes_of(size_t n, char first) {
  std::string s;
  for (size_t i = 0; i < n; ++i) s += static_cast<char>(first + i % 26);
  return s;
}

// Records of every shape: an odd key (with its pad) and odd chunks, marks
// in the data, an empty record, a record of several chunks, an even key.
const std::vector<TapeRecord> kRecords = {
    {"ALPHA", bytes_of(300, 'a')},
    {"BETA", "x\xFEy\xFDz\xFCw\xFB"},
    {"C", ""},
    {"DELTA1", bytes_of(600, 'A')},
    {"EE", "last one"},
};

// Where each record starts in the sub-file's stream.
std::vector<size_t> offsets(const std::vector<TapeRecord>& records) {
  std::vector<size_t> at;
  std::vector<unsigned char> stream;
  for (const TapeRecord& r : records) {
    at.push_back(stream.size());
    tape_encode_static_record(stream, r.key, r.data, CHUNK_MAX, r.open_end);
  }
  at.push_back(stream.size());
  return at;
}

std::vector<std::string> lines_of(const std::vector<TapeRecord>& records) {
  std::vector<std::string> lines;
  for (const TapeRecord& r : records) lines.push_back(listed_record(r.key, r.data));
  std::sort(lines.begin(), lines.end());
  return lines;
}

// A file of one static sub-file whose stream is cut after `cuts` bytes,
// then in blocks of `room` bytes.
struct CutCase {
  const char* file;
  std::vector<TapeRecord> records;
  std::vector<size_t> cuts;
  size_t room;
};

std::vector<CutCase> cut_cases() {
  const std::vector<size_t> at = offsets(kRecords);
  std::vector<TapeRecord> open = kRecords;
  open[1].open_end = true;  // BETA ends where C's size bytes begin
  const std::vector<size_t> open_at = offsets(open);
  return {
      {"HEADER2", kRecords, {at[1] + 2}, 1024},
      {"KEYCUT", kRecords, {at[3] + RECORD_HEADER_SIZE + 2}, 1024},
      {"KEYEND", kRecords, {at[3] + RECORD_HEADER_SIZE + 6}, 1024},
      {"CHUNKCUT", kRecords, {at[0] + RECORD_HEADER_SIZE + 6 + CHUNK_HEADER_SIZE + 100}, 1024},
      {"LASTCHUNK", kRecords, {at[2] - CHUNK_HEADER_SIZE}, 1024},
      {"OPENEND", open, {open_at[2]}, 1024},
      // Small blocks cut everything everywhere, each at another phase.
      {"ROOM22", kRecords, {}, 22},
      {"ROOM30", kRecords, {}, 30},
      {"ROOM46", kRecords, {}, 46},
  };
}

void check(int result, const TapeWriter& w) { ASSERT_EQ(result, 0) << w.error; }

// Writes a tape of account SALES with the files `body` writes.
void write_tape(const Sandbox& box, const std::function<void(TapeWriter&)>& body) {
  TapeWriter w;
  check(reel_writer_open(w, box.tape(), {}), w);
  check(reel_writer_label(w, {}), w);
  check(reel_writer_account(w, {{"SALES", TAPE_OBJECT_DIR}}), w);
  body(w);
  check(reel_writer_end_save(w), w);
  check(reel_writer_close(w), w);
}

void hashed_file(TapeWriter& w, const char* name) {
  check(reel_writer_file(w, {name, TAPE_OBJECT_HASHED}), w);
}
void subfile_stream(TapeWriter& w, uint16_t modulo, const std::vector<unsigned char>& stream,
                    const std::vector<size_t>& cuts, size_t room) {
  check(reel_writer_sub(w, {{"", TAPE_OBJECT_SAM}}), w);
  check(reel_writer_stream(w, modulo, stream, cuts, room), w);
}

std::string modulo_of(const std::string& path) {
  ProgramResult r = run_program({.program = "mrvfile", .args = {"info", path}});
  size_t at = r.output.find("modulo: ");
  return at == std::string::npos ? r.output : r.output.substr(at + 8, r.output.find('\n', at) - at - 8);
}

TEST(StaticRestore, RecordsCutAtEveryAwkwardPlaceArriveWhole) {
  Sandbox box;
  const std::vector<CutCase> cases = cut_cases();
  write_tape(box, [&](TapeWriter& w) {
    for (const CutCase& c : cases) {
      hashed_file(w, c.file);
      subfile_stream(w, 3, reel_static_stream(c.records), c.cuts, c.room);
    }
  });
  ProgramResult r = box.reel({"ACC"});
  for (const CutCase& c : cases) {
    const std::string path = box.account("SALES") + "/" + c.file;
    EXPECT_EQ(listed_records(path), lines_of(c.records)) << c.file << "\n" << r.output;
    ProgramResult checked = run_program({.program = "mrvfile", .args = {"check", path}});
    EXPECT_EQ(checked.status, 0) << c.file << checked.output;
  }
  EXPECT_EQ(slurp(box.account("SALES") + "/dispmsg").find("Blkno"), std::string::npos);
}

// The modulo of an empty file comes from offset 10, of a file whose
// offset 10 holds 0 from its first block's length; a key byte 0x80 on
// tape is a zero byte in the key.
TEST(StaticRestore, ModuloFromTheFirstSubfileAndTheFlipOfKeys) {
  Sandbox box;
  const std::vector<TapeRecord> zero_key = {{std::string("K\0Y", 3), "zero in key"},
                                            {"PAD", std::string(1200, 'p')}};
  write_tape(box, [&](TapeWriter& w) {
    hashed_file(w, "EMPTY");
    subfile_stream(w, 10, reel_static_stream({}), {}, 1024);  // becomes 11
    hashed_file(w, "NOMOD");
    subfile_stream(w, 0, reel_static_stream(zero_key), {}, 1024);  // a block of 1036 bytes
  });
  ProgramResult r = box.reel({"ACC"});
  const std::string account = box.account("SALES");
  EXPECT_EQ(listed_records(account + "/EMPTY"), std::vector<std::string>{}) << r.output;
  EXPECT_EQ(modulo_of(account + "/EMPTY"), "11");
  EXPECT_EQ(modulo_of(account + "/NOMOD"), "2");
  EXPECT_EQ(listed_records(account + "/NOMOD"), lines_of(zero_key));
  EXPECT_NE(slurp(account + "/dispmsg").find("0 records restored\n"), std::string::npos);
}

// A sub-file that ends inside a record leaves the machine in that phase:
// the next sub-file's first record finishes it (same key length) and is
// passed over by its size; the rest of that sub-file arrives.
TEST(StaticRestore, ThePhaseOfTheMachineCarriesIntoTheNextSubfile) {
  Sandbox box;
  TapeRecord open_first{"ONE", bytes_of(40, 'a'), true};
  const std::vector<TapeRecord> second = {{"TWO", "swallowed"}, {"THREE", "arrives"}};
  write_tape(box, [&](TapeWriter& w) {
    hashed_file(w, "CARRY");
    subfile_stream(w, 3, reel_static_stream({open_first}, CHUNK_MAX, false), {}, 1024);
    subfile_stream(w, 3, reel_static_stream(second), {}, 1024);
  });
  ProgramResult r = box.reel({"ACC"});
  EXPECT_EQ(listed_records(box.account("SALES") + "/CARRY"),
            lines_of({{"ONE", open_first.data}, {"THREE", "arrives"}}))
      << r.output;
}

// Damage: a size at or over 0x80000 drops the rest of its block; keys of
// 127 to 188 and above are refused; everything else of the file arrives.
TEST(StaticRestore, DamagedRecordsAreLoggedAndTheRestArrives) {
  Sandbox box;
  const std::string long_key = bytes_of(130, 'k');
  const std::vector<TapeRecord> records = {
      {"GOOD1", "first"},
      {"BIG", "claims too much", false, RECORD_SIZE_LIMIT / 2},
      {"GOOD2", "second"},
      {long_key, "refused"},
      {bytes_of(200, 'z'), "refused too"},
      {"GOOD3", "third"},
  };
  const std::vector<size_t> at = offsets(records);
  uint16_t first_block = 0;
  write_tape(box, [&](TapeWriter& w) {
    hashed_file(w, "DAMAGED");
    check(reel_writer_sub(w, {{"", TAPE_OBJECT_SAM}}), w);
    first_block = w.next_block_no;
    // The bad size ends the first block; the second starts at GOOD2.
    check(reel_writer_stream(w, 3, reel_static_stream(records), {at[2]}, 1024), w);
  });
  ProgramResult r = box.reel({"ACC"});
  EXPECT_EQ(listed_records(box.account("SALES") + "/DAMAGED"),
            lines_of({records[0], records[2], records[5]}))
      << r.output;
  const std::string b1 = "Blkno = " + std::to_string(first_block) + " \t";
  const std::string b2 = "Blkno = " + std::to_string(first_block + 1) + " \t";
  EXPECT_NE(slurp(box.account("SALES") + "/dispmsg")
                .find(b1 + "Record error: invalid record size[524288] \n" + b2 +
                      "Record error: incompatible key length [130  " + long_key.substr(0, 128) +
                      "...]\n" + b2 + "Record error: invalid key length [200] \n"),
            std::string::npos)
      << slurp(box.account("SALES") + "/dispmsg");
}

// An analysis counts every record, refused ones too, and suggests a modulo
// from the counts: 300 records of 4-byte keys and 100 bytes of data fill
// 34 blocks of 989 usable bytes; 1 + 1.1 * 34 is 38, whose next prime is 41.
TEST(StaticRestore, AnAnalysisPlansTheRealCounts) {
  Sandbox box;
  std::vector<TapeRecord> many;
  for (int i = 0; i < 300; ++i) {
    char key[8];
    std::snprintf(key, sizeof key, "R%03d", i);
    many.push_back({key, std::string(100, 'd')});
  }
  write_tape(box, [&](TapeWriter& w) {
    hashed_file(w, "BIG");
    subfile_stream(w, 3, reel_static_stream(many), {}, 1024);
    hashed_file(w, "D_BIG");
    subfile_stream(w, 1, reel_static_stream({{"@ID", "D"}, {bytes_of(130, 'k'), "x"}}), {}, 1024);
  });
  ProgramResult r = box.reel({"-A", "plan"});
  EXPECT_EQ(slurp(box.run() + "/plan"),
            "DATA, BIG, 41, 3, 1200, 30000, 300\n"
            "DICT, BIG, 1, 1, 133, 2, 2\n")
      << r.output;
}

}  // namespace
