// Clearing files through their VOC entries: the layout each kind keeps, the
// parts a grown dynamic file loses, and the clears that are refused.
#include "flib/fl_clear.h"

#include "common/mrv_marks.h"
#include "flib/fl_coding.h"
#include "flib/fl_filehdr.h"
#include "flib/fl_mkfile.h"
#include "flib/fl_ovhdr.h"
#include "flib/fl_test_util.h"
#include "flib/fl_voc.h"

namespace {

namespace fs = std::filesystem;

std::string fm() { return std::string(1, static_cast<char>(M_FM)); }

// An account of its own: a VOC in a scratch directory that is the working
// directory for the test, as it is for the tool.
class FlClear : public testing::Test {
 protected:
  TempDir tmp;
  fs::path previous = fs::current_path();

  void SetUp() override {
    fs::current_path(tmp.path());
    ASSERT_EQ(M_create_hashed("VOC", 7, 1, 0, 0, nullptr), 1);
    ASSERT_EQ(M_open_voc("VOC"), 1);
  }
  void TearDown() override {
    M_close_voc();
    fs::current_path(previous);
  }

  static void put(const std::string& path, const std::string& key, const std::string& record) {
    REL_TYPE rel;
    ASSERT_EQ(M_openfile(&rel, path.c_str(), 2), 1) << path;
    EXPECT_EQ(M_append_strtuple(&rel, bytes(key), length(key), bytes(record), length(record), 0, nullptr), 1);
    M_closefile(&rel);
  }
  // The keys of a file, in no particular order.
  static std::vector<std::string> keys(const std::string& path) {
    REL_TYPE rel;
    std::vector<std::string> found;
    EXPECT_EQ(M_openfile(&rel, path.c_str(), 0), 1) << path;
    M_for_each_key(&rel, [&](const uint8_t* key, int32_t n, const uint8_t*, int32_t, uint32_t) {
      found.emplace_back(reinterpret_cast<const char*>(key), static_cast<size_t>(n));
      return 0;
    });
    M_closefile(&rel);
    std::sort(found.begin(), found.end());
    return found;
  }
};

TEST_F(FlClear, StaticDataAndDictionaryKeepTheirLayoutAndEntry) {
  ASSERT_EQ(M_create_file("F", nullptr, 3, 7, 1, 2, CREATE_DATA | CREATE_DICT, 0, 0, nullptr), 1);
  for (int i = 0; i < 40; ++i) put("F", "K" + std::to_string(i), std::string(300, 'x'));
  put("D_F", "NAME", "D" + fm() + "1");
  std::string entry;
  ASSERT_EQ(M_voc_read("F", &entry), 1);

  EXPECT_EQ(M_clear_file("F", CLEAR_DATA, 1, 0, 0), 1);
  EXPECT_TRUE(keys("F").empty());
  REL_TYPE rel;
  ASSERT_EQ(M_openfile(&rel, "F", 0), 1);
  EXPECT_EQ(rel.modulo, 7);
  EXPECT_EQ(rel.block_size, 2048u);
  M_closefile(&rel);
  EXPECT_EQ(fs::file_size("F"), 8u * 2048);  // header and one head block a group
  EXPECT_EQ(keys("D_F"), (std::vector<std::string>{"@ID", "NAME"}));

  // The dictionary is emptied down to its "@ID" item, laid out at its own
  // modulo, and the entry stays as it was.
  EXPECT_EQ(M_clear_file("F", CLEAR_DICT, 0, 0, 0), 1);
  EXPECT_EQ(keys("D_F"), std::vector<std::string>{"@ID"});
  ASSERT_EQ(M_openfile(&rel, "D_F", 0), 1);
  EXPECT_EQ(rel.modulo, 3);
  M_closefile(&rel);
  std::string after;
  ASSERT_EQ(M_voc_read("F", &after), 1);
  EXPECT_EQ(after, entry);
  EXPECT_EQ(check_findings("F"), "");
  EXPECT_EQ(check_findings("D_F"), "");
  // The cleared file takes records as a new one does.
  put("F", "AGAIN", "y");
  EXPECT_EQ(keys("F"), std::vector<std::string>{"AGAIN"});
}

TEST_F(FlClear, AGrownDynamicFileComesBackAtItsMinimumWithoutItsSurplusParts) {
  // Parts of 7 groups: 20 groups take dat001 to dat003.
  ScopedEnv small("MAX_FLENGTH", "8192");
  ASSERT_EQ(M_create_file("DYN", nullptr, 1, 20, 1, 1, CREATE_DATA, 0, HASH_DYNAMIC, nullptr), 1);
  ASSERT_TRUE(fs::exists("DYN/dat003"));
  // The file as 17 splits from a minimum of 3 leave it: the minimum in the
  // live state of over001 and in the header of the first part.
  auto over = read_bytes("DYN/over001");
  fl_put_u32(over.data(), OH_MIN_MODULO, 3);
  write_bytes("DYN/over001", over);
  auto dat = read_bytes("DYN/dat001");
  fl_put_i32(dat.data(), FH_MODULO, 3);
  write_bytes("DYN/dat001", dat);
  for (int i = 0; i < 60; ++i) put("DYN", "R" + std::to_string(i), std::string(200, 'r'));
  ASSERT_EQ(check_findings("DYN"), "");
  // Files of the directory that a clear leaves alone, and one it does not.
  spill("DYN/idx001", "index");
  spill("DYN/.note", "hidden");
  spill("DYN/stray", "x");

  EXPECT_EQ(M_clear_file("DYN", CLEAR_DATA, 1, 0, 0), 1);
  std::vector<std::string> left;
  for (const auto& e : fs::directory_iterator("DYN")) left.push_back(e.path().filename().string());
  std::sort(left.begin(), left.end());
  EXPECT_EQ(left, (std::vector<std::string>{".note", "dat001", "idx001", "over001"}));
  EXPECT_EQ(slurp("DYN/idx001"), "index");
  REL_TYPE rel;
  ASSERT_EQ(M_openfile(&rel, "DYN", 2), 1);
  EXPECT_EQ(rel.modulo, 3);
  EXPECT_EQ(rel.min_modulo, 3);
  EXPECT_EQ(rel.primary.size(), 1u);
  M_closefile(&rel);
  EXPECT_EQ(fs::file_size("DYN/dat001"), 4u * 1024);
  EXPECT_EQ(fs::file_size("DYN/over001"), 1024u);
  EXPECT_TRUE(keys("DYN").empty());
  EXPECT_EQ(check_findings("DYN"), "");
  put("DYN", "AFTER", "z");
  EXPECT_EQ(keys("DYN"), std::vector<std::string>{"AFTER"});
}

TEST_F(FlClear, ADirectoryLosesItsFilesAndItsDictionaryIsClearedApart) {
  ASSERT_EQ(M_create_file("BP", nullptr, 1, 0, 1, 1, CREATE_DIR, 0, 0, nullptr), 1);
  spill("BP/MAIN", "PRINT 1");
  fs::create_directory("BP/SUB");
  spill("BP/SUB/DEEP", "x");
  put("D_BP", "NAME", "D");

  // dict_mode 1 clears the hashed dictionary, not the directory.
  EXPECT_EQ(M_clear_file("BP", CLEAR_DICT, 1, 0, 0), 1);
  EXPECT_EQ(keys("D_BP"), std::vector<std::string>{"@ID"});
  EXPECT_TRUE(fs::exists("BP/MAIN"));

  EXPECT_EQ(M_clear_file("BP", CLEAR_DATA, 1, 0, 0), 1);
  EXPECT_TRUE(fs::is_directory("BP"));
  EXPECT_TRUE(fs::is_empty("BP"));
}

TEST_F(FlClear, AMultiLevelDictionaryKeepsItsMemberPointers) {
  ASSERT_EQ(M_create_hashed("D_ML", 3, 1, 0, 0, nullptr), 1);
  ASSERT_EQ(M_voc_write("ML", "LF" + fm() + "ML" + fm() + "D_ML"), 1);
  put("D_ML", "@ID", "D");
  put("D_ML", "@M1", "LF");
  put("D_ML", "@M2", "ld" + fm() + "x");
  put("D_ML", "@OTHER", "D" + fm() + "1");
  put("D_ML", "NAME", "LF");

  EXPECT_EQ(M_clear_file("ML", CLEAR_DICT, 1, 0, 0), 1);
  EXPECT_EQ(keys("D_ML"), (std::vector<std::string>{"@ID", "@M1", "@M2"}));
}

TEST_F(FlClear, RefusedClearsLeaveEverythingAsItWas) {
  ASSERT_EQ(M_create_file("F", nullptr, 1, 7, 1, 1, CREATE_DATA, 0, 0, nullptr), 1);
  put("F", "KEEP", "me");
  // Another name for the same file.
  ASSERT_EQ(M_voc_write("G", "F" + fm() + "F" + fm()), 1);
  ASSERT_EQ(M_voc_write("V", "V" + fm() + "VOC"), 1);
  ASSERT_EQ(M_voc_write("HALF", "F" + fm() + fm() + "D_HALF"), 1);
  testing::internal::CaptureStdout();
  EXPECT_EQ(M_clear_file("NOSUCH", CLEAR_DATA, 1, 0, 0), 0);
  EXPECT_EQ(M_clear_file("V", CLEAR_DATA, 1, 0, 0), 0);       // the VOC itself
  EXPECT_EQ(M_clear_file("G", CLEAR_DATA, 0, 0, 0), 0);       // not its own path without force
  EXPECT_EQ(M_clear_file("HALF", CLEAR_DATA, 1, 0, 0), 0);    // no data part
  EXPECT_EQ(M_clear_file("F", CLEAR_DICT, 1, 0, 0), 0);       // no dictionary
  testing::internal::GetCapturedStdout();
  EXPECT_EQ(keys("F"), std::vector<std::string>{"KEEP"});

  // A file with a delete trigger is not emptied behind its trigger's back.
  auto header = read_bytes("F");
  const std::string trigger = "ON.DELETE";
  std::copy(trigger.begin(), trigger.end(), header.begin() + FH_DELETE_TRIGGER);
  write_bytes("F", header);
  stdout_of([&] { EXPECT_EQ(M_clear_file("F", CLEAR_DATA, 1, 0, 0), 0); });
  EXPECT_EQ(keys("F"), std::vector<std::string>{"KEEP"});
}

TEST(RemoveDirFiles, PrefixesKeepOrDeleteAndDotNamesStay) {
  TempDir tmp;
  const fs::path d = tmp.path() / "D";
  auto fill = [&] {
    fs::create_directories(d / "sub");
    for (const char* name : {"dat001", "dat002", "over001", "idx1", ".hidden", "other"}) spill(d / name, "x");
  };
  auto names = [&] {
    std::vector<std::string> out;
    for (const auto& e : fs::directory_iterator(d)) out.push_back(e.path().filename().string());
    std::sort(out.begin(), out.end());
    return out;
  };
  fill();
  EXPECT_EQ(M_remove_dir_files(d.c_str(), "^dat001|over|idx"), 1);
  EXPECT_EQ(names(), (std::vector<std::string>{".hidden", "dat001", "idx1", "over001"}));
  fs::remove_all(d);
  fill();
  EXPECT_EQ(M_remove_dir_files(d.c_str(), "dat|sub"), 1);
  EXPECT_EQ(names(), (std::vector<std::string>{".hidden", "idx1", "other", "over001"}));
  // No pattern: the directory goes with its files, the hidden one aside,
  // so the directory stays and the result says so.
  EXPECT_EQ(M_remove_dir_files(d.c_str(), nullptr), 0);
  EXPECT_EQ(names(), std::vector<std::string>{".hidden"});
  fs::remove(d / ".hidden");
  EXPECT_EQ(M_remove_dir_files(d.c_str(), ""), 1);
  EXPECT_FALSE(fs::exists(d));
}

}  // namespace
