// Index operations: entries and the slot map, the five search modes, long
// keys in buckets, splits before they are needed, the tree losing a level,
// bucket blocks leaving and rejoining their chain, parts of a large index,
// clearing and damage at open. The upkeep by record writes is the model test's.

#include <random>

#include "common/fl_errout.h"
#include "common/mrv_marks.h"
#include "fl_idx_test_util.h"
#include "flib/fl_clear.h"
#include "flib/fl_filehdr.h"
#include "flib/fl_globals.h"
#include "flib/fl_idxbkt.h"
#include "flib/fl_idxbuild.h"
#include "flib/fl_voc.h"

namespace {

IndexFileOptions small_nodes(int32_t key_length = 16) {
  IndexFileOptions o;
  o.block_code = 0;
  o.key_length = key_length;
  return o;
}

std::string field(const std::string& a, const std::string& b = "") { return a + static_cast<char>(M_FM) + b; }

std::vector<std::string> ids_of(const std::vector<Pair>& pairs) {
  std::vector<std::string> ids;
  for (const auto& p : pairs) ids.push_back(p.second);
  return ids;
}

int32_t header_index_count(const std::string& dat) {
  std::vector<uint8_t> b = read_bytes(dat);
  return fl_get_i32(b.data(), FH_INDEX_COUNT);
}

using IndexEntries = IndexedFile;

TEST_F(IndexEntries, SameIndexTwiceAndTheEntryBlockAfterTwentyOne) {
  make(true, small_nodes());
  ASSERT_EQ(add("A", 1), 1);
  EXPECT_EQ(add("B", 1), 0) << "same location";
  EXPECT_EQ(add("A", 2), 0) << "same name";
  for (int i = 2; i <= 21; ++i) ASSERT_EQ(add(("X" + std::to_string(i)).c_str(), i), 1);
  IndexHead head;
  ASSERT_EQ(M_idx_read_head(h(), 0, &head), 0);
  EXPECT_EQ(head.next_entry_block, IDX_NONE) << "21 entries fill block 0";
  ASSERT_EQ(add("X22", 22), 1);
  ASSERT_EQ(M_idx_read_head(h(), 0, &head), 0);
  EXPECT_NE(head.next_entry_block, IDX_NONE);
  EXPECT_EQ(head.index_count, 22);
  EXPECT_EQ(header_index_count(path + "/dat001"), 22);
  // Reopened, every entry is there with its own number, and works.
  M_closefile(&rel);
  ASSERT_EQ(M_openfile(&rel, path.c_str(), 2), 1);
  ASSERT_EQ(h()->rows.size(), 22u);
  EXPECT_EQ(h()->rows.back().idx_no, 21);
  ASSERT_EQ(put("r1", field("one", "two")), 1);
  EXPECT_EQ(scan("X22"), (std::vector<Pair>{{"", "r1"}}));
  EXPECT_EQ(scan("X2"), (std::vector<Pair>{{"two", "r1"}}));
  EXPECT_EQ(check(), "");
}

TEST_F(IndexEntries, DropFreesTheTreeAndTheLastDropRemovesTheFiles) {
  make(true, small_nodes());
  ASSERT_EQ(add("A", 1), 1);
  ASSERT_EQ(add("B", 2), 1);
  for (int i = 0; i < 300; ++i) ASSERT_EQ(put("k" + std::to_string(i), field("v" + std::to_string(i))), 1);
  ASSERT_EQ(M_drop_index(&rel, "A"), 1);
  IndexHead head;
  ASSERT_EQ(M_idx_read_head(h(), 0, &head), 0);
  EXPECT_NE(head.free_node, IDX_NONE) << "A's nodes went to the free list";
  EXPECT_EQ(header_index_count(path + "/dat001"), 1);
  ASSERT_EQ(add("C", 1), 1) << "a dropped entry is not reused, a new one is made";
  EXPECT_EQ(M_drop_index(&rel, "A"), 0);
  ASSERT_EQ(M_drop_index(&rel, "B"), 1);
  ASSERT_EQ(M_drop_index(&rel, "C"), 1);
  EXPECT_EQ(h(), nullptr);
  EXPECT_FALSE(std::filesystem::exists(path + "/idx001"));
  EXPECT_EQ(header_index_count(path + "/dat001"), 0);
  EXPECT_EQ(put("k1", field("again")), 1) << "the file works without its index";
}

using IndexSearch = IndexedFile;

TEST_F(IndexSearch, TheFiveModes) {
  make(false, small_nodes());
  ASSERT_EQ(add("N", 1), 1);
  for (const auto& [id, v] : std::vector<Pair>{{"1", "b"}, {"2", "d"}, {"3", "b"}, {"4", "a"}}) ASSERT_EQ(put(id, field(v)), 1);
  auto find = [&](int mode, const std::string& key) {
    SearchContext c;
    int r = M_find_key(h(), row("N"), mode, key, &c);
    return r == 1 ? c.key + "/" + c.id : std::to_string(r);
  };
  EXPECT_EQ(find(FIND_EQUAL, "b"), "b/1");
  EXPECT_EQ(find(FIND_EQUAL, "c"), "0");
  EXPECT_EQ(find(FIND_GREATER, "b"), "d/2");
  EXPECT_EQ(find(FIND_AT_LEAST, "b"), "b/1");
  EXPECT_EQ(find(FIND_AT_LEAST, "c"), "d/2");
  EXPECT_EQ(find(FIND_LESS, "b"), "a/4");
  EXPECT_EQ(find(FIND_AT_MOST, "b"), "b/3");
  EXPECT_EQ(find(FIND_AT_MOST, "c"), "b/3");
  EXPECT_EQ(find(FIND_LESS, "a"), "0");
  EXPECT_EQ(find(FIND_GREATER, "d"), "0");
  EXPECT_EQ(stdout_of([&] { EXPECT_EQ(find(6, "b"), "0"); }), "Error msgno = 110135. \n");
}

TEST_F(IndexSearch, ModesAcrossManyLeavesOfEqualKeys) {
  make(true, small_nodes());
  ASSERT_EQ(add("N", 1), 1);
  for (int i = 0; i < 400; ++i) {
    char other[16];
    std::snprintf(other, sizeof other, "%c%04d", i < 200 ? 'a' : 'z', i);
    ASSERT_EQ(put("id" + std::to_string(1000 + i), field(i % 2 ? "same" : other)), 1);
  }
  ASSERT_GE(depth("N"), 2);
  SearchContext c;
  ASSERT_EQ(M_find_key(h(), row("N"), FIND_GREATER, "same", &c), 1);
  EXPECT_EQ(c.key, "z0200");
  ASSERT_EQ(M_find_key(h(), row("N"), FIND_AT_MOST, "same", &c), 1);
  EXPECT_EQ(c.id, "id1399") << "the last of the equal keys";
  ASSERT_EQ(M_find_key(h(), row("N"), FIND_LESS, "same", &c), 1);
  EXPECT_EQ(c.key, "a0198");
}

TEST_F(IndexSearch, AnIndexToBeBuiltAnswersNothingUntilBuilt) {
  ScopedEnv bin("MRVBIN", REEL_BIN_DIR);
  make(true, small_nodes());
  ASSERT_EQ(put("r1", field("x")), 1);
  ASSERT_EQ(add("LATER", 1, 'S', true), 1);
  SearchContext c;
  EXPECT_EQ(M_find_key(h(), row("LATER"), FIND_AT_LEAST, "", &c), 0);
  EXPECT_EQ(insert("LATER", "y", "r2"), 0) << "a root still to be built takes no keys";
  ASSERT_EQ(put("r2", field("y")), 1);
  ASSERT_EQ(M_build_index(&rel, row("LATER")), 1);
  EXPECT_EQ(scan("LATER"), (std::vector<Pair>{{"x", "r1"}, {"y", "r2"}}));
}

TEST_F(IndexSearch, NumericKeysAndSkippedEmptyKeys) {
  ScopedEnv bin("MRVBIN", REEL_BIN_DIR);
  make(true, small_nodes());
  ASSERT_EQ(add("NUM", 1, 'S', false, 0, 'N'), 1);
  ASSERT_EQ(add("NOEMPTY", 2, 'M', false, IE_OPTION_SKIP_EMPTY), 1);
  std::string vm(1, static_cast<char>(M_VM));
  ASSERT_EQ(put("a", field("10", "x" + vm + vm + "y")), 1);
  ASSERT_EQ(put("b", field("9", "")), 1);
  ASSERT_EQ(put("c", field("-2.5", "")), 1);
  ASSERT_EQ(put("d", field("abc")), 1);
  EXPECT_EQ(ids_of(scan("NUM")), (std::vector<std::string>{"c", "b", "a", "d"}));
  EXPECT_EQ(scan("NOEMPTY"), (std::vector<Pair>{{"x", "a"}, {"y", "a"}}));
  EXPECT_EQ(M_index_remove(h(), row("NOEMPTY"), bytes(""), 0, bytes("b"), 1), 1) << "an empty key is a no-op";
  // The sorted build orders numbers through its line prefix the same way.
  for (int i = 0; i < 200; ++i) ASSERT_EQ(put("n" + std::to_string(i), field(std::to_string((i * 37) % 101 - 50) + ".5")), 1);
  std::vector<Pair> kept = scan("NUM");
  ASSERT_EQ(M_build_index(&rel, row("NUM")), 1);
  EXPECT_EQ(scan("NUM"), kept);
  ASSERT_EQ(M_build_index(&rel, row("NOEMPTY")), 1);
  EXPECT_EQ(scan("NOEMPTY"), (std::vector<Pair>{{"x", "a"}, {"y", "a"}}));
}

TEST_F(IndexSearch, DuplicateStatusWhenAskedFor) {
  make(true, small_nodes());
  ASSERT_EQ(add("N", 1), 1);
  M_index_dup_status = 1;
  ASSERT_EQ(insert("N", "k", "a"), 1);
  EXPECT_EQ(M_Status, 0);
  ASSERT_EQ(insert("N", "k", "b"), 1);
  EXPECT_EQ(M_Status, 10);
  ASSERT_EQ(insert("N", "kk", "c"), 1);
  EXPECT_EQ(M_Status, 0);
  M_index_dup_status = 0;
  EXPECT_EQ(insert("N", "k", "b"), 0) << "the same pair twice is one entry";
}

using IndexTrees = IndexedFile;

TEST_F(IndexTrees, AKeyOneByteTooLongKeepsAOneByteTailInItsIdsBucket) {
  IndexFileOptions o = small_nodes(16);
  o.version = IDX_VERSION_COMPRESSED;
  o.ov_modulo = 5;
  make(true, o);
  ASSERT_EQ(add("N", 1), 1);
  std::string key(17, 'k');
  key.back() = 'z';
  // Two @IDs that hash to different buckets.
  std::string first = "r0";
  std::string second;
  for (int i = 1; second.empty(); ++i)
    if (M_tail_bucket_block(h(), "r" + std::to_string(i)) != M_tail_bucket_block(h(), first)) second = "r" + std::to_string(i);
  ASSERT_EQ(put(first, field(key)), 1);
  ASSERT_EQ(put(second, field(key)), 1);
  std::vector<KeyEntry> leaf = node_entries(root("N"));
  ASSERT_EQ(leaf.size(), 2u);
  for (const KeyEntry& e : leaf) {
    EXPECT_EQ(e.key, key.substr(0, 16));
    EXPECT_EQ(link_block(e.link), M_tail_bucket_block(h(), e.id));
    std::string tail;
    ASSERT_EQ(M_read_text(h(), e.link, &tail), 1);
    EXPECT_EQ(tail, "z");
  }
  EXPECT_NE(link_block(leaf[0].link), link_block(leaf[1].link));
  // The whole key is found; a key equal in its first 16 bytes is not it.
  SearchContext c;
  EXPECT_EQ(M_find_key(h(), row("N"), FIND_EQUAL, key, &c), 1);
  EXPECT_EQ(M_find_key(h(), row("N"), FIND_EQUAL, key.substr(0, 16) + "y", &c), 0);
  ASSERT_EQ(del(first), 1);
  ASSERT_EQ(del(second), 1);
  for (uint32_t b = 2; b < 7; ++b) {
    std::vector<uint8_t> block(h()->node_size);
    ASSERT_GE(M_idx_read(h(), b * h()->node_size, block.data(), h()->node_size), 0);
    EXPECT_EQ(fl_get_i32(block.data(), BK_FREE), static_cast<int32_t>(h()->node_size - 12)) << "tails released";
  }
}

TEST_F(IndexTrees, ALeafJustUnderTheMarkSplitsOnTheNextInsertThroughIt) {
  make(true, small_nodes(16));
  ASSERT_EQ(add("N", 1), 1);
  uint32_t r = root("N");
  // Entries of 2 + 4 + 4 + 1 + 4 = 15 bytes.
  int i = 0;
  for (; node_head(r).nb_left >= 16 + 134; ++i)
    ASSERT_EQ(insert("N", "k" + std::to_string(1000 + i), "i" + std::to_string(1000 + i)), 1);
  NodeHead before = node_head(r);
  ASSERT_EQ(before.is_leaf, 1);
  ASSERT_GT(before.nb_left, 15) << "the next entry would fit";
  ASSERT_EQ(insert("N", "k0000", "i0000"), 1);
  NodeHead after = node_head(r);
  EXPECT_EQ(after.is_leaf, 0) << "split although the entry fit";
  EXPECT_EQ(after.nkeys, 2);
  EXPECT_EQ(root("N"), r) << "the root keeps its address";
  EXPECT_EQ(scan("N").size(), static_cast<size_t>(i + 1));
  EXPECT_EQ(check(), "");
}

TEST_F(IndexTrees, EmptyingTheLastChildLeavesATreeOneLevelLowerAtTheSameRoot) {
  make(true, small_nodes(16));
  ASSERT_EQ(add("N", 1), 1);
  uint32_t r = root("N");
  std::vector<std::string> keys;
  for (int i = 0; depth("N") < 2; ++i) {
    keys.push_back("k" + std::to_string(1000 + i));
    ASSERT_EQ(insert("N", keys.back(), "id"), 1);
  }
  while (depth("N") > 1) {
    ASSERT_EQ(remove("N", keys.back(), "id"), 1);
    keys.pop_back();
  }
  EXPECT_EQ(root("N"), r);
  EXPECT_EQ(node_head(r).is_root, 1);
  EXPECT_EQ(scan("N").size(), keys.size());
  EXPECT_EQ(remove("N", "absent", "id"), 0);
  EXPECT_EQ(check(), "");
  IndexHead head;
  ASSERT_EQ(M_idx_read_head(h(), 0, &head), 0);
  EXPECT_NE(head.free_node, IDX_NONE) << "the children went to the free list";
}

TEST_F(IndexTrees, ABucketBlockLeavesItsChainBelow100AndReturnsAt200) {
  make(true, small_nodes(16));
  uint32_t size = h()->node_size;
  auto block = [&](uint32_t number) {
    std::vector<uint8_t> b(size);
    EXPECT_GE(M_idx_read(h(), number * size, b.data(), size), 0);
    return b;
  };
  // 96-byte texts: 97 bytes and a slot each; block 2 takes 10 of them.
  std::vector<uint32_t> links;
  std::string text(96, 't');
  while (links.size() < 11) links.push_back(M_store_text(h(), 2, text));
  uint32_t second = link_block(links.back());
  ASSERT_NE(second, 2u);
  EXPECT_EQ(fl_get_u32(block(2).data(), BK_NEXT), second * size) << "a new block with room joins behind the first";
  while (link_block(links.back()) == second && fl_get_u32(block(second).data(), BK_NEXT) != BK_OFF_CHAIN)
    links.push_back(M_store_text(h(), 2, text));
  std::vector<uint8_t> off = block(second);
  EXPECT_LT(fl_get_i32(off.data(), BK_FREE), 100);
  EXPECT_EQ(fl_get_u16(off.data(), BK_BUCKET), 2);
  EXPECT_EQ(fl_get_u32(block(2).data(), BK_NEXT), BK_END_OF_CHAIN) << "the chain passes the full block by";
  std::string read;
  ASSERT_EQ(M_read_text(h(), links.back(), &read), 1);
  EXPECT_EQ(read, text);
  // One release gives 97 bytes: not yet 200; the second brings it back.
  std::vector<uint32_t> in_second;
  for (uint32_t l : links)
    if (link_block(l) == second) in_second.push_back(l);
  ASSERT_EQ(M_release_text(h(), in_second[0], false), 1);
  EXPECT_EQ(fl_get_u32(block(second).data(), BK_NEXT), BK_OFF_CHAIN);
  ASSERT_EQ(M_release_text(h(), in_second[1], false), 1);
  EXPECT_GE(fl_get_i32(block(second).data(), BK_FREE), 200);
  EXPECT_EQ(fl_get_u32(block(2).data(), BK_NEXT), second * size);
  // The texts behind the released ones still read back.
  ASSERT_EQ(M_read_text(h(), in_second.back(), &read), 1);
  EXPECT_EQ(read, text);
}

TEST_F(IndexTrees, FreeNodeChecks) {
  make(true, small_nodes());
  EXPECT_EQ(stdout_of([&] { EXPECT_EQ(M_free_node(h(), 255), -1); }), "Index: invalid node to be freed: 255\n");
  std::vector<uint8_t> node(h()->node_size, 0);
  uint32_t a = M_get_node(h(), node.data());
  ASSERT_NE(a, IDX_NONE);
  ASSERT_EQ(M_free_node(h(), a), 0);
  EXPECT_EQ(M_get_node(h(), node.data()), a) << "the free list is used first";
  // A head that names a block that is not free.
  IndexHead head;
  ASSERT_EQ(M_idx_read_head(h(), 0, &head), 0);
  head.free_node = a;
  ASSERT_EQ(M_idx_write_head(h(), 0, head), 0);
  testing::internal::CaptureStdout();
  EXPECT_EQ(M_get_node(h(), node.data()), IDX_NONE);
  EXPECT_NE(testing::internal::GetCapturedStdout().find("Index: not a free node address: " + std::to_string(a) + "\n"),
            std::string::npos);
}

TEST_F(IndexTrees, ALargeIndexSpreadsOverPartsAndTruncatesAnEmptiedOne) {
  create(1, 1, 64);
  ScopedEnv flength("MAX_FLENGTH", "16384");  // 15 nodes of 1 KiB besides the head
  IndexFileOptions o = small_nodes(16);
  o.large = true;
  ASSERT_EQ(M_create_index_file(&rel, o), 1);
  ASSERT_EQ(add("N", 1), 1);
  std::vector<std::string> ids;
  for (int i = 0; !std::filesystem::exists(path + "/idx003"); ++i) {
    ids.push_back("r" + std::to_string(1000 + i));
    ASSERT_EQ(put(ids.back(), field("value" + std::to_string(1000 + i))), 1);
    ASSERT_LT(i, 5000);
  }
  EXPECT_EQ(check(), "");
  EXPECT_EQ(scan("N").size(), ids.size());
  // Nodes in another part carry its number in their low bits.
  bool other_part = false;
  for (const KeyEntry& e : node_entries(root("N"))) other_part |= (e.child & IDX_PART_MASK) != 0;
  EXPECT_TRUE(other_part);
  for (const std::string& id : ids) ASSERT_EQ(del(id), 1);
  EXPECT_TRUE(scan("N").empty());
  EXPECT_EQ(std::filesystem::file_size(path + "/idx002"), 1024u) << "all its nodes freed: only its head is left";
  IndexHead part;
  ASSERT_EQ(M_idx_read_head(h(), 1, &part), 0);
  EXPECT_EQ(part.free_count, 0u);
  EXPECT_EQ(part.free_node, IDX_NONE);
  EXPECT_EQ(part.part_no, 1);
}

TEST_F(IndexTrees, ClearAllEmptiesTheTreesAndRestoresTheHeaderCount) {
  make(true, small_nodes());
  ASSERT_EQ(add("A", 1), 1);
  ASSERT_EQ(add("B", 2, 'M'), 1);
  spill(path + "/xlog001", "log");
  for (int i = 0; i < 500; ++i) ASSERT_EQ(put("k" + std::to_string(i), field(std::string(40, 'v') + std::to_string(i), "t")), 1);
  // The clear of the file rewrites its header; the index count is gone.
  ASSERT_EQ(M_ndx_sethdr(&rel, 0), 0);
  M_close_index(&rel);
  int32_t count = 0;
  ASSERT_EQ(M_clear_all_indexes(&rel, &count), 1);
  EXPECT_EQ(count, 2);
  EXPECT_EQ(header_index_count(path + "/dat001"), 2);
  EXPECT_FALSE(std::filesystem::exists(path + "/xlog001"));
  EXPECT_TRUE(scan("A").empty());
  EXPECT_TRUE(scan("B").empty());
  EXPECT_EQ(node_head(root("A")).next, 0) << "still usable";
  std::vector<uint8_t> bucket(h()->node_size);
  ASSERT_GE(M_idx_read(h(), 2 * h()->node_size, bucket.data(), h()->node_size), 0);
  EXPECT_EQ(fl_get_u16(bucket.data(), BK_COUNT), 0);
  ASSERT_EQ(put("new", field("n", "t")), 1);
  EXPECT_EQ(scan("A"), (std::vector<Pair>{{"n", "new"}}));
  // The flag of a single clear decides the root's state.
  ASSERT_EQ(M_clear_index(h(), row("A"), 1), 1);
  EXPECT_EQ(node_head(root("A")).next, ROOT_RESET);
  ASSERT_EQ(M_clear_index(h(), row("A"), 0), 1);
  EXPECT_EQ(node_head(root("A")).next, ROOT_RESET) << "flag 0 keeps -2";
  ASSERT_EQ(M_clear_index(h(), row("A"), 2), 1);
  EXPECT_EQ(node_head(root("A")).next, ROOT_TO_BUILD);
}

TEST_F(IndexTrees, ADamagedHeadKeepsTheFileShutUnlessTheDataAloneIsAsked) {
  make(true, small_nodes());
  ASSERT_EQ(add("A", 1), 1);
  M_closefile(&rel);
  std::vector<uint8_t> idx = read_bytes(path + "/idx001");
  fl_put_i32(idx.data(), IH_VERSION, 0x20000);
  write_bytes(path + "/idx001", idx);
  testing::internal::CaptureStdout();
  EXPECT_EQ(M_openfile(&rel, path.c_str(), 2), -1);
  EXPECT_EQ(testing::internal::GetCapturedStdout(),
            "Index: invalid index version: 0x20000\n"
            "Index: " + path + "/idx001 has damaged master head\n"
            "Index: master head has been damaged\n");
  ASSERT_EQ(M_openfile(&rel, path.c_str(), 2 | OPEN_NO_INDEX), 1);
  EXPECT_EQ(rel.index, nullptr);
}

// Damage at random places of an index file must end in reports, never in
// a crash or a hang: every byte of a head, entry, bucket or node is read
// through the checks.
TEST_F(IndexTrees, RandomDamageIsReportedNeverFollowed) {
  make(true, small_nodes(12));
  ASSERT_EQ(add("A", 1), 1);
  ASSERT_EQ(add("B", 2, 'M'), 1);
  std::string vm(1, static_cast<char>(M_VM));
  for (int i = 0; i < 400; ++i)
    ASSERT_EQ(put("k" + std::to_string(i), field("value number " + std::to_string(i % 50), "t" + vm + "u" + std::to_string(i))), 1);
  M_closefile(&rel);
  std::vector<uint8_t> good = read_bytes(path + "/idx001");
  std::mt19937 rng(5);
  int32_t saved = V__Errout;
  V__Errout = 0;
  for (int round = 0; round < 150; ++round) {
    std::vector<uint8_t> bad = good;
    for (int n = 1 + static_cast<int>(rng() % 4); n > 0; --n) bad[rng() % bad.size()] = static_cast<uint8_t>(rng());
    write_bytes(path + "/idx001", bad);
    if (M_openfile(&rel, path.c_str(), 2) != 1) continue;
    M_check_index(h());
    for (const char* name : {"A", "B"}) {
      if (row(name) < 0) continue;
      M_index_walk(h(), row(name), "", true, [](const std::string&, const std::string&) { return 0; });
      SearchContext c;
      M_find_key(h(), row(name), FIND_AT_MOST, "value number 7", &c);
    }
    put("k" + std::to_string(rng() % 400), field("new", "t"));
    del("k" + std::to_string(rng() % 400));
    M_closefile(&rel);
  }
  V__Errout = saved;
  write_bytes(path + "/idx001", good);
  ASSERT_EQ(M_openfile(&rel, path.c_str(), 2), 1);
}

TEST_F(IndexEntries, VirtualFieldExpressionsInTheChainOrInARun) {
  make(true, small_nodes());
  std::string brief = "TRANS(CUSTOMERS,@1,2,'X')";
  std::string longer(2500, 'e');  // beyond a 1 KiB block: a run of 3 blocks
  ASSERT_EQ(M_add_index(&rel, "V1", 'V', 'S', 'T', 0, 0, brief.c_str(), false), 1);
  ASSERT_EQ(M_add_index(&rel, "V2", 'I', 'M', 'T', 0, 0, longer.c_str(), false), 1);
  uint32_t short_link = static_cast<uint32_t>(h()->rows[0].entry.location);
  uint32_t run_link = static_cast<uint32_t>(h()->rows[1].entry.location);
  EXPECT_EQ(link_block(short_link), BK_VIRTUAL_CHAIN);
  std::string text;
  ASSERT_EQ(M_read_expression(h(), short_link, &text), 1);
  EXPECT_EQ(text, brief);
  ASSERT_EQ(M_read_expression(h(), run_link, &text), 1);
  EXPECT_EQ(text, longer);
  std::vector<uint8_t> first(h()->node_size);
  ASSERT_GE(M_idx_read(h(), link_block(run_link) * h()->node_size, first.data(), h()->node_size), 0);
  EXPECT_EQ(fl_get_u32(first.data(), 0), 0xFFFFFFFFu);
  EXPECT_EQ(fl_get_u16(first.data(), RUN_BLOCKS), 3);
  EXPECT_EQ(fl_get_u16(first.data(), 12), RUN_TEXT);
  // A record write leaves virtual indexes alone: nothing computes them.
  ASSERT_EQ(put("k", field("v")), 1);
  EXPECT_TRUE(scan("V1").empty());
  ASSERT_EQ(M_drop_index(&rel, "V2"), 1);
  IndexHead head;
  ASSERT_EQ(M_idx_read_head(h(), 0, &head), 0);
  EXPECT_EQ(head.free_node, (link_block(run_link) + 2) * h()->node_size) << "the run's blocks are free";
}

TEST_F(IndexTrees, ABuildOutOfIndexSpaceWritesTheReport) {
  ScopedEnv bin("MRVBIN", REEL_BIN_DIR);
  create(401, 1, 0);
  // idx001 holds its head, two bucket blocks and one node; every further
  // part its head and one node.
  IndexFileOptions o = small_nodes(16);
  o.large = true;
  {
    ScopedEnv first("MAX_FLENGTH", "4096");
    ASSERT_EQ(M_create_index_file(&rel, o), 1);
  }
  ScopedEnv flength("MAX_FLENGTH", "2048");
  ASSERT_EQ(add("N", 1, 'S', true), 1);
  // Some 350 leaves are needed; 255 parts give 254 nodes and idx001.
  for (int i = 0; i < 12000; ++i) ASSERT_EQ(put("r" + std::to_string(i), field("value " + std::to_string(i))), 1);
  std::string report = "/tmp/LARGERPT" + std::to_string(getpid());
  std::filesystem::remove(report);
  std::string told = stdout_of([&] { EXPECT_EQ(M_build_index(&rel, row("N")), -1); });
  EXPECT_NE(told.find("Index: no room for a node: 255 parts are in use"), std::string::npos) << told;
  EXPECT_NE(told.find("see " + report), std::string::npos);
  std::string text = slurp(report);
  std::filesystem::remove(report);
  for (const char* section : {"\nExecuting Status:\n", "\nIndex File status:\n", "\nReasoning:\n", "Processing Suggestion"})
    EXPECT_NE(text.find(section), std::string::npos) << section;
  EXPECT_EQ(node_head(root("N")).next, ROOT_TO_BUILD) << "searches still see an index to be built";
}

TEST_F(IndexTrees, TheCheckFindsKeysOutOfOrderAndBeyondTheirBounds) {
  make(true, small_nodes(16));
  ASSERT_EQ(add("N", 1), 1);
  for (int i = 0; i < 200; ++i) ASSERT_EQ(insert("N", "k" + std::to_string(1000 + i), "id"), 1);
  ASSERT_EQ(check(), "");
  // The first leaf's first key rises above its neighbours and its bound.
  uint32_t leaf = node_entries(root("N")).front().child;
  std::vector<uint8_t> node(h()->node_size);
  ASSERT_GE(M_idx_read(h(), leaf, node.data(), h()->node_size), 0);
  ASSERT_EQ(node[ND_KEYS + 2], 'k');
  node[ND_KEYS + 2] = 'z';
  ASSERT_GE(M_idx_write(h(), leaf, node.data(), h()->node_size), 0);
  std::string found = check();
  EXPECT_NE(found.find("index 'N': node " + std::to_string(leaf) + ": entries out of order"), std::string::npos) << found;
  EXPECT_NE(found.find("entry above its separator"), std::string::npos) << found;
}

TEST_F(IndexTrees, AnInsertBringsALooseSeparatorDownToItsChildsGreatestEntry) {
  make(true, small_nodes(16));
  ASSERT_EQ(add("N", 1), 1);
  for (int i = 0; depth("N") < 2; ++i) ASSERT_EQ(insert("N", "k" + std::to_string(1000 + i), "id"), 1);
  KeyEntry bound = node_entries(root("N")).front();
  ASSERT_EQ(remove("N", bound.key, "id"), 1);
  EXPECT_EQ(node_entries(root("N")).front().key, bound.key) << "a removal leaves the bound loose";
  ASSERT_EQ(insert("N", "k0", "id"), 1);
  KeyEntry tight = node_entries(root("N")).front();
  EXPECT_EQ(tight.key, node_entries(tight.child).back().key);
  EXPECT_LT(tight.key, bound.key);
  EXPECT_EQ(check(), "");
}

// Clearing a file through its VOC entry empties its index files through
// their headers: the trees stay usable and take the next writes.
TEST(IndexClear, AClearedFileKeepsUsableEmptyIndexes) {
  TempDir tmp;
  std::filesystem::path previous = std::filesystem::current_path();
  std::filesystem::current_path(tmp.path());
  ASSERT_EQ(M_create_hashed("VOC", 7, 1, 0, 0, nullptr), 1);
  ASSERT_EQ(M_open_voc("VOC"), 1);
  for (const char* name : {"CUST", "STAT"}) {
    ASSERT_EQ(M_create_hashed(name, std::string(name) == "CUST" ? 1 : 7, 1, std::string(name) == "CUST" ? 64 : 0, 0,
                              nullptr), 1);
    REL_TYPE voc;
    ASSERT_EQ(M_openfile(&voc, "VOC", 2), 1);
    std::string entry = "F" + std::string(1, static_cast<char>(M_FM)) + name + static_cast<char>(M_FM) + "D_" + name;
    ASSERT_EQ(M_append_strtuple(&voc, key_bytes(name), 4, bytes(entry), length(entry), 0, nullptr), 1);
    M_closefile(&voc);
    REL_TYPE rel;
    ASSERT_EQ(M_openfile(&rel, name, 2), 1);
    ASSERT_EQ(M_create_index_file(&rel, small_nodes(8)), 1);
    ASSERT_EQ(M_add_index(&rel, "N", 'D', 'S', 'T', 0, 1, nullptr, false), 1);
    for (int i = 0; i < 300; ++i) {
      std::string k = "k" + std::to_string(i), r = "a longer value " + std::to_string(i);
      ASSERT_EQ(M_append_strtuple(&rel, bytes(k), length(k), bytes(r), length(r), 0, nullptr), 1);
    }
    M_closefile(&rel);
    ASSERT_EQ(M_clear_one(name, 4, CLEAR_DATA, 0, 0, 0), 1) << name;
    ASSERT_EQ(M_openfile(&rel, name, 2), 1);
    ASSERT_NE(rel.index, nullptr) << name << ": the header counts its index again";
    EXPECT_EQ(M_ndx_gethdr(&rel), 1);
    int n = 0;
    EXPECT_EQ(M_index_walk(rel.index, 0, "", true, [&](const std::string&, const std::string&) { return ++n, 0; }), 1);
    EXPECT_EQ(n, 0) << name;
    std::string k = "x", r = "new";
    ASSERT_EQ(M_append_strtuple(&rel, bytes(k), 1, bytes(r), 3, 0, nullptr), 1);
    SearchContext c;
    EXPECT_EQ(M_find_key(rel.index, 0, FIND_EQUAL, "new", &c), 1);
    EXPECT_TRUE(M_check_index(rel.index).empty());
    M_closefile(&rel);
  }
  M_close_voc();
  std::filesystem::current_path(previous);
}

}  // namespace
