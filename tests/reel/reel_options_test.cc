// The option scanner and the settings it leaves behind.
#include "reel/reel_options.h"

#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "reel/reel_settings.h"

namespace {

// Holds an argument vector the way main receives it.
struct Argv {
  std::vector<std::string> words;
  std::vector<char*> pointers;
  explicit Argv(std::vector<std::string> w) : words(std::move(w)) {
    words.insert(words.begin(), "REEL_INTAKE");
    for (auto& s : words) pointers.push_back(s.data());
    pointers.push_back(nullptr);
  }
  int argc() const { return static_cast<int>(words.size()); }
  char** argv() { return pointers.data(); }
};

const RunSettings& parse(std::vector<std::string> words) {
  reel_reset_settings();
  reel_optind = 1;
  Argv a(std::move(words));
  reel_parse_options(a.argc(), a.argv());
  return reel_settings;
}

TEST(Getopt, ArgumentsGluedOrSeparateAndOnlyTheSecondCharacterCounts) {
  Argv a({"-U3", "-M", "1", "-DO", "-Xab", "--", "-A", "acct"});
  reel_optind = 1;
  EXPECT_EQ(reel_getopt(a.argc(), a.argv(), REEL_OPTSTRING), 'U');
  EXPECT_STREQ(reel_optarg, "3");
  EXPECT_EQ(reel_getopt(a.argc(), a.argv(), REEL_OPTSTRING), 'M');
  EXPECT_STREQ(reel_optarg, "1");
  EXPECT_EQ(reel_getopt(a.argc(), a.argv(), REEL_OPTSTRING), 'D');  // the O is dropped
  EXPECT_EQ(reel_optarg, nullptr);
  EXPECT_EQ(reel_getopt(a.argc(), a.argv(), REEL_OPTSTRING), 'X');
  EXPECT_STREQ(reel_optarg, "ab");
  EXPECT_EQ(reel_getopt(a.argc(), a.argv(), REEL_OPTSTRING), -1);  // "--"
  EXPECT_EQ(reel_optind, 7);
  EXPECT_EQ(reel_getopt(a.argc(), a.argv(), REEL_OPTSTRING), 'A');  // a caller may go on
  EXPECT_STREQ(reel_optarg, "acct");
}

TEST(Getopt, LoneDashAndColonAreIllegalAndPlainWordsEndTheScan) {
  testing::internal::CaptureStderr();
  Argv a({"-", "-:", "acct", "-D"});
  reel_optind = 1;
  EXPECT_EQ(reel_getopt(a.argc(), a.argv(), REEL_OPTSTRING), '?');
  EXPECT_EQ(reel_getopt(a.argc(), a.argv(), REEL_OPTSTRING), '?');
  EXPECT_EQ(reel_getopt(a.argc(), a.argv(), REEL_OPTSTRING), -1);
  EXPECT_EQ(reel_optind, 3);
  std::string err = testing::internal::GetCapturedStderr();
  EXPECT_EQ(err, std::string("REEL_INTAKE: illegal option -- ") + '\0' +
                     "\nREEL_INTAKE: illegal option -- :\n");
}

TEST(ParseOptions, SettingsOfEachOptionInEitherCase) {
  const RunSettings& s = parse({"-l12", "-u7x", "-M01", "-g", "c", "-GB", "-k", "0", "-s", "-e",
                                "-t", "/tmp/t", "-x", "#", "-X", "%", "acct"});
  EXPECT_EQ(s.level_base, 54);  // -L12 is level 1
  EXPECT_EQ(s.level_file, 102);
  EXPECT_EQ(s.level_sub, 150);
  EXPECT_EQ(s.unit_char, '7');
  EXPECT_EQ(s.convert_mode, '0');
  EXPECT_EQ(s.transport_c, 1);
  EXPECT_EQ(s.transport_b, 1);
  EXPECT_EQ(s.buffer_factor, 0);
  EXPECT_EQ(s.short_names, 1);
  EXPECT_EQ(s.erase_first, 1);
  EXPECT_EQ(s.target_dir, "/tmp/t");
  EXPECT_EQ(s.name_bad_chars, std::string(REEL_DEFAULT_BAD_CHARS) + "#%");
  EXPECT_EQ(s.account_name, "acct");
}

TEST(ParseOptions, OverlayBeatsDataOnlyInEitherOrder) {
  EXPECT_EQ(parse({"-D", "-O", "a"}).data_only, 0);
  EXPECT_EQ(parse({"-O", "-D", "a"}).data_only, 0);
  EXPECT_EQ(parse({"-D", "a"}).data_only, 1);
}

TEST(ParseOptions, HashTypeWordsAreExactAndOthersPassInSilence) {
  EXPECT_EQ(parse({"-H", "DYNAMIC1", "a"}).dynamic_zero, 0);
  EXPECT_EQ(parse({"-H", "dynamic1", "-H", "dynamic0", "a"}).dynamic_zero, 1);
  EXPECT_EQ(parse({"-H", "Dynamic1", "a"}).dynamic_zero, 1);
  EXPECT_EQ(parse({"-H", "dynamic2", "a"}).dynamic_zero, 1);
}

TEST(ParseOptions, ModesAndTheAccountWord) {
  const RunSettings& a = parse({"-A", "plan"});
  EXPECT_EQ(a.analyse_mode, 1);
  EXPECT_EQ(a.analyse_file, "plan");
  EXPECT_EQ(a.account_name, "");
  EXPECT_EQ(parse({"-A", "plan", "acct"}).account_name, "");  // accepted and ignored
  const RunSettings& both = parse({"-A", "p1", "-C", "p2", "acct"});
  EXPECT_EQ(both.create_mode, 1);
  EXPECT_EQ(both.account_name, "acct");
  EXPECT_EQ(parse({"-R", "ALL", "a"}).recovery_mode, 2);
  EXPECT_EQ(parse({"-r", "all", "a"}).recovery_mode, 2);
}

TEST(ParseOptions, ExtraNameCharactersStopAtTheFillMap) {
  const RunSettings& s = parse({"-X", std::string(60, '#'), "a"});
  EXPECT_EQ(s.name_bad_chars.size(), REEL_NAME_FILL_LEN);
  EXPECT_EQ(s.name_fill_chars, std::string(REEL_NAME_FILL_LEN, '_'));
}

}  // namespace
