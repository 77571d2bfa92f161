// Names on disk, creation of targets and their VOC entries, in a real account.

#include "NT/NT_access.h"
#include "flib/fl_test_util.h"
#include "reel/account_child.h"
#include "reel/reel_get_expbuf.h"
#include "reel/reel_target.h"
#include "reel/tape_child.h"

namespace {

using account_test::in_account;
using account_test::voc_text;

void no_options(RunSettings&) {}

void print_target(std::string key, int mode = REEL_NAME_FILE) {
  std::string target;
  int rc = reel_target_name(key, target, mode);
  std::printf("%s -> %s (%d)\n", key.c_str(), target.c_str(), rc);
}

// Creates the target of one tape file of the given kind.
int create(const char* name, int32_t kind, int32_t modulo = 7) {
  reel_current = CurrentFile{};
  reel_current.name = name;
  reel_current.file_kind = kind;
  reel_current.modulo = modulo;
  return reel_create_target(0, false);
}

TEST(TargetName, CutCleanAndLetter) {
  struct Case {
    bool short_names;
    std::string extra_bad;
    const char* key;
    const char* expected;
  } cases[] = {
      {false, "", "MY FILE", "MY FILE -> MY_FILEa (1)\n"},
      {false, "", "CUST", "CUST -> CUST (0)\n"},
      {true, "", "ABCDEFGHIJKLMNOPQRST", "ABCDEFGHIJKLMNOPQRST -> ABCDEFGHIJKa (1)\n"},
      {true, "", "ABCDEFGHIJKL", "ABCDEFGHIJKL -> ABCDEFGHIJKL (0)\n"},
      {false, ".", "A.B.", "A.B. -> A_B_a (1)\n"},
      {false, "..", "A.B", "A.B -> A_Ba (1)\n"},
      {false, "", "TAKEN", "TAKEN -> TAKENa (1)\n"},  // a name on disk is taken
  };
  for (const Case& c : cases) {
    std::string dir = tape_test::scratch("target_name");
    ProgramResult r = in_account(
        dir,
        [&](RunSettings& s) {
          s.short_names = c.short_names;
          s.name_bad_chars += c.extra_bad;
        },
        [&] {
          std::fclose(std::fopen("TAKEN", "w"));
          print_target(c.key);
        });
    EXPECT_EQ(r.output, c.expected) << c.key;
  }
}

TEST(TargetName, TheVocDecidesForPairsAndGivesWayForOtherItems) {
  std::string dir = tape_test::scratch("target_pairs");
  ProgramResult r = in_account(dir, no_options, [] {
    // A verb of a tape file's name is deleted without a question.
    M_voc_write("LIST", "V");
    print_target("LIST");
    std::printf("LIST: %s\n", voc_text("LIST").c_str());
    // Dictionary first, then data: one entry, both paths, the short name.
    create("LONG NAME", FILE_KIND_DICT);
    std::printf("after dict: %s\n", voc_text("LONG NAME").c_str());
    reel_current.file_kind = FILE_KIND_DATA;
    print_target("LONG NAME");
    create("LONG NAME", FILE_KIND_DATA);
    std::printf("after data: %s\n", voc_text("LONG NAME").c_str());
    // Data first, then dictionary.
    create("ORDERS", FILE_KIND_DATA);
    create("ORDERS", FILE_KIND_DICT);
    std::printf("ORDERS: %s\n", voc_text("ORDERS").c_str());
    // Directories have no dictionary; SAM and DAM do.
    create("BP", FILE_KIND_DIR);
    std::printf("BP: %s\nSAM: %s\nDAM: %s\npgm_map: %s\n", voc_text("BP").c_str(), voc_text("SAM").c_str(),
                voc_text("DAM").c_str(), voc_text("pgm_map").c_str());
    // A directory and its dictionary, in either order.
    create("PROGS", FILE_KIND_DICT, 1);
    create("PROGS", FILE_KIND_DIR);
    create("BP", FILE_KIND_DICT, 1);
    std::printf("PROGS: %s\nBP: %s\n", voc_text("PROGS").c_str(), voc_text("BP").c_str());
    std::printf("temporary names left: %s\n", voc_text("LONG_NAMEa").c_str());
  });
  EXPECT_EQ(r.output,
            "LIST -> LIST (0)\n"
            "LIST: <none>\n"
            "Create DICT LONG NAME --- 7  -----> LONG_NAMEa\n"
            "after dict: F||D_LONG_NAMEa\n"
            "LONG NAME -> LONG_NAMEa (1)\n"
            "Create DATA LONG NAME --- 7  -----> LONG_NAMEa\n"
            "after data: F|LONG_NAMEa|D_LONG_NAMEa\n"
            "Create DATA ORDERS --- 7 \n"
            "Create DICT ORDERS --- 7 \n"
            "ORDERS: F|ORDERS|D_ORDERS\n"
            "Create DIR  BP --- 7 \n"
            "BP: DIR|BP\n"
            "SAM: DIR|SAM|D_SAM\n"
            "DAM: DIR|DAM|D_DAM\n"
            "pgm_map: F|pgm_map|D_pgm_map\n"
            "Create DICT PROGS --- 1 \n"
            "Create DIR  PROGS --- 7 \n"
            "Create DICT BP --- 1 \n"
            "PROGS: DIR|PROGS|D_PROGS\n"
            "BP: DIR|BP|D_BP\n"
            "temporary names left: <none>\n");
  for (const char* file : {"ACC/LONG_NAMEa", "ACC/D_LONG_NAMEa", "ACC/ORDERS", "ACC/D_SAM", "ACC/VOC"}) {
    EXPECT_EQ(check_findings(dir + "/" + file), "") << file;
  }
  EXPECT_TRUE(std::filesystem::is_directory(dir + "/ACC/BP"));
  EXPECT_TRUE(std::filesystem::is_directory(dir + "/ACC/PROGS"));
  EXPECT_EQ(check_findings(dir + "/ACC/D_PROGS"), "");
  EXPECT_EQ(check_findings(dir + "/ACC/D_BP"), "");
}

// An existing file: "BP" and items that are no files are overwritten
// without a question, -R ALL keeps, an -R list overwrites, others ask.
TEST(TargetName, OverwriteRules) {
  struct Case {
    const char* name;
    int32_t recovery_mode;
    std::string input;
    const char* expected;
  } cases[] = {
      {"BP", 0, "", "create 1; VOC DIR|BP\n"},
      {"BP.O", 0, "xS", "The file BP.O exists. What do you want to do next:\n\t S -- Skip \n\t O -- Overwrite\n"
                        "The file BP.O exists. What do you want to do next:\n\t S -- Skip \n\t O -- Overwrite\n"
                        "create 0; VOC DIR|BP.O\n"},
      {"BP.O", 0, "O", "The file BP.O exists. What do you want to do next:\n\t S -- Skip \n\t O -- Overwrite\n"
                       "create 1; VOC DIR|BP.O\n"},
      {"BP.O", 2, "", "create 0; VOC DIR|BP.O\n"},
      {"BP.O", 1, "", "create 1; VOC DIR|BP.O\n"},
  };
  for (const Case& c : cases) {
    std::string dir = tape_test::scratch("target_overwrite");
    ProgramResult r = in_account(
        dir, [&](RunSettings& s) { s.recovery_mode = c.recovery_mode; },
        [&] {
          create(c.name, FILE_KIND_DIR);
          // A member left in the old directory shows whether it was replaced.
          std::FILE* old = std::fopen((std::string(c.name) + "/OLD").c_str(), "w");
          std::fclose(old);
          int rc = create(c.name, FILE_KIND_DIR);
          std::printf("create %d; VOC %s\n", rc, voc_text(c.name).c_str());
          if (rc == 1 && NT_access((std::string(c.name) + "/OLD").c_str(), 0) == 0) std::printf("old kept\n");
        },
        c.input);
    std::string out = r.output;
    // Creation lines are not what is tested here.
    for (size_t at; (at = out.find("Create ")) != std::string::npos;) out.erase(at, out.find('\n', at) - at + 1);
    EXPECT_EQ(out, c.expected) << c.name << " " << c.recovery_mode << " " << c.input;
  }
}

// Overwriting one half of a pair keeps the other half's field.
TEST(TargetName, OverwriteOfOneHalfKeepsTheOther) {
  std::string dir = tape_test::scratch("target_half");
  ProgramResult r = in_account(
      dir, [](RunSettings& s) { s.recovery_mode = 1; },
      [] {
        create("CUST", FILE_KIND_DATA);
        create("CUST", FILE_KIND_DICT);
        create("CUST", FILE_KIND_DICT, 3);
        std::printf("%s\n", voc_text("CUST").c_str());
        create("CUST", FILE_KIND_DATA, 11);
        std::printf("%s\n", voc_text("CUST").c_str());
      });
  EXPECT_NE(r.output.find("Create DICT CUST --- 3 \nF|CUST|D_CUST\nCreate DATA CUST --- 11 \nF|CUST|D_CUST\n"),
            std::string::npos)
      << r.output;
  EXPECT_EQ(check_findings(dir + "/ACC/CUST"), "");
}

// A -B entry gives the block size and shrinks the modulo in proportion;
// -H DYNAMIC1 applies to dynamic sources only.
TEST(TargetName, BlockListAndHashType) {
  std::string dir = tape_test::scratch("target_block");
  spill(dir + "/blocks", "CUST 4\n");
  ProgramResult r = in_account(
      dir,
      [&](RunSettings& s) {
        s.block_list_on = reel_load_block_list((dir + "/blocks").c_str());
        s.dynamic_zero = 0;
      },
      [] {
        create("CUST", FILE_KIND_DATA, 11);
        create("PLAIN", FILE_KIND_DATA, 11);
        reel_current = CurrentFile{};
        reel_current.name = "DYN";
        reel_current.modulo = 11;
        reel_create_target(1, false);
        for (const char* name : {"CUST", "PLAIN", "DYN"}) {
          REL_TYPE rel;
          M_openfile(&rel, name, OpenMode::Read);
          std::printf("%s %d %u %d\n", name, rel.modulo, rel.block_size, rel.hashtype);
          M_closefile(&rel);
        }
      });
  EXPECT_NE(r.output.find("CUST 2 4096 0\nPLAIN 11 1024 0\nDYN 11 1024 65\n"), std::string::npos) << r.output;
}

}  // namespace
