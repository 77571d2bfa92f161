// Choosing the language of an account's messages.
#include "flib/fl_lang.h"

#include <cstdlib>

#include "common/mrv_marks.h"
#include "common/readroot.h"
#include "support/console.h"
#include "support/files.h"
#include "support/temp_dir.h"

namespace {

class Language : public testing::Test {
 protected:
  void SetUp() override {
    std::filesystem::create_directories(dir_.path() / "sys");
    spill(dir_.path() / "sys/LANGGRP", "255/192/129\nENGLISH C en_US\nGREEK el_GR\nEND\n254/192/129\nFRENCH fr_FR\nEND\n");
    setenv("MRVHOME", dir_.str().c_str(), 1);
    unsetenv("MRV_LANG");
  }
  void TearDown() override {
    unsetenv("MRVHOME");
    unsetenv("MRV_LANG");
    setenv("LANG", "C", 1);
    M_set_marks(DEFAULT_RECORD_MARK, DEFAULT_PRINT_AT, DEFAULT_NULL_VALUE);
  }
  ConsoleCapture console_;
  TempDir dir_;
};

TEST_F(Language, MrvLangFirstThenTheLocaleOfLang) {
  setenv("LANG", "el_GR.UTF-8", 1);  // tried without its code set
  EXPECT_EQ(M_choose_language(), "GREEK");
  setenv("MRV_LANG", "ENGLISH", 1);
  EXPECT_EQ(M_choose_language(), "ENGLISH");
  setenv("MRV_LANG", "FRENCH", 1);  // a language of another group
  EXPECT_EQ(M_choose_language(), "");
  EXPECT_EQ(console_.text(), "Error msgno = 30403. \n");

  console_.clear();
  M_set_marks(254, 192, 129);
  unsetenv("MRV_LANG");
  setenv("LANG", "en_US", 1);
  EXPECT_EQ(M_choose_language(), "");
  EXPECT_EQ(console_.text(), "Can't get mrvlang from LANGGRP using locale en_US");
  setenv("LANG", "fr_FR", 1);
  EXPECT_EQ(M_choose_language(), "FRENCH");
}

}  // namespace
