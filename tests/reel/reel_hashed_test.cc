// The record machine over blocks cut where no tape of even blocks can cut:
// a record header split after 1, 2 or 3 bytes. Records are observed where
// they are handed to the loader, in its small buffer.
#include "reel/reel_hashed.h"

#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "reel/reel_app_tuple.h"
#include "reel/reel_tape_format.h"
#include "reel/reel_tape_writer.h"

namespace {

// Key and data of every record gathered so far, in arrival order.
std::vector<std::pair<std::string, std::string>> gathered() {
  const TupleBuffer& b = reel_small_tuples;
  std::vector<std::pair<std::string, std::string>> out;
  const auto* top = reinterpret_cast<const TupleDesc*>(b.base + b.size);
  for (int32_t i = 1; i <= b.count; ++i) {
    const TupleDesc& d = top[-i];
    out.emplace_back(std::string(d.key, static_cast<size_t>(d.key_len)),
                     std::string(d.key + d.key_len + 1, static_cast<size_t>(d.data_len)));
  }
  return out;
}

// A data block holding `bytes` behind its header (and, for the first
// block of a sub-file, behind the modulo field).
std::vector<unsigned char> block_of(const std::vector<unsigned char>& bytes, bool first) {
  std::vector<unsigned char> block(first ? SUBFILE_FIRST_STREAM : SUBFILE_STREAM, 0);
  block[TAPE_OFF_TYPE] = TAPE_BLOCK_DATA;
  block.insert(block.end(), bytes.begin(), bytes.end());
  return block;
}

TEST(GroupMachine, AHeaderCutAfterOneTwoOrThreeBytesIsCompletedFromTheNextBlock) {
  const std::vector<TapeRecord> records = {{"ODD", "first record"}, {"KEY2", "x\xFEy"}, {"Z", ""}};
  std::vector<unsigned char> stream = reel_static_stream(records);
  std::vector<unsigned char> one;
  tape_encode_static_record(one, records[0].key, records[0].data, CHUNK_MAX, false);
  for (size_t cut : {1, 2, 3}) {
    reel_init_tuples(16);
    const size_t split = one.size() + cut;
    auto b1 = block_of({stream.begin(), stream.begin() + static_cast<long>(split)}, true);
    auto b2 = block_of({stream.begin() + static_cast<long>(split), stream.end()}, false);
    int32_t n1 = static_cast<int32_t>(b1.size());
    int32_t n2 = static_cast<int32_t>(b2.size());
    EXPECT_EQ(reel_group_block(b1.data(), &n1, 1), 1);
    EXPECT_EQ(reel_group_block(b2.data(), &n2, 0), 0) << "the size 0 at the end";
    std::vector<std::pair<std::string, std::string>> expected;
    for (const TapeRecord& r : records) expected.emplace_back(r.key, r.data);
    EXPECT_EQ(gathered(), expected) << "cut after " << cut;
  }
}

}  // namespace
