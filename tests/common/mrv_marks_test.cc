// Marks from the language group, the group rules, and LANGGRP look-ups.
#include "common/mrv_marks.h"

#include <cstdlib>

#include "common/readroot.h"
#include "support/console.h"
#include "support/files.h"
#include "support/temp_dir.h"

namespace {

class Marks : public testing::Test {
 protected:
  void SetUp() override {
    std::filesystem::create_directories(dir_.path() / "include");
    std::filesystem::create_directories(dir_.path() / "sys");
    setenv("MRVHOME", dir_.str().c_str(), 1);
    setenv("MRVBIN", dir_.str().c_str(), 1);
    setenv("MRV_TEMP", dir_.str().c_str(), 1);
    setenv("MRV_REGISTRY", (dir_.str() + "/no-registry").c_str(), 1);
    reset_root_for_tests();
  }
  void TearDown() override {
    M_set_marks(DEFAULT_RECORD_MARK, DEFAULT_PRINT_AT, DEFAULT_NULL_VALUE);
    M_null_flag = 0;
    for (const char* name : {"MRVHOME", "MRVBIN", "MRV_TEMP", "MRV_REGISTRY"}) unsetenv(name);
    reset_root_for_tests();
  }
  std::string messages() const { return console_.text(); }
  ConsoleCapture console_;
  TempDir dir_;
};

TEST_F(Marks, SetMarksCountsDownFromTheRecordMark) {
  EXPECT_EQ(M_RM, 255);
  EXPECT_EQ(M_RMM1, 249);
  EXPECT_EQ(M_NULLVAL, 129);
  M_set_marks(254, 192, 129);
  EXPECT_EQ(M_FM, 253);
  EXPECT_EQ(M_VM, 252);
  EXPECT_EQ(M_SM, 251);
  EXPECT_EQ(M_TM, 250);
  EXPECT_EQ(M_RMM2, 249);
  EXPECT_EQ(M_RMM1, 248);
  EXPECT_EQ(static_cast<unsigned char>(M_nullval[0]), 129);
  EXPECT_EQ(M_langgrp[0], 254);
  EXPECT_EQ(M_langgrp_text(), "254/192/129");
}

TEST_F(Marks, GroupRules) {
  EXPECT_TRUE(langgrp_valid(255, 192, 129));
  EXPECT_FALSE(langgrp_valid(255, 192, 65));   // printable null value
  EXPECT_FALSE(langgrp_valid(255, 32, 129));   // a mark of 32 is refused
  EXPECT_TRUE(langgrp_valid(255, 31, 129));    // 31 passes
  EXPECT_FALSE(langgrp_valid(255, 250, 129));  // print-at among the marks
  EXPECT_FALSE(langgrp_valid(255, 129, 129));  // the two must differ
  EXPECT_FALSE(langgrp_valid(130, 192, 129));  // 124, six below, is printable
  EXPECT_FALSE(langgrp_valid(6, 192, 129));
}

TEST_F(Marks, ReadConfigMarksTakesOnlyAValidGroupWithoutBlanks) {
  const std::string config = dir_.str() + "/include/mrvconfig";
  spill(config, "# marks\nNULL_FLAG=1\nMRV_LANGGRP=250-192-129 trailing\n");
  EXPECT_EQ(read_config_marks(), 0);
  EXPECT_EQ(M_RM, 250);
  EXPECT_EQ(M_FM, 249);
  EXPECT_EQ(M_null_flag, 1);

  M_set_marks(255, 192, 129);
  spill(config, "MRV_LANGGRP = 250/192/129\n");
  EXPECT_EQ(read_config_marks(), 0);
  EXPECT_EQ(M_RM, 255);
  spill(config, "MRV_LANGGRP=250/192/65\n");
  EXPECT_EQ(read_config_marks(), 0);
  EXPECT_EQ(M_RM, 255);
  EXPECT_EQ(messages(), "");
}

TEST_F(Marks, LanggrpCheckAndFind) {
  spill(dir_.str() + "/sys/LANGGRP",
        "# groups\n\n255/192/129\nENGLISH C en_US\nEND\n"
        "254/192/129\nGREEK el_GR el\nFRENCH fr_FR\nEND\n"
        "253/192/129\nABCDEFGHIJKLMNOP x\nEND\n");
  EXPECT_EQ(langgrp_check(LANGGRP_HAS_GROUP, "254/192/129", nullptr), 1);
  EXPECT_EQ(langgrp_check(LANGGRP_HAS_GROUP, "252/192/129", nullptr), 0);
  EXPECT_EQ(langgrp_check(LANGGRP_HAS_LOCALE, nullptr, "en_US"), 1);  // the running group
  EXPECT_EQ(langgrp_check(LANGGRP_HAS_LOCALE, nullptr, "el"), 0);
  EXPECT_EQ(langgrp_check(LANGGRP_HAS_LANGUAGE, "254/192/129", "FRENCH"), 1);
  std::string found;
  EXPECT_EQ(langgrp_find(LANGGRP_LANGUAGE_OF_LOCALE, "254/192/129", "el", &found), 0);
  EXPECT_EQ(found, "GREEK");
  EXPECT_EQ(langgrp_find(LANGGRP_LOCALE_OF_LANGUAGE, "254/192/129", "FRENCH", &found), 0);
  EXPECT_EQ(found, "fr_FR");
  EXPECT_EQ(langgrp_find(LANGGRP_LANGUAGE_OF_LOCALE, "254/192/129", "en_US", &found), -1);
  EXPECT_EQ(messages(), "");
  EXPECT_EQ(langgrp_check(LANGGRP_HAS_LANGUAGE, "253/192/129", "X"), 0);
  EXPECT_EQ(messages(), "Bad mrvlang 'ABCDEFGHIJKLMNOP' in LANGGRP file");
  std::filesystem::remove(dir_.str() + "/sys/LANGGRP");
  console_.clear();
  EXPECT_EQ(langgrp_check(LANGGRP_HAS_GROUP, "255/192/129", nullptr), 0);
  EXPECT_EQ(messages(), "Can't open file " + dir_.str() + "/sys/LANGGRP\n");
}

}  // namespace
