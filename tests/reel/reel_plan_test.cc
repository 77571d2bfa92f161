// Analysis plans: the proposed modulo and the plan lines.
#include "reel/reel_plan.h"

#include <cstdlib>
#include <string>

#include <gtest/gtest.h>

#include "reel/account_child.h"
#include "reel/reel_current.h"
#include "reel/reel_init.h"
#include "reel/reel_settings.h"
#include "reel/tape_child.h"
#include "support/files.h"
#include "support/run_program.h"
#include "support/temp_dir.h"

namespace {

TEST(SuggestModulo, EmptyFilesKeepTheTapeModuloButNeverBelowOne) {
  EXPECT_EQ(reel_suggest_modulo(FILE_KIND_DATA, 0, 0, 0, 7), 7);
  EXPECT_EQ(reel_suggest_modulo(FILE_KIND_DICT, 0, 0, 0, 0), 1);
  EXPECT_EQ(reel_suggest_modulo(FILE_KIND_DIR, 100, 5000, 30, 0), 0);
  EXPECT_EQ(reel_suggest_modulo(FILE_KIND_SAM, 100, 5000, 30, 4), 4);
}

TEST(SuggestModulo, SizeFromTheDataBoundedByRecordsThenRaisedToTheTape) {
  // k = 10000, d = 1,000,000, r = 1000: a = 9, n = 1,020,000 / 983 = 1037,
  // t = 1 + 1140 = 1141, more groups than records: bounded by next_prime(1000) = 1009.
  EXPECT_EQ(reel_suggest_modulo(FILE_KIND_DATA, 10000, 1000000, 1000, 1), 1009);
  // r = 5000: t = 1141 stays.
  EXPECT_EQ(reel_suggest_modulo(FILE_KIND_DATA, 10000, 1000000, 5000, 1),
            reel_suggest_modulo(FILE_KIND_DATA, 10000, 1000000, 5000, 0));
  // n = (1,000,000 + 50,000 + 10,000) / (992 - 1) = 1069, t = 1 + 1175 = 1176 -> 1181.
  EXPECT_EQ(reel_suggest_modulo(FILE_KIND_DATA, 10000, 1000000, 5000, 1), 1181);
  // One record of 2,000 bytes: bounded by next_prime(1) = 1, then the tape's 13 wins.
  EXPECT_EQ(reel_suggest_modulo(FILE_KIND_DATA, 6, 2000, 1, 13), 13);
  EXPECT_EQ(reel_suggest_modulo(FILE_KIND_DATA, 6, 2000, 1, 0), 1);
  // The tape modulo is made prime when it wins.
  EXPECT_EQ(reel_suggest_modulo(FILE_KIND_DICT, 6, 200, 3, 8), 11);
}

TEST(PlanLines, OpenedAtTheFirstDescriptionAndOneLinePerFile) {
  TempDir dir;
  std::string plan = dir.str() + "/plan";
  ProgramResult r = run_in_child([plan] {
    reel_settings.analyse_file = plan;
    reel_current = CurrentFile{};
    reel_write_plan_line();  // first description: nothing to write yet
    std::printf("%zu|", slurp(plan).size());
    reel_current.name = "CUSTOMERS";
    reel_current.file_kind = FILE_KIND_DICT;
    reel_current.modulo = 3;
    reel_current.key_bytes = 40;
    reel_current.data_bytes = 900;
    reel_current.record_count = 5;
    reel_write_plan_line();
    reel_current = CurrentFile{};
    reel_current.name = "PROGS";
    reel_current.file_kind = FILE_KIND_DIR;
    reel_finish_analysis();
  });
  EXPECT_EQ(r.status, 1);
  EXPECT_EQ(r.output, std::string("0|") + REEL_FINISHED);
  EXPECT_EQ(slurp(plan), "DICT, CUSTOMERS, 3, 3, 40, 900, 5\n DIR, PROGS, 0, 0, 0, 0, 0\n");
}

TEST(PlanLines, APlanThatCannotBeOpenedIsFatal) {
  ProgramResult r = run_in_child([] {
    reel_settings.analyse_file = "/nonexistent-dir/plan";
    reel_write_plan_line();
  });
  EXPECT_EQ(r.status, 1);
  EXPECT_EQ(r.output, std::string("Can't open alanyze file\n\n") + REEL_USAGE);
}

// A plan line is read up to 1,087 characters, the rest of a longer line
// passed; a NUL ends a line's text but the next line is read in full.
TEST(PlanReading, LinesAreCutAt1087CharactersAndANulEndsOnlyItsOwnLine) {
  std::string dir = tape_test::scratch("plan_reading");
  std::string cut = "DATA, CUT, ";
  cut.resize(1086, ' ');
  spill(dir + "/plan", cut + "12\nDATA, AFTER, 5\n" + std::string("DATA, G\0H, 3\n", 13) + "DATA, NEXT, 7\n");
  auto plan = [](RunSettings& s) {
    s.create_mode = 1;
    s.create_file = "plan";
  };
  ProgramResult r = account_test::in_account(dir, plan, [] {
    reel_apply_plan();
    std::exit(0);
  });
  EXPECT_EQ(r.output,
            "Create DATA CUT --- 1 \n"
            "Create DATA AFTER --- 5 \n"
            "Plan line passed over (fewer than three fields): DATA, G\n"
            "Create DATA NEXT --- 7 \n");
}

}  // namespace
