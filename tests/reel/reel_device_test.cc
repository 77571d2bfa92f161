// Logical reads over tapes made by the tape writer: block numbering, short
// blocks, labels and reel changes, the packed transports and -M.

#include "reel/reel_current.h"
#include "reel/reel_tape_format.h"
#include "reel/reel_tape_writer.h"
#include "reel/reel_util.h"
#include "reel/tape_child.h"

namespace {

using tape_test::count_of;
using tape_test::make_tape;
using tape_test::open_unit_in;
using tape_test::ReadRun;
using tape_test::scratch;
using tape_test::TapeChild;
using tape_test::unit_dir;

// The child's body: opens the unit in `dir` and prints every block that
// reel_next_block hands out, up to the end-of-save block.
std::function<void()> reader(const std::string& dir, ReadRun run = {}) {
  return [dir, run] {
    std::vector<unsigned char> buffer = open_unit_in(dir, run);
    for (int i = 0; i < 100; ++i) {
      int32_t n = reel_next_block(buffer.data());
      std::printf("[block %d len %d type %d]\n", tape_block_no(buffer.data()), n,
                  tape_block_type(buffer.data()));
      std::fflush(stdout);
      if (tape_block_type(buffer.data()) == TAPE_BLOCK_END) return;
    }
  };
}

// Numbers of the blocks a reader printed, in order.
std::vector<int> numbers(const std::string& output) {
  std::vector<int> out;
  for (size_t at = output.find("[block "); at != std::string::npos;
       at = output.find("[block ", at + 1))
    out.push_back(std::atoi(output.c_str() + at + 7));
  return out;
}

std::string label_and(const std::string& dir, const std::string& blocks) {
  return "tape " + dir + "/t.tap\nlabel no=1 name=ACCT\n" + blocks + "end\n";
}

// Block number and length checks: the blocks handed out and the lines
// left in dispmsg.
struct BlockCase {
  const char* name;
  const char* blocks;
  std::vector<int> handed_out;
  const char* logged;
};

class BlockChecks : public testing::TestWithParam<BlockCase> {};

TEST_P(BlockChecks, HandOutAndLog) {
  const BlockCase& c = GetParam();
  std::string dir = unit_dir(std::string("checks_") + c.name);
  make_tape(label_and(dir, c.blocks));
  TapeChild child(reader(dir));
  EXPECT_EQ(child.finish(), 0) << child.output();
  EXPECT_EQ(numbers(child.output()), c.handed_out);
  EXPECT_EQ(slurp(dir + "/dispmsg"), c.logged);
}

INSTANTIATE_TEST_SUITE_P(
    Numbers, BlockChecks,
    testing::Values(
        // 65534 after a label is a gap, logged under the label's 0; from
        // there 65535, 0, 1 pass, and the second 1 is dropped without a word.
        BlockCase{"wrap",
                  "number 65534\nblock data 'a'\nblock data 'b'\nblock data 'c'\n"
                  "block data 'd'\nblock data no=1 'again'\nblock data 'e'\n",
                  {65535, 0, 1, 2, 3},
                  "Blkno = 0 \tphysical read tape error block No. error\n"},
        // 5 then 7: the line names 5, the last block accepted.
        BlockCase{"gap",
                  "block data '1'\nblock data '2'\nblock data '3'\nblock data '4'\n"
                  "block data '5'\nnumber 7\nblock data '7'\nblock data '8'\n",
                  {1, 2, 3, 4, 5, 8, 9},
                  "Blkno = 5 \tphysical read tape error block No. error\n"},
        BlockCase{"short",
                  "block data 'ok'\nblock data words=40 'claims 80 bytes'\nraw hex:0003\n"
                  "block data no=3 'fine'\n",
                  {1, 3, 4},
                  "Blkno = 2 \tphysical read tape error block length < len\n"
                  "Blkno = 2 \tphysical read tape error block length < 6\n"}),
    [](const testing::TestParamInfo<BlockCase>& info) { return std::string(info.param.name); });

TEST(ReelNextBlock, OnlyCapitalAnswersCountAtTheEndOfAReel) {
  std::string dir = unit_dir("answers");
  make_tape("tape " + dir + "/t.tap\nlabel no=1\nblock data 'x'\n");
  TapeChild child(reader(dir));
  ASSERT_TRUE(child.wait_for("\nGet EOF mark.Please load on next reel.\n"
                             "Input C to continue next reel . or E to end\n"));
  child.send("c\ne\nx\nE\n");
  EXPECT_EQ(child.finish(), 1);
  EXPECT_EQ(count_of(child.output(), "Input C to continue"), 1u);
  EXPECT_NE(child.output().find("REEL_INTAKE is finished"), std::string::npos);
}

// Two reels read end to end: the operator swaps the medium behind the
// device name at the prompt and answers C.
class TwoReels : public testing::TestWithParam<std::string> {};

TEST_P(TwoReels, NextReelIsAskedForAndTheStreamContinues) {
  const std::string framing = GetParam();
  std::string dir = unit_dir("reels_" + framing);
  make_tape("framing " + framing + "\nconvert 2\n"
            "tape " + dir + "/one.tap\nlabel no=1 name=ACCT date=03-17-92 rev=2\n"
            "block description \"FILE\"\nblock data zeros:600 'x'\nblock data 'y'\n"
            "tape " + dir + "/two.tap\nlabel\nblock data 'z'\nend\n");
  std::filesystem::create_symlink("one.tap", dir + "/t.tap");
  TapeChild child(reader(dir, {.convert = '2', .buffered = framing == "buffered",
                               .cartridge = framing == "cartridge"}));
  ASSERT_TRUE(child.wait_for("TAPE NAME:           ACCT\nDATE(MM-DD-YY):      03-17-92\n"
                             "REV NO:              2\n\n"));
  ASSERT_TRUE(child.wait_for("Input C to continue next reel . or E to end\n"));
  std::filesystem::remove(dir + "/t.tap");
  std::filesystem::create_symlink("two.tap", dir + "/t.tap");
  child.send("C\n");
  ASSERT_TRUE(child.wait_for("\nLOGICAL TAPE NUMBER: 2\nTAPE NAME:           ACCT\n"));
  EXPECT_EQ(child.finish(), 0) << child.output();
  EXPECT_EQ(numbers(child.output()), (std::vector<int>{1, 2, 3, 1, 2}));
  EXPECT_NE(child.output().find("[block 2 len 608 type 1]"), std::string::npos);
  EXPECT_EQ(slurp(dir + "/dispmsg"), "");
}

INSTANTIATE_TEST_SUITE_P(Framings, TwoReels, testing::Values("plain", "buffered", "cartridge"));

TEST(ReelReadLabel, WrongReelIsRefusedAndChangesNothing) {
  std::string dir = unit_dir("labels");
  make_tape("tape " + dir + "/one.tap\nlabel no=1 name=ACCT\nblock data 'a'\n"
            "tape " + dir + "/bad1.tap\nlabel no=2 name=OTHER\nblock data 'b'\n"
            "tape " + dir + "/bad2.tap\nlabel no=3 name=OTHER\nblock data 'c'\n"
            "tape " + dir + "/two.tap\nlabel no=2 name=ACCT\nblock data 'd'\nend\n");
  auto mount = [&](const char* reel) {
    std::filesystem::remove(dir + "/t.tap");
    std::filesystem::create_symlink(reel, dir + "/t.tap");
  };
  mount("one.tap");
  TapeChild child(reader(dir));
  ASSERT_TRUE(child.wait_for("Input C to continue next reel"));
  mount("bad1.tap");
  child.send("C\n");
  ASSERT_TRUE(child.wait_for("please load on new reel\nInput C to continue. or E to end\n"));
  mount("bad2.tap");
  child.send("C\n");
  // Had the refused label been taken, reel 3 would be right by number.
  ASSERT_TRUE(child.wait_for("Incorrect tape, expect reel No. 2\n"
                             "Incorrect tape, expect reel name ACCT\n"
                             "please load on new reel\n"));
  mount("two.tap");
  child.send("C\n");
  EXPECT_EQ(child.finish(), 0) << child.output();
  EXPECT_EQ(count_of(child.output(), "Incorrect tape"), 3u);
  EXPECT_EQ(count_of(child.output(), "Incorrect tape, expect reel name ACCT"), 2u);
  EXPECT_EQ(numbers(child.output()), (std::vector<int>{1, 1, 2}));
}

TEST(ReelNextBlock, ReadFaultAsksTheOperator) {
  std::string dir = unit_dir("fault");
  make_tape("tape " + dir + "/t.tap\nlabel no=1\nblock data 'a'\nblock data 'b'\n");
  // Cut the image inside its second data record.
  std::filesystem::resize_file(dir + "/t.tap", std::filesystem::file_size(dir + "/t.tap") - 8);
  TapeChild child(reader(dir));
  ASSERT_TRUE(child.wait_for("\nRead tape error.Please check the tape drive.\n"
                             "Input C to continue next reel . or E to end\n"));
  child.send("E\n");
  EXPECT_EQ(child.finish(), 1);
  EXPECT_EQ(numbers(child.output()), (std::vector<int>{1}));
}

// -G B and unit 9: a header whose length field is 0 reads as a tape mark.
TEST(ReelTransports, ZeroLengthHeaderIsAFilemark) {
  for (const char* kind : {"buffered", "stream"}) {
    SCOPED_TRACE(kind);
    bool stream = std::string(kind) == "stream";
    std::string dir = unit_dir(std::string("zero_") + kind,
                               stream ? "9 s.dat rs.dat 8192" : "0 s.dat rs.dat 8192");
    make_tape(std::string("framing ") + kind + "\ntape " + dir +
              "/s.dat\nblock data 'a'\nblock data 'b'\nraw hex:000300000001\nblock data 'd'\n");
    TapeChild child(reader(dir, {.unit = stream ? '9' : '0', .buffered = !stream}));
    ASSERT_TRUE(child.wait_for("\nGet EOF mark."));
    child.send("E\n");
    EXPECT_EQ(child.finish(), 1);
    EXPECT_EQ(numbers(child.output()), (std::vector<int>{1, 2}));
  }
}

// Frames written by hand: payload counts at and beyond their limits.
void write_frames(const std::string& path, const std::vector<std::vector<unsigned char>>& frames) {
  TapeWriter w;
  TapeWriterOptions options;
  options.framing = TapeFraming::kCartridge;
  ASSERT_EQ(reel_writer_open(w, path, options), 0) << w.error;
  for (const auto& f : frames) ASSERT_EQ(reel_writer_raw(w, f.data(), f.size()), 0);
  ASSERT_EQ(reel_writer_close(w), 0);
}

std::vector<unsigned char> frame(uint16_t payload, uint16_t number, uint16_t block_length) {
  std::vector<unsigned char> f(CARTRIDGE_FRAME, 0);
  tape_put_u16(f.data() + CARTRIDGE_OFF_COUNT, payload);
  if (payload >= TAPE_HEADER_SIZE) tape_put_header(f.data() + CARTRIDGE_OFF_PAYLOAD, number, block_length, 1);
  return f;
}

TEST(ReelTransports, CartridgePayloadLimits) {
  std::string dir = unit_dir("frames", "0 c.dat rc.dat 8192");
  // Block 1 fills two frames of 508; block 2's second frame claims 509.
  write_frames(dir + "/c.dat", {frame(508, 1, 1016), frame(508, 0, 0), frame(508, 2, 1016),
                                frame(509, 0, 0)});
  const ReadRun run{.cartridge = true};
  TapeChild child(reader(dir, run));
  ASSERT_TRUE(child.wait_for("logical read tape error len = 509\n"));
  ASSERT_TRUE(child.wait_for("Input C to continue next reel"));
  child.send("E\n");
  EXPECT_EQ(child.finish(), 1);
  EXPECT_NE(child.output().find("[block 1 len 1016 type 1]"), std::string::npos);
  // E ended the save before its end: the log says so after the fault.
  EXPECT_EQ(slurp(dir + "/dispmsg"),
            "Blkno = 2 \tphysical read tape error block length < len\n"
            "The tape ended early: the save has no end block.\n");

  write_frames(dir + "/c.dat", {frame(5, 1, 6)});
  TapeChild first(reader(dir, run));
  ASSERT_TRUE(first.wait_for("logical read tape error len = 5\n\nGet EOF mark."));
  first.send("E\n");
  EXPECT_EQ(first.finish(), 1);
}

// The label file is passed with plain reads whatever the transport and
// -M: records behind the label that would parse as blocks (a label, a block
// longer than the buffer) are never looked at.
TEST(ReelReadLabel, LabelFileIsPassedWithoutParsing) {
  std::string dir = unit_dir("label_file");
  TapeWriter w;
  TapeWriterOptions options;
  options.framing = TapeFraming::kBuffered;
  options.convert_mode = '2';
  ASSERT_EQ(reel_writer_open(w, dir + "/t.tap", options), 0) << w.error;
  TapeLabel label;
  label.tape_no = 1;
  std::vector<unsigned char> another_label(LABEL_SIZE, 0);
  tape_put_header(another_label.data(), 0, LABEL_SIZE, TAPE_BLOCK_LABEL ^ 0x80);
  std::vector<unsigned char> too_long(64, 0);
  tape_put_header(too_long.data(), 1 ^ 0x8080, 0xFFF0, TAPE_BLOCK_DATA ^ 0x80);
  ASSERT_EQ(reel_writer_label(w, label, {another_label, too_long}), 0);
  auto text = reel_tape_text("data");
  ASSERT_EQ(reel_writer_block(w, TAPE_BLOCK_DATA, text.data(), text.size()), 0);
  ASSERT_EQ(reel_writer_end_save(w), 0);
  ASSERT_EQ(reel_writer_close(w), 0);
  TapeChild child(reader(dir, {.convert = '2', .buffered = true}));
  EXPECT_EQ(child.finish(), 0) << child.output();
  EXPECT_EQ(count_of(child.output(), "LOGICAL TAPE NUMBER"), 1u);
  EXPECT_EQ(numbers(child.output()), (std::vector<int>{1, 2}));
}

// A label read from a plain file passes the whole file; reopening it must
// not start over, or a label numbered 0 (which never counts as a reel)
// would be read again and again.
TEST(ReelReadLabel, PassedLabelFileIsNotReadAgain) {
  std::string dir = unit_dir("label_zero", "0 s.dat rs.dat 8192");
  make_tape("framing buffered\ntape " + dir + "/s.dat\n"
            "raw hex:0000000c00048000b0b1b0b1b9b200000000a0a0a0a0a0a0\nblock data 'a'\n");
  TapeChild child(reader(dir, {.buffered = true}));
  ASSERT_TRUE(child.wait_for("\nGet EOF mark."));
  child.send("E\n");
  EXPECT_EQ(child.finish(), 1);
  EXPECT_EQ(count_of(child.output(), "LOGICAL TAPE NUMBER: 0\n"), 1u);
}

TEST(ReelOpenDevice, RetriesAfterTheOperatorsC) {
  std::string dir = unit_dir("late", "0 late.tap rlate.tap 8192");
  TapeChild child(reader(dir));
  ASSERT_TRUE(child.wait_for("Tape late.tap open error\nPlease check tape drive and input C to continue"));
  make_tape("tape " + dir + "/late.tap\nlabel\nend\n");
  child.send("x\nC\n");
  EXPECT_EQ(child.finish(), 0) << child.output();
  EXPECT_EQ(count_of(child.output(), "open error"), 1u);
  EXPECT_EQ(numbers(child.output()), (std::vector<int>{1}));
}

TEST(ReelSkipBlocks, StopsAtTheFirstBlockThatIsNotPassedOver) {
  std::string dir = unit_dir("skip");
  make_tape(label_and(dir, "block data 'a'\nblock data 'b'\nblock description zeros:144\n"
                           "block data 'c'\nblock description zeros:96\n"
                           "block data 'd'\nblock end zeros:144\nblock data 'e'\n"));
  TapeChild child([dir] {
    std::vector<unsigned char> buffer = open_unit_in(dir, {});
    int32_t length = 0;
    reel_skip_blocks(buffer.data(), &length, 0);
    std::printf("mode 0 stops at %d (%d)\n", tape_block_no(buffer.data()), length);
    reel_skip_blocks(buffer.data(), &length, 1);
    std::printf("mode 1 stops at %d (%d)\n", tape_block_no(buffer.data()), length);
    // The end of the save stops a skip even at the length of a sub-file.
    reel_skip_blocks(buffer.data(), &length, 1);
    std::printf("end stops at %d (%d)\n", tape_block_no(buffer.data()), length);
  });
  EXPECT_EQ(child.finish(), 0) << child.output();
  EXPECT_NE(child.output().find("mode 0 stops at 3 (150)\nmode 1 stops at 5 (102)\n"
                                "end stops at 7 (150)\n"),
            std::string::npos)
      << child.output();
}

TEST(ReelLogs, CodedLinesAndBadBlocks) {
  std::string dir = scratch("logs");
  TapeChild child([dir] {
    if (chdir(dir.c_str()) != 0) _exit(3);
    dispmsg = std::fopen("dispmsg", "w");
    last_block_no = 12;
    reel_log_error(REEL_ERR_ACCOUNT, "ignored");
    reel_log_error(REEL_ERR_DATA, "short record");
    reel_log_error(42, "ignored");
    spill("BAD_BLOCKS", "from an earlier run");
    reel_log_bad_block("FILE1", reinterpret_cast<const unsigned char*>("ab\0c"), 4);
    reel_log_bad_block("FILE2", reinterpret_cast<const unsigned char*>("z"), 1);
  });
  EXPECT_EQ(child.finish(), 0) << child.output();
  EXPECT_EQ(slurp(dir + "/dispmsg"),
            "Blkno = 12 \tGet acct_name error\n"
            "Blkno = 12 \tGet data block error: short record\n"
            "Blkno = 12 \tUnknown error\n");
  EXPECT_EQ(slurp(dir + "/BAD_BLOCKS"), std::string("\nFILE1\nab\0c\nFILE2\nz", 19));
  EXPECT_EQ(child.output(), "");
}

}  // namespace
