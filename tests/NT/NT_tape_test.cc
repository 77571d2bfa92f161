// The medium layer: the slot table, tape images and plain files.
#include "NT/NT_tape.h"

#include "flib/fl_globals.h"
#include "reel/tape_child.h"

namespace {

using tape_test::scratch;

// Writes an image of records (an empty string is a tape mark).
void write_image(const std::string& path, const std::vector<std::string>& records) {
  int slot = MNT_TapeOpen(("r" + path).c_str(), MNT_TAPE_WRITE | MNT_TAPE_CREATE | MNT_TAPE_TRUNCATE);
  ASSERT_GE(slot, 0);
  for (const auto& r : records) {
    if (r.empty())
      ASSERT_EQ(MNT_TapeMark(slot), 0);
    else
      ASSERT_EQ(MNT_TapeWrite(slot, r.data(), static_cast<int>(r.size())), static_cast<int>(r.size()));
  }
  ASSERT_EQ(MNT_TapeClose(slot), 0);
  MNT_TapeUnload(path.c_str());
}

std::string read_one(int slot, int count = 100) {
  std::string buffer(static_cast<size_t>(count), '\0');
  int n = MNT_TapeRead(slot, buffer.data(), count);
  return n < 0 ? "<fault>" : buffer.substr(0, static_cast<size_t>(n));
}

TEST(MNTTapeTable, EleventhOpenFailsAndFreeSlotsCloseHarmlessly) {
  std::string file = scratch("table") + "/f";
  spill(file, "x");
  std::vector<int> slots;
  for (int i = 0; i < MNT_TAPE_SLOTS; ++i) slots.push_back(MNT_TapeOpen(file.c_str(), MNT_TAPE_READ));
  for (int i = 0; i < MNT_TAPE_SLOTS; ++i) EXPECT_EQ(slots[static_cast<size_t>(i)], i);
  M_Status = 0;
  EXPECT_EQ(MNT_TapeOpen(file.c_str(), MNT_TAPE_READ), 0);
  EXPECT_EQ(M_Status, MNT_STATUS_FAULT);
  for (int slot : slots) EXPECT_EQ(MNT_TapeClose(slot), 0);
  EXPECT_EQ(MNT_TapeClose(3), 0);
  EXPECT_EQ(MNT_TapeClose(-1), 0);
  EXPECT_EQ(MNT_TapeOpen(file.c_str(), MNT_TAPE_READ), 0);  // the table is free again
  EXPECT_EQ(MNT_TapeClose(0), 0);
}

TEST(MNTTapeOpen, MissingNameIsUnusable) {
  M_Status = 0;
  MNT_tape_name_unusable = 0;
  EXPECT_EQ(MNT_TapeOpen((scratch("missing") + "/none.tap").c_str(), MNT_TAPE_READ), -1);
  EXPECT_EQ(M_Status, MNT_STATUS_NO_NAME);
  EXPECT_EQ(MNT_tape_name_unusable, 1);
}

TEST(MNTTapeImage, RecordsMarksAndTheEnd) {
  std::string path = scratch("image") + "/a.tap";
  write_image(path, {"first", "odd", "", std::string(300, 'z')});
  int slot = MNT_TapeOpen(path.c_str(), MNT_TAPE_READ);
  ASSERT_GE(slot, 0);
  EXPECT_EQ(read_one(slot), "first");
  EXPECT_EQ(read_one(slot, 2), "od");  // cut to the count, the rest passed
  M_Status = 0;
  EXPECT_EQ(read_one(slot), "");
  EXPECT_EQ(M_Status, MNT_STATUS_END_OF_DATA);
  EXPECT_EQ(read_one(slot, 1000), std::string(300, 'z'));
  EXPECT_EQ(read_one(slot), "");  // the mark written at close
  EXPECT_EQ(read_one(slot), "");  // the end of the image
  EXPECT_EQ(MNT_TapeClose(slot), 0);
}

// Images are read through a window of memory: records that straddle its
// edges, odd lengths, and a write in the middle of reading (which cuts the
// image there) all read back as written.
TEST(MNTTapeImage, RecordsAcrossTheReadWindowAndAWriteBehindThem) {
  std::string path = scratch("window") + "/w.tap";
  std::vector<std::string> records;
  size_t total = 0;
  for (int i = 0; total < 3u << 20; ++i) {
    size_t n = 1 + (static_cast<size_t>(i) * 7919) % 40000;
    records.push_back(std::string(n, static_cast<char>('a' + i % 26)));
    total += n;
  }
  records.push_back("");
  records.push_back("after the mark");
  write_image(path, records);
  int slot = MNT_TapeOpen(path.c_str(), MNT_TAPE_READ);
  ASSERT_GE(slot, 0);
  for (const auto& r : records) ASSERT_EQ(read_one(slot, 50000), r);
  EXPECT_EQ(read_one(slot), "");  // the mark written at close
  EXPECT_EQ(read_one(slot), "");  // the end of the image
  EXPECT_EQ(MNT_TapeClose(slot), 0);

  slot = MNT_TapeOpen(("r" + path).c_str(), MNT_TAPE_WRITE);
  ASSERT_GE(slot, 0);
  for (size_t i = 0; i < 3; ++i) ASSERT_EQ(read_one(slot, 50000), records[i]);
  ASSERT_EQ(MNT_TapeWrite(slot, "new", 3), 3);
  ASSERT_EQ(MNT_TapeRewind(slot), 0);
  for (size_t i = 0; i < 3; ++i) ASSERT_EQ(read_one(slot, 50000), records[i]);
  EXPECT_EQ(read_one(slot), "new");
  EXPECT_EQ(read_one(slot), "");
  EXPECT_EQ(MNT_TapeClose(slot), 0);
}

// The window after the current one is read ahead; a record that runs
// across their border is whole whatever its length: shorter than the room
// kept for it in front of the window read ahead, just as long, longer, or
// longer than a window.
TEST(MNTTapeImage, RecordsOfEveryLengthAcrossWindowsReadAhead) {
  std::string path = scratch("ahead") + "/a.tap";
  const size_t lengths[] = {1, 65535, 65536, 65537, 70001, 200000, 1 << 20, (1 << 20) + 7, 1500000, 333};
  std::vector<std::string> records;
  for (int i = 0; i < 40; ++i) {
    std::string r(lengths[static_cast<size_t>(i) % std::size(lengths)], '\0');
    for (size_t k = 0; k < r.size(); ++k) r[k] = static_cast<char>((k * 31 + static_cast<size_t>(i)) % 251);
    records.push_back(r);
  }
  write_image(path, records);
  int slot = MNT_TapeOpen(path.c_str(), MNT_TAPE_READ);
  ASSERT_GE(slot, 0);
  for (size_t i = 0; i < records.size(); ++i) ASSERT_TRUE(read_one(slot, 1600000) == records[i]) << i;
  EXPECT_EQ(read_one(slot), "");  // the mark written at close
  EXPECT_EQ(MNT_TapeClose(slot), 0);
}

TEST(MNTTapeImage, PositionIsKeptAcrossReopenAndRewoundByTheRName) {
  std::string dir = scratch("keep");
  std::string path = dir + "/k.tap";
  write_image(path, {"one", "", "two", "", "three"});
  int slot = MNT_TapeOpen(path.c_str(), MNT_TAPE_READ);
  EXPECT_EQ(read_one(slot), "one");
  MNT_TapeClose(slot);
  slot = MNT_TapeOpen(path.c_str(), MNT_TAPE_READ);
  EXPECT_EQ(read_one(slot), "");
  EXPECT_EQ(read_one(slot), "two");
  MNT_TapeClose(slot);
  slot = MNT_TapeOpen(("r" + path).c_str(), MNT_TAPE_READ);
  MNT_TapeClose(slot);
  slot = MNT_TapeOpen(path.c_str(), MNT_TAPE_READ);
  EXPECT_EQ(read_one(slot), "one");
  EXPECT_EQ(read_one(slot), "");
  EXPECT_EQ(read_one(slot), "two");
  MNT_TapeClose(slot);

  // From inside the second file, back over one mark and forward over one:
  // the start of the second file.
  EXPECT_EQ(MNT_TapeBack(path.c_str(), 0), 0);
  slot = MNT_TapeOpen(path.c_str(), MNT_TAPE_READ);
  EXPECT_EQ(read_one(slot), "two");
  MNT_TapeClose(slot);
  EXPECT_EQ(MNT_TapeBack(path.c_str(), 5), 0);  // fewer files than asked: the start
  slot = MNT_TapeOpen(path.c_str(), MNT_TAPE_READ);
  EXPECT_EQ(read_one(slot), "one");
  MNT_TapeClose(slot);

  // Another file put in its place is read from its beginning.
  write_image(dir + "/other.tap", {"new"});
  std::filesystem::rename(dir + "/other.tap", path);
  slot = MNT_TapeOpen(path.c_str(), MNT_TAPE_READ);
  EXPECT_EQ(read_one(slot), "new");
  MNT_TapeClose(slot);
}

TEST(MNTTapeImage, DamagedImageIsAFaultThenTheEnd) {
  std::string path = scratch("damaged") + "/d.tap";
  write_image(path, {"good", std::string(40, 'b')});
  std::filesystem::resize_file(path, std::filesystem::file_size(path) - 10);
  int slot = MNT_TapeOpen(path.c_str(), MNT_TAPE_READ);
  EXPECT_EQ(read_one(slot), "good");
  M_Status = 0;
  EXPECT_EQ(read_one(slot), "<fault>");
  EXPECT_EQ(M_Status, MNT_STATUS_FAULT);
  EXPECT_EQ(read_one(slot), "");
  MNT_TapeClose(slot);
}

TEST(MNTTapeFile, RNameIsThePlainFileAndEndOfFileReadsAsZero) {
  std::string dir = scratch("plain");
  spill(dir + "/TAPEFILE", "0123456789");
  std::string name = "r" + dir + "/TAPEFILE";
  int slot = MNT_TapeOpen(name.c_str(), MNT_TAPE_READ);
  ASSERT_GE(slot, 0);
  EXPECT_EQ(read_one(slot, 4), "0123");
  EXPECT_EQ(read_one(slot, 100), "456789");
  M_Status = 0;
  EXPECT_EQ(read_one(slot), "");
  EXPECT_EQ(M_Status, MNT_STATUS_END_OF_DATA);
  EXPECT_EQ(MNT_TapeMark(slot), 1);  // a read-only plain file takes no mark
  MNT_TapeClose(slot);
}

}  // namespace
