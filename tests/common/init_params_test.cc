// mrvconfig: the line table, the strict loader, the export to the
// environment and the rule set.
#include "common/init_params.h"

#include <sys/stat.h>

#include <cstdio>
#include <cstdlib>

#include "common/init_logs.h"
#include "common/readconf.h"
#include "support/console.h"
#include "support/files.h"
#include "support/temp_dir.h"

namespace {

// Console messages go to the message buffer and the level log to a file, so
// that both can be compared.
class Config : public testing::Test {
 protected:
  void SetUp() override {
    log_ = std::tmpfile();
    mrv_log_streams[0] = log_;
    path_ = dir_.str() + "/mrvconfig";
    config_set_path(path_);
  }
  void TearDown() override {
    mrv_log_streams[0] = nullptr;
    std::fclose(log_);
    config_clear_lines();
  }
  std::string messages() const { return console_.text(); }
  std::string log() const {
    std::fflush(log_);
    std::rewind(log_);
    std::string text;
    for (int c; (c = std::fgetc(log_)) != EOF;) text += static_cast<char>(c);
    return text;
  }
  // A complete file with every default, its lines for `name` replaced by
  // `line` (or dropped when empty).
  std::string complete(const std::string& name = "", const std::string& line = "") const {
    ConfigRecord r;
    config_default_record(dir_.str() + "/", &r);
    std::snprintf(r.TMP, sizeof r.TMP, "%s/", dir_.str().c_str());
    std::string text = config_file_text(r), out;
    size_t at = 0;
    for (size_t nl; (nl = text.find('\n', at)) != std::string::npos; at = nl + 1) {
      std::string l = text.substr(at, nl - at);
      if (!name.empty() && l.rfind(name + "=", 0) == 0) {
        if (!line.empty()) out += line + "\n";
        continue;
      }
      out += l + "\n";
    }
    return out;
  }
  int load(const std::string& text, ConfigRecord* r) {
    spill(path_, text);
    return config_strict_load(r);
  }

