// The level logger and its rules.
#include "common/init_logs.h"

#include <unistd.h>

#include <cstdlib>
#include <string>

#include <gtest/gtest.h>

namespace {

TEST(LogRule, SingleRuleWithKeywordsAndFilters) {
  auto rule = log_parse_single_rule("4 /PID /DT +fl_io.cc *M_blkread/CWD");
  ASSERT_TRUE(rule);
  EXPECT_EQ(rule->level, 4);
  EXPECT_EQ(rule->flags, LOG_PID | LOG_DT | LOG_CWD);
  ASSERT_EQ(rule->filters.size(), 2u);
  EXPECT_EQ(rule->filters[0].kind, '+');
  EXPECT_EQ(rule->filters[0].text, "fl_io.cc");
  EXPECT_EQ(rule->filters[1].kind, '*');
  EXPECT_EQ(rule->filters[1].text, "M_blkread");

  rule = log_parse_single_rule("2/NOSUCH//+");  // unknown keyword and empty words pass
  ASSERT_TRUE(rule);
  EXPECT_EQ(rule->flags, 0);
  EXPECT_TRUE(rule->filters.empty());
}

TEST(LogRule, LaterDigitsOfALevelStopAtEight) {
  EXPECT_EQ(log_parse_single_rule("9")->level, 9);
  EXPECT_EQ(log_parse_single_rule("18")->level, 18);
  EXPECT_EQ(log_parse_single_rule("90")->level, 90);
  EXPECT_FALSE(log_parse_single_rule("19"));
  EXPECT_FALSE(log_parse_single_rule("x"));
  EXPECT_FALSE(log_parse_single_rule("2 ?"));
}

// Which rule of a file a process takes: a process number beats an earlier
// name match, "0" ends the rules, a broken rule ends the reading.
TEST(LogRule, SelectionFromAFile) {
  const std::string machine =
      "# rules of this machine\n\n  morvane = 4 /PID,\nrfs = 6,\n4242 = 1 /DT,\nmorvane = 7,\n0\n4243 = 9,\n";
  struct Case {
    std::string file;
    int pid;
    const char* name;
    int level;  // -1: no rule
  } cases[] = {
      {machine, 4242, "morvane", 1},
      {machine, 1, "morvane", 4},  // the first name match
      {machine, 4243, "other", -1},
      {"other = 2,\n1000 = 19,\n1000 = 3,\n", 1000, "morvane", -1},
      {"morvane = 5,\n1000 = 19,\n1000 = 3,\n", 1000, "morvane", 5},
      {"# only\n#comments\n", 1, "morvane", -1},
      {"x = 2 #no\n", 1, "x", -1},  // "#" inside a line is ordinary
  };
  for (const Case& c : cases) {
    auto rule = log_select_rule(c.file, c.pid, c.name);
    EXPECT_EQ(rule ? rule->level : -1, c.level) << c.file << c.pid;
  }
}

TEST(LogRule, FiltersCompareTheLastPathPartWithCaseFolded) {
  LogConfig rule = *log_parse_single_rule("5 +Fl_Io.cc *Reader");
  EXPECT_TRUE(log_source_passes(rule, "/src/flib/FL_IO.CC", "other"));
  EXPECT_TRUE(log_source_passes(rule, "a\\b\\x.cc", "some\\READER"));
  EXPECT_FALSE(log_source_passes(rule, "/src/flib/fl_io.h", "writer"));
  EXPECT_TRUE(log_source_passes(rule, nullptr, nullptr));
  EXPECT_TRUE(log_source_passes(LogConfig{}, "any.cc", "any"));
}

class Logger : public testing::Test {
 protected:
  void TearDown() override {
    unsetenv("MRMSGCONFIG");
    log_reset_config();
    mrv_log_source_file = nullptr;
    mrv_log_routine = nullptr;
  }
};

TEST_F(Logger, EnvironmentRuleGivesPrefixesAndIsReadOnce) {
  setenv("MRMSGCONFIG", "2/PID/DT", 1);
  log_reset_config();
  testing::internal::CaptureStdout();
  mrv_log(2, "hello %d\n", 7);
  setenv("MRMSGCONFIG", "9", 1);  // not seen: the rule is final
  mrv_log(4, "dropped\n");
  mrv_log(1, "plain\n");
  std::string out = testing::internal::GetCapturedStdout();
  std::string pid = "pid=" + std::to_string(getpid()) + " hello 7\n";
  ASSERT_GE(out.size(), 20u);
  EXPECT_EQ(out[19], ' ');  // 19 characters of the time of day, then a blank
  EXPECT_EQ(out.substr(20, pid.size()), pid);
  EXPECT_EQ(out.substr(20 + pid.size()), "plain\n");
}

TEST_F(Logger, LevelThreeAlwaysPassesAndGoesToBothStreams) {
  setenv("MRMSGCONFIG", "0 +nowhere.cc", 1);
  log_reset_config();
  MRV_LOG_SOURCE();
  testing::internal::CaptureStdout();
  testing::internal::CaptureStderr();
  mrv_log(3, "always\n");
  mrv_log(2, "filtered\n");
  EXPECT_EQ(testing::internal::GetCapturedStdout(), "always\n");
  EXPECT_EQ(testing::internal::GetCapturedStderr(), "always\n");
}

TEST_F(Logger, ABrokenEnvironmentRuleFallsBackToTheDefault) {
  setenv("MRMSGCONFIG", "19", 1);
  log_reset_config();
  const LogConfig& rule = log_current_config();
  EXPECT_EQ(rule.level, 2);
  EXPECT_EQ(rule.flags, LOG_DT);
  EXPECT_EQ(rule.pid, -1);
}

}  // namespace
