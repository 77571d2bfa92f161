// The index file format: the tests of a master head in their order, of an
// entry and of a node head, and the node key codec in both layouts.
#include <gtest/gtest.h>

#include <cstring>
#include <functional>
#include <string>

#include "flib/fl_idxfmt.h"
#include "support/console.h"

namespace {

IndexHead valid_head() {
  IndexHead h;
  h.version = IDX_VERSION_PLAIN;
  h.block_code = h.node_code = 0;
  h.key_length = 64;
  return h;
}

// The message a head gives, "" when it is accepted.
std::string verdict(const IndexHead& h) {
  bool ok = true;
  std::string out = stdout_of([&] { ok = index_head_valid(h); });
  return ok ? "" : out;
}

TEST(IndexHeadChecks, EachTestItsMessageAndTheLimits) {
  struct Case {
    std::function<void(IndexHead&)> change;
    std::string message;
  };
  const Case cases[] = {
      {[](IndexHead&) {}, ""},
      {[](IndexHead& h) { h.version = 0x50000; }, "Index: invalid index version: 0x50000\n"},
      {[](IndexHead& h) { h.auto_update = 2; }, "Index: invalid auto update flag: 2\n"},
      {[](IndexHead& h) { h.block_code = 1; }, "Index: block size (1) != node size (0)\n"},
      {[](IndexHead& h) { h.free_block = 0; }, "Index: invalid free block address: 0\n"},
      {[](IndexHead& h) { h.block_code = h.node_code = 15; }, ""},
      {[](IndexHead& h) { h.block_code = h.node_code = 16; }, "Index: invalid node size: 16\n"},
      // (1024 - 80) / 44 = 21 entries fit in block 0.
      {[](IndexHead& h) { h.index_count = 21; }, ""},
      {[](IndexHead& h) { h.index_count = 22; }, "Index: invalid # of indices: 22\n"},
      {[](IndexHead& h) { h.index_count = 22, h.next_entry_block = 1024; }, ""},
      {[](IndexHead& h) { h.key_length = 300; }, ""},
      {[](IndexHead& h) { h.key_length = 301; }, "Index: invalid textual key length: 301, valid range is [1,300]\n"},
      {[](IndexHead& h) { h.key_length = 0; }, "Index: invalid textual key length: 0, valid range is [1,300]\n"},
      {[](IndexHead& h) { h.ov_modulo = 2; }, "Index: invalid OV modulo: 2\n"},
      {[](IndexHead& h) { h.version = IDX_VERSION_COMPRESSED, h.ov_modulo = 2; }, ""},
      {[](IndexHead& h) { h.ov_hash_type = 3; }, "Index: invalid OV hash type: 3\n"},
      {[](IndexHead& h) { h.large_flag = 2; }, "Index: invalid large index flag: 2\n"},
      {[](IndexHead& h) { h.free_node = 255, h.large_flag = 1; }, "Index: invalid free node address: 255\n"},
      {[](IndexHead& h) { h.free_node = 256, h.large_flag = 1; }, ""},
      {[](IndexHead& h) { h.large_flag = 1, h.part_no = 2; }, "Index: invalid part file no.: 2\n"},
      {[](IndexHead& h) { h.large_flag = 1, h.active_part = 3, h.part_count = 2; }, "Index: invalid file count.: 2\n"},
      // A plain index's free node must be a whole block.
      {[](IndexHead& h) { h.free_node = 1536; }, "Index: invalid free node address: 1536\n"},
      {[](IndexHead& h) { h.free_node = 2048; }, ""},
      // Two faults: the first in the order is the one told.
      {[](IndexHead& h) { h.key_length = 0, h.auto_update = 5; }, "Index: invalid auto update flag: 5\n"},
  };
  for (const Case& c : cases) {
    IndexHead h = valid_head();
    c.change(h);
    EXPECT_EQ(verdict(h), c.message);
  }
}

TEST(IndexHeadChecks, HeadSurvivesItsEncoding) {
  IndexHead h = valid_head();
  h.version = IDX_VERSION_COMPRESSED;
  h.next_entry_block = 4096;
  h.index_count = 3;
  h.free_node = 0x1203;
  h.ov_modulo = 7;
  h.large_flag = 1;
  h.active_part = 2;
  h.part_count = 4;
  h.part_size_limit = 65536;
  h.free_count = 9;
  h.end_offset = 40960;
  h.slot_map = 3072;
  uint8_t block[IH_SIZE + 4];
  std::memset(block, 0xAA, sizeof block);
  encode_index_head(h, block);
  IndexHead back = decode_index_head(block);
  EXPECT_EQ(back.free_node, 0x1203u);
  EXPECT_EQ(back.part_count, 4);
  EXPECT_EQ(back.slot_map, 3072u);
  EXPECT_EQ(back.ov_modulo, 7);
  EXPECT_EQ(block[44], 1);  // large flag is one byte at 44
  EXPECT_EQ(block[IH_SIZE], 0xAA) << "the head is 80 bytes";
  EXPECT_EQ(fl_get_u32(block, 64), 0u) << "reserved bytes are zero";
}

TEST(IndexEntryChecks, TypesAreRefusedWithTheIndexName) {
  IndexEntry e;
  std::strcpy(e.name, "BYNAME");
  testing::internal::CaptureStdout();
  EXPECT_TRUE(index_entry_valid(e));
  e.field_type = 'X';
  EXPECT_FALSE(index_entry_valid(e));
  e.field_type = 'V';
  e.value_type = 'Q';
  EXPECT_FALSE(index_entry_valid(e));
  e.value_type = 'M';
  e.key_type = 'Z';
  EXPECT_FALSE(index_entry_valid(e));
  EXPECT_EQ(testing::internal::GetCapturedStdout(),
            "Index: invalid field type for index 'BYNAME': X\n"
            "Index: invalid value type for index 'BYNAME': Q\n"
            "Index: invalid key type for index 'BYNAME': Z\n");
  // A name of 31 characters stays whole; the 32nd byte is the NUL.
  std::memset(e.name, 'n', 31);
  e.name[31] = '\0';
  uint8_t raw[IE_SIZE];
  encode_index_entry(e, raw);
  EXPECT_EQ(std::string(decode_index_entry(raw).name), std::string(31, 'n'));
}

TEST(NodeHeadChecks, RootFlagsNextAndCounts) {
  const uint32_t size = 1024;
  auto told = [&](NodeHead n, uint32_t address, bool short_forms) {
    bool ok = true;
    std::string out = stdout_of([&] { ok = node_head_valid(n, address, 2048, 3, size, short_forms); });
    return ok ? std::string() : out;
  };
  NodeHead root{ROOT_RESET, 3, 1, 1, 0, 1008};
  EXPECT_EQ(told(root, 2048, false), "");
  NodeHead inner{0, 3, 0, 0, 84, 0};  // (1024-16)/12 = 84 entries at most
  EXPECT_EQ(told(inner, 4096, false), "");
  NodeHead n = inner;
  n.next = ROOT_TO_BUILD;
  EXPECT_EQ(told(n, 4096, false), "Index: invalid 'next' (-1) of node 4096.\n");
  EXPECT_EQ(told(n, 4096, true), "Index: invalid value in 'next' = 4294967295\n");
  n = inner;
  n.idx_no = 4;
  EXPECT_EQ(told(n, 4096, false), "Index: invalid 'idx_no' (4) of node 4096 (should be 3).\n");
  EXPECT_EQ(told(n, 4096, true), "Index: index entry number not match (is 4, should be 3)\n");
  EXPECT_EQ(told(inner, 2048, false), "Index: root node 2048 is marked as non-root node.\n");
  EXPECT_EQ(told(root, 4096, false), "Index: invalid 'next' (-2) of node 4096.\n");
  n = root;
  n.next = 0;
  EXPECT_EQ(told(n, 4096, false), "Index: non-root node 4096 is marked as root node.\n");
  n = inner;
  n.nkeys = 85;
  EXPECT_EQ(told(n, 4096, false), "Index: invalid 'nkeys' (85) of node 4096.\n");
  n.is_leaf = 1;
  n.nkeys = 126;  // (1024-16)/8
  EXPECT_EQ(told(n, 4096, false), "");
  n.nb_left = 1009;
  EXPECT_EQ(told(n, 4096, false), "Index: invalid 'nb_left' (1009) of node 4096, valid range is [0,1008].\n");
}

std::vector<KeyEntry> sample_entries() {
  return {{"", 0, "empty", 0}, {"apple", 0, std::string(127, 'i'), 0}, {"applesauce", 0x300004, "b", 0},
          {"apply", 0, "c", 0}};
}

TEST(NodeCodec, BothLayoutsRoundTripAndCompressionSaves) {
  const uint32_t size = 1024;
  for (bool packed : {false, true}) {
    for (uint8_t leaf : {1, 0}) {
      if (packed && leaf == 0) continue;  // internal nodes are never compressed
      std::vector<KeyEntry> in = sample_entries();
      for (size_t i = 0; i < in.size(); ++i) in[i].child = leaf ? 0 : static_cast<uint32_t>(1024 * (i + 3));
      std::vector<uint8_t> node(size);
      encode_node(node.data(), size, NodeHead{0, 1, 0, leaf, 0, 0}, in, packed);
      NodeHead h = decode_node_head(node.data());
      EXPECT_EQ(h.nkeys, 4);
      EXPECT_EQ(h.nb_left, static_cast<int32_t>(size - 16) - encoded_entries_size(in, leaf, packed));
      std::vector<KeyEntry> out;
      ASSERT_TRUE(decode_node_entries(node.data(), size, 64, packed, &out));
      ASSERT_EQ(out.size(), in.size());
      for (size_t i = 0; i < in.size(); ++i) {
        EXPECT_EQ(out[i].key, in[i].key);
        EXPECT_EQ(out[i].id, in[i].id);
        EXPECT_EQ(out[i].link, in[i].link);
        EXPECT_EQ(out[i].child, in[i].child);
      }
    }
  }
  // "applesauce" after "apple" keeps 5 shared bytes: its entry is the
  // count, "sauce" and a NUL.
  std::vector<uint8_t> node(size);
  encode_node(node.data(), size, NodeHead{0, 1, 0, 1, 0, 0}, sample_entries(), true);
  // count, suffix, NUL, link, @ID length, @ID
  uint32_t third = 16 + (1 + 0 + 1 + 4 + 1 + 5) + (1 + 5 + 1 + 4 + 1 + 127);
  EXPECT_EQ(node[third], 5);
  EXPECT_EQ(std::string(reinterpret_cast<char*>(&node[third + 1])), "sauce");
  EXPECT_LT(encoded_entries_size(sample_entries(), true, true), encoded_entries_size(sample_entries(), true, false));
}

TEST(NodeCodec, ImpossibleEntriesAreRefused) {
  const uint32_t size = 1024;
  std::vector<uint8_t> node(size);
  std::vector<KeyEntry> out;
  auto told = [&](bool packed) {
    bool ok = true;
    std::string text = stdout_of([&] { ok = decode_node_entries(node.data(), size, 8, packed, &out); });
    return ok ? std::string() : text;
  };
  encode_node(node.data(), size, NodeHead{0, 1, 0, 1, 0, 0}, {{"12345678", 0, "x", 0}}, false);
  EXPECT_EQ(told(false), "");
  encode_node(node.data(), size, NodeHead{0, 1, 0, 1, 0, 0}, {{"123456789", 0, "x", 0}}, false);
  EXPECT_EQ(told(false), "Index: invalid alternate key length: 9\n");
  encode_node(node.data(), size, NodeHead{0, 1, 0, 1, 0, 0}, {{"k", 0, std::string(127, 'i'), 0}}, false);
  EXPECT_EQ(told(false), "");
  node[16 + 2 + 1 + 4] = 128;
  EXPECT_EQ(told(false), "Index: invalid @ID length: 128\n");
  encode_node(node.data(), size, NodeHead{0, 1, 0, 1, 0, 0}, {{"abc", 0, "x", 0}, {"abd", 0, "y", 0}}, true);
  EXPECT_EQ(told(true), "");
  node[16 + 1 + 4 + 4 + 1 + 1] = 9;  // the second entry's prefix count
  EXPECT_EQ(told(true), "Index: invalid compression count: 9\n");
  // A count of keys that runs past the key area.
  encode_node(node.data(), size, NodeHead{0, 1, 0, 1, 0, 0}, {{"abc", 0, "x", 0}}, false);
  fl_put_i32(node.data(), ND_NKEYS, 2);
  EXPECT_EQ(told(false), "Index: invalid offset of node: 27\n");
}

}  // namespace