  ConsoleCapture console_;
  TempDir dir_;
  std::string path_;
  FILE* log_ = nullptr;
};

TEST_F(Config, LinesAreNormalisedCutAndLookedUpFirstWins) {
  const std::string long_value = std::string(506, 'v');  // "LONG=" + 506: the buffer's 511
  spill(path_,
        "# a comment = stays\n"
        "  NFILES  =  60   trailing remark\n"
        "*starred line\n"
        "-minus line\n"
        "LONG=" + long_value + "*the rest of a 600-character line" + std::string(55, 'r') + "\n"
        "   \t \n"
        "MAX_DSFILES=7\n"
        "MAX_DSFILES=9\n"
        "NVLMARK=\n");
  ASSERT_EQ(config_read_file(), 0) << messages();
  EXPECT_EQ(messages(), "");
  EXPECT_EQ(config_line_count(), 10);
  EXPECT_STREQ(config_line(0), "# a comment = stays");
  EXPECT_STREQ(config_line(1), "NFILES=60");
  EXPECT_STREQ(config_line(2), "*starred line");
  EXPECT_EQ(std::string(config_line(4)), "LONG=" + long_value.substr(0, 122));
  EXPECT_EQ(std::string(config_line(5)), "*the rest of a 600-character line" + std::string(55, 'r'));
  EXPECT_EQ(config_get_uint("NFILES", -1), 60);
  EXPECT_EQ(config_get_uint("MAX_DSFILES", -1), 7);
  EXPECT_EQ(config_get_uint("NFILE", -1), -1);  // the length must match too
  EXPECT_EQ(config_get_uint("nfiles", -1), -1);  // and the case
  EXPECT_EQ(config_find_line("#"), config_line_count());
  EXPECT_STREQ(config_get_string("NVLMARK", "absent"), "");
  EXPECT_STREQ(config_get_string("TMP", "absent"), "absent");
  EXPECT_EQ(config_get_uint("NVLMARK", 5), 5);  // nothing to scan: invalid
}

TEST_F(Config, InvalidLinesEndTheRead) {
  struct Case {
    std::string text;
    std::string message;
  } cases[] = {
      {"NFILES=1\nNFILES 60\n", "Invalid item in \"" + path_ + "\", line 2\n"},
      {"  = 60\n", "Invalid item \"=60\" in \"" + path_ + "\", line 1\n"},
      {"NFILES 60 = 3\n", "Invalid item \"NFILES 60 = 3\" in \"" + path_ + "\", line 1\n"},
      // What lies past the 512-byte buffer is a line of its own.
      {"A=" + std::string(598, 'x') + "\n", "Invalid item in \"" + path_ + "\", line 2\n"},
  };
  for (const Case& c : cases) {
    console_.clear();
    spill(path_, c.text);
    EXPECT_EQ(config_read_file(), -1) << c.text;
    EXPECT_EQ(messages(), c.message) << c.text;
  }
}

TEST_F(Config, TheTwoHundredFiftySeventhLineIsRefused) {
  std::string lines;
  for (int i = 0; i < 256; ++i) lines += "# line\n";
  spill(path_, lines);
  EXPECT_EQ(config_read_file(), 0);
  EXPECT_EQ(config_line_count(), 256);
  spill(path_, lines + "# one more\n");
  EXPECT_EQ(config_read_file(), -1);
  EXPECT_EQ(messages(), "Too many configuration items\n");
}

TEST_F(Config, AMissingFileIsCreatedEmptyAndEveryParameterIsMissed) {
  ConfigRecord r{};
  r.NFILES = 77;
  EXPECT_EQ(config_strict_load(&r), 1);
  struct stat st {};
  ASSERT_EQ(stat(path_.c_str(), &st), 0);
  EXPECT_EQ(st.st_size, 0);
  EXPECT_EQ(st.st_mode & 0777, 0644u);
  EXPECT_EQ(r.NFILES, 77);  // the caller's record stays as it was
  std::string text = log();
  EXPECT_NE(text.find("mrvconfig parameter LOCKFIFO is missed or holds an invalid value.\n"), std::string::npos);
  EXPECT_NE(text.find("mrvconfig parameter PART_TBL is missed.\n"), std::string::npos);
}

TEST_F(Config, StrictLoaderMissedValuesAndTmpLimit) {
  ConfigRecord r{};
  ASSERT_EQ(load(complete(), &r), 0) << log() << messages();
  EXPECT_EQ(r.SPLIT_LOAD, 60);
  EXPECT_EQ(r.SHM_GPAGESZ, 256 * 512);  // page sizes become bytes
  EXPECT_EQ(r.lang_record_mark, 255u);
  EXPECT_EQ(log(), "");

  r = ConfigRecord{};
  EXPECT_EQ(load(complete("NFILES", "NFILES=-1"), &r), 1);
  EXPECT_EQ(load(complete("NFILES", "NFILES=many"), &r), 1);
  EXPECT_EQ(log(),
            "mrvconfig parameter NFILES is missed or holds an invalid value.\n"
            "mrvconfig parameter NFILES is missed or holds an invalid value.\n");
  EXPECT_EQ(r.SPLIT_LOAD, 0);

  // TMP: 99 characters pass, 100 fail the load whatever else holds.
  std::string base = dir_.str() + "/";
  std::string tmp99 = base + std::string(99 - base.size() - 1, 't') + "/";
  ASSERT_EQ(tmp99.size(), 99u);
  std::filesystem::create_directories(tmp99);
  EXPECT_EQ(load(complete("TMP", "TMP=" + tmp99), &r), 0) << messages();
  EXPECT_EQ(std::string(r.TMP), tmp99);
  EXPECT_EQ(load(complete("TMP", "TMP=" + tmp99 + "x"), &r), 1);
  EXPECT_NE(log().find("TMP directory should not exceed 100 characters.\n"), std::string::npos);
}

TEST_F(Config, KeydataLoadsOutOfRangeResetThePlainLoads) {
  ConfigRecord r{};
  std::string text = complete("KEYDATA_SPLIT_LOAD", "KEYDATA_SPLIT_LOAD=101");
  spill(path_, text);
  ASSERT_EQ(load(text, &r), 0) << messages();
  EXPECT_EQ(r.KEYDATA_SPLIT_LOAD, 101);
  EXPECT_EQ(r.SPLIT_LOAD, 95);

  ConfigRecord m{};
  config_default_record(dir_.str() + "/", &m);
  m.MERGE_LOAD = 30;
  m.KEYDATA_MERGE_LOAD = -1;
  m.SPLIT_LOAD = 101;
  check_params(&m, nullptr, false, 1000, 64);
  EXPECT_EQ(m.MERGE_LOAD, 40);
  EXPECT_EQ(m.KEYDATA_MERGE_LOAD, -1);
  EXPECT_EQ(m.SPLIT_LOAD, 60);
}

TEST_F(Config, NBigNotPrimeIsMendedCountedAndLogged) {
  ConfigRecord r{};
  EXPECT_EQ(load(complete("N_BIG", "N_BIG=100"), &r), 2);
  // NUSERS 64: range [320,512]; 101 lies outside, so the recommended prime.
  EXPECT_EQ(r.N_BIG, 401);
  EXPECT_NE(log().find("mrvconfig parameter(s) holds invalid value(s). Please use 'mrvconf' to check it.\n"),
            std::string::npos);

  // Without users the range starts at 0 and the next prime is taken.
  EXPECT_EQ(load(complete("NUSERS", "NUSERS=0") + "N_BIG=100\n", &r), 0);  // the first N_BIG wins
  std::string text = complete("N_BIG", "N_BIG=100");
  size_t at = text.find("NUSERS=64");
  ASSERT_NE(at, std::string::npos);
  text.replace(at, 9, "NUSERS=0");
  EXPECT_EQ(load(text, &r), 2);
  EXPECT_EQ(r.N_BIG, 101);

  // The buffer form leaves the value and says what it recommends.
  ConfigRecord b{};
  config_default_record(dir_.str() + "/", &b);
  b.N_BIG = 100;
  std::vector<ConfigFinding> findings;
  EXPECT_EQ(check_params(&b, &findings, false, 1000, 64), 1);
  EXPECT_EQ(b.N_BIG, 100);
  ASSERT_FALSE(findings.empty());
  EXPECT_EQ(findings.back().text, "N_BIG should be a prime and in range [320,512].\nRecommended to be 401");
  EXPECT_TRUE(findings.back().counted);
}

TEST_F(Config, CenturyPivotBecomesAYearOrTheDefault) {
  ConfigRecord r{};
  config_default_record(dir_.str() + "/", &r);
  r.CENTURY_PIVOT = 30;
  config_derive(&r, 2002);
  EXPECT_EQ(r.CENTURY_PIVOT, 1932);
  r.CENTURY_PIVOT = 500;
  std::vector<ConfigFinding> findings;
  EXPECT_EQ(check_params(&r, &findings, true, 1000, 64), 1);
  EXPECT_EQ(r.CENTURY_PIVOT, 1930);
  EXPECT_EQ(findings.back().text, "CENTURY_PIVOT is invalid, defaulted to 1930.\n");
}

TEST_F(Config, BufferFormStopsAtTheFirstCheckFinding) {
  ConfigRecord r{};
  config_default_record(dir_.str() + "/", &r);
  r.MAX_FLENGTH = 1000;
  r.ZERO_CHAR = 0;
  std::vector<ConfigFinding> first, all;
  ConfigRecord copy = r;
  EXPECT_EQ(check_params(&copy, &first, true, 1000, 64), 1);
  EXPECT_EQ(first.back().text, "MAX_FLENGTH is not reasonable. Recommended to be >= 32KB and <= 2GB-16KB.\n");
  EXPECT_EQ(copy.ZERO_CHAR, 0);  // not reached
  EXPECT_EQ(check_params(&r, &all, false, 1000, 64), 2);
  EXPECT_EQ(r.ZERO_CHAR, 131);
}

TEST_F(Config, AftRulesAndTheWarningOfARoundedBuffer) {
  ConfigRecord r{};
  config_default_record(dir_.str() + "/", &r);
  r.N_AFT = 200;
  r.N_AFT_SECTION = 300;  // above N_AFT: next_prime(50) = 53
  r.N_AFT_BUCKET = -4;
  r.AIMG_BUFSZ = 1000;
  std::vector<ConfigFinding> f;
  EXPECT_EQ(check_params(&r, &f, false, 1000, 64), 0);  // mends and notices only
  EXPECT_EQ(r.N_AFT_SECTION, 53);
  EXPECT_EQ(f[0].text, "N_AFT_SECTION must not be more than N_AFT (53); using 53.\n");
  EXPECT_EQ(r.N_AFT_BUCKET, 53 * next_prime(200 / 2 / 53));
  EXPECT_EQ(f[1].text, "N_AFT_BUCKET must not be negative; using 53.\n");
  EXPECT_EQ(r.AIMG_BUFSZ, 512);
}

TEST_F(Config, ExportHonoursTheOverrideListAndItsQuirks) {
  ConfigRecord r{};
  config_default_record(dir_.str() + "/", &r);
  std::snprintf(r.TMP, sizeof r.TMP, "/tmp/");
  r.MAX_FLENGTH = 3000000000u;
  setenv("MAX_OPEN_FILE", "7", 1);
  setenv("NFILES", "7", 1);
  setenv("TMP", std::string(104, 'x').c_str(), 1);  // too long: replaced
  setenv("PART_TBL", "/elsewhere/parttbl", 1);
  unsetenv("NVLMARK");
  config_export(r);
  EXPECT_STREQ(std::getenv("MAX_OPEN_FILE"), "7");
  EXPECT_EQ(std::string(std::getenv("NFILES")), std::to_string(r.NFILES));
  EXPECT_STREQ(std::getenv("PART_TBL"), "/elsewhere/parttbl");
  EXPECT_STREQ(std::getenv("MAX_FLENGTH"), "3000000000");
  EXPECT_EQ(std::getenv("NVLMARK"), nullptr);  // an empty string is not exported
  // The replacing branch leaves TMP as the number of its first four bytes.
  uint32_t first_four = '/' | 't' << 8 | 'm' << 16 | static_cast<uint32_t>('p') << 24;
  EXPECT_EQ(std::string(std::getenv("TMP")), std::to_string(first_four));
  EXPECT_STREQ(std::getenv("MRV_LANGGRP"), "255/192/129");
  for (const char* name : {"MAX_OPEN_FILE", "NFILES", "TMP", "PART_TBL"}) unsetenv(name);
}

TEST_F(Config, WrittenFileLoadsCleanAndEveryRowHasItsPlace) {
  std::string text = complete();
  EXPECT_EQ(text.rfind("#\t\tMorvane Configuration Parameters\n", 0), 0u);
  EXPECT_NE(text.find("# Section 3 RFS related parameters\n#       These parameters are only used for RFS"),
            std::string::npos);
  EXPECT_NE(text.find("# 3.9 Sync Daemon related parameters\nN_SYNC=0\nSYNC_TIME=0\n"
                      "# Section 5 NT-message-queue parameters\n"),
            std::string::npos);
  ConfigRecord r{};
  ConfigRecord full{};
  // Defaults derived from other sizes and from the home (64 users).
  config_default_record(dir_.str() + "/", &r);
  EXPECT_EQ(r.SHM_GNPAGES, 16);
  EXPECT_EQ(r.SHM_LMINENTS, 32);
  EXPECT_EQ(r.SHM_GNTBLS, 128);
  EXPECT_EQ(r.N_PGQ, 16);
  EXPECT_EQ(r.SBCS_SHM_SIZE, 1048576u);
  EXPECT_EQ(r.SHM_ATT_ADD % r.SHM_LBA, 0u);
  EXPECT_EQ(std::string(r.PART_TBL), dir_.str() + "/parttbl");
  EXPECT_EQ(std::string(r.REP_LOG_PATH), dir_.str() + "/replog");
  EXPECT_EQ(load(text, &r), 0) << messages() << log();
  std::vector<ConfigFinding> findings;
  EXPECT_EQ(init_params(path_, &full, &findings), 0);
}

TEST(Primes, PreviousPrimesAndSizes) {
  EXPECT_EQ(previous_prime(404), 401);
  EXPECT_EQ(previous_prime(10), 7);
  EXPECT_EQ(previous_prime(5), 5);
  EXPECT_STREQ(format_size(0), "0");
  EXPECT_STREQ(format_size(-2), "unlimited");
  EXPECT_STREQ(format_size((int64_t{1} << 30) + (3 << 10) + 5), "1G 3K 5");
}

}  // namespace
