// Files made from an edited plan (-C) and loaded with -O; files emptied
// before a reload (-E with -O and -D). Everything is read back through the
// file library and checked by mrvfile.

#include "e2e/sandbox.h"
#include "reel/reel_init.h"
#include "flib/fl_create.h"
#include "flib/fl_filehdr.h"
#include "flib/fl_coding.h"
#include "flib/fl_open.h"
#include "flib/fl_ovhdr.h"
#include "flib/fl_rel.h"

namespace {

namespace fs = std::filesystem;

// A dictionary before its data file, a directory before its dictionary.
const char kSave[] =
    "tape t.tap\n"
    "label name=SAVE\n"
    "account SALES\n"
    "file D_CUSTOMERS hashed\n"
    "subfile modulo=1\n"
    "item NAME 'D\\xFE1'\n"
    "file CUSTOMERS hashed\n"
    "subfile modulo=3\n"
    "item C1 Smith\n"
    "item C2 Jones\n"
    "item C3 Brown\n"
    "file ORDERS hashed\n"
    "subfile modulo=19\n"
    "item O1 first\n"
    "item O2 second\n"
    "file BP dir\n"
    "sub MAIN sam\n"
    "text 'PRINT 1\\n'\n"
    "file D_BP hashed\n"
    "subfile modulo=1\n"
    "item B1 x\n"
    "file DYN hashed\n"
    "subfile modulo=3\n"
    "item Y1 one\n"
    "item Y2 two\n"
    "file NOTES sam\n"
    "block data \"some text\"\n"
    "end\n";

std::vector<std::string> lines(std::vector<std::pair<std::string, std::string>> records) {
  std::vector<std::string> out;
  for (const auto& [key, data] : records) out.push_back(listed_record(key, data));
  std::sort(out.begin(), out.end());
  return out;
}

const std::vector<std::string> kCustomers = lines({{"C1", "Smith"}, {"C2", "Jones"}, {"C3", "Brown"}});
const std::vector<std::string> kOrders = lines({{"O1", "first"}, {"O2", "second"}});
const std::string kAtId = listed_record("@ID", "D\xFE" "0\xFE\xFE");

// A VOC item with its field marks shown as "|", or "<none>".
std::string voc(const Sandbox& box, const std::string& key) {
  ProgramResult r = run_program({.program = "mrvfile", .args = {"get", box.account("SALES/VOC"), key}});
  if (r.status != 0) return "<none>";
  for (char& c : r.output)
    if (c == '\xFE') c = '|';
  return r.output;
}

void put(const std::string& path, const std::string& key, const std::string& data) {
  ProgramResult r = run_program({.program = "mrvfile", .args = {"put", path, key}, .input = data});
  ASSERT_EQ(r.status, 0) << r.output;
}

std::vector<std::string> keys_of(const std::string& path) {
  std::vector<std::string> keys;
  for (const std::string& line : listed_records(path)) keys.push_back(line.substr(0, line.find('\t')));
  return keys;
}

struct Layout {
  int32_t modulo = -1;
  uint32_t block_size = 0;
  int32_t min_modulo = 0;
  size_t primary_parts = 0;
};

Layout layout_of(const std::string& path) {
  REL_TYPE rel;
  Layout l;
  if (M_openfile(&rel, path.c_str(), OpenMode::Read) != 1) return l;
  l = {rel.modulo, rel.block_size, rel.min_modulo, rel.primary.size()};
  M_closefile(&rel);
  return l;
}

void expect_sound(const Sandbox& box, std::initializer_list<const char*> files) {
  for (const char* f : files) EXPECT_EQ(check_of(box.account("SALES/") + f), "") << f;
}

// What an account holds beyond what every account has.
std::vector<std::string> own_files(const Sandbox& box) {
  std::vector<std::string> names;
  for (const auto& e : fs::directory_iterator(box.account("SALES"))) {
    std::string n = e.path().filename().string();
    static const std::vector<std::string> standard = {
        "VOC", "D_VOC", "SAM", "D_SAM", "DAM", "D_DAM", "pgm_map", "D_pgm_map",
        "dispmsg", "pgm_list", "idx_list", "resize_list"};
    if (std::find(standard.begin(), standard.end(), n) == standard.end() && !n.starts_with(".")) names.push_back(n);
  }
  std::sort(names.begin(), names.end());
  return names;
}

TEST(Plan, AnEditedPlanMakesExactlyItsFilesAndTheTapeLoadsIntoThem) {
  Sandbox box(kSave);
  box.reel({"-A", "plan"});
  ASSERT_EQ(slurp(box.run() + "/plan"),
            "DICT, CUSTOMERS, 1, 1, 4, 3, 1\n"
            "DATA, CUSTOMERS, 3, 3, 6, 15, 3\n"
            "DATA, ORDERS, 19, 19, 4, 11, 2\n"
            " DIR, BP, 0, 0, 0, 0, 0\n"
            "DICT, BP, 1, 1, 2, 1, 1\n"
            "DATA, DYN, 3, 3, 4, 6, 2\n"
            " SAM, NOTES, 0, 0, 0, 0, 0\n");
  // The administrator's edit: a raised modulo, a directory of their own, a
  // kind in lower case, blank lines, separators mixed, counts dropped, a
  // line cut short.
  spill(box.run() + "/plan",
        "DICT, CUSTOMERS, 1, 1, 4, 3, 1\n"
        "DATA, CUSTOMERS, 11, 3, 6, 15, 3\n"
        "data, LOWER, 5\n"
        "\n"
        "      \n"
        "  DATA ORDERS,,19\n"
        " DIR, BP, 0, 0, 0, 0, 0\n"
        "DICT, BP, 1\n"
        " DIR, PROGS, 0\n"
        " SAM, NOTES, 0, 0, 0, 0, 0\n"
        "DATA, DYN\n");
  // -C reads no tape.
  fs::rename(box.tape(), box.run() + "/away.tap");
  ProgramResult made = box.reel({"-C", "plan", "SALES"});
  EXPECT_NE(made.output.find("Create DICT CUSTOMERS --- 1 \n"
                             "Create DATA CUSTOMERS --- 11 \n"
                             "Create DATA ORDERS --- 19 \n"
                             "Create DIR  BP --- 0 \n"
                             "Create DICT BP --- 1 \n"
                             "Create DIR  PROGS --- 0 \n"
                             "Plan line passed over (fewer than three fields): DATA, DYN\n"),
            std::string::npos)
      << made.output;
  EXPECT_EQ(own_files(box), (std::vector<std::string>{"BP", "CUSTOMERS", "D_BP", "D_CUSTOMERS", "ORDERS", "PROGS"}));
  EXPECT_EQ(voc(box, "CUSTOMERS"), "F|CUSTOMERS|D_CUSTOMERS");
  EXPECT_EQ(voc(box, "ORDERS"), "F|ORDERS|");
  EXPECT_EQ(voc(box, "BP"), "DIR|BP|D_BP");
  EXPECT_EQ(voc(box, "PROGS"), "DIR|PROGS");
  EXPECT_EQ(voc(box, "LOWER"), "<none>");
  EXPECT_EQ(layout_of(box.account("SALES/CUSTOMERS")).modulo, 11);
  EXPECT_EQ(layout_of(box.account("SALES/CUSTOMERS")).block_size, 1024u);
  EXPECT_EQ(layout_of(box.account("SALES/ORDERS")).modulo, 19);

  // A file that exists is asked about: skipped, then overwritten.
  spill(box.run() + "/again", "DATA, ORDERS, 23\n");
  ProgramResult skipped = box.reel({"-C", "again", "SALES"}, "S");
  EXPECT_NE(skipped.output.find("The file ORDERS exists. What do you want to do next:\n\t S -- Skip \n"
                                "\t O -- Overwrite\n"),
            std::string::npos)
      << skipped.output;
  EXPECT_EQ(layout_of(box.account("SALES/ORDERS")).modulo, 19);
  ProgramResult overwritten = box.reel({"-C", "again", "SALES"}, "O");
  EXPECT_NE(overwritten.output.find("Create DATA ORDERS --- 23 \n"), std::string::npos) << overwritten.output;
  EXPECT_EQ(layout_of(box.account("SALES/ORDERS")).modulo, 23);
  EXPECT_EQ(voc(box, "ORDERS"), "F|ORDERS|");

  fs::rename(box.run() + "/away.tap", box.tape());
  ProgramResult loaded = box.reel({"-O", "SALES"});
  EXPECT_NE(loaded.output.find("DYN open failure!\n"), std::string::npos) << loaded.output;
  EXPECT_EQ(listed_records(box.account("SALES/CUSTOMERS")), kCustomers);
  EXPECT_EQ(listed_records(box.account("SALES/ORDERS")), kOrders);
  EXPECT_EQ(keys_of(box.account("SALES/D_CUSTOMERS")), (std::vector<std::string>{"@ID", "NAME"}));
  EXPECT_EQ(keys_of(box.account("SALES/D_BP")), (std::vector<std::string>{"@ID", "B1"}));
  EXPECT_EQ(slurp(box.account("SALES/BP/MAIN")), "PRINT 1\n");
  // -O makes no entries and no files: what the plan left out stays out.
  EXPECT_EQ(voc(box, "DYN"), "<none>");
  EXPECT_EQ(layout_of(box.account("SALES/CUSTOMERS")).modulo, 11);
  expect_sound(box, {"CUSTOMERS", "D_CUSTOMERS", "ORDERS", "D_BP", "VOC"});
}

TEST(Plan, ThePlanIsLookedForAboveTheAccountUnlessItsNameIsAbsolute) {
  Sandbox box(kSave);
  fs::create_directories(box.run() + "/plans");
  spill(box.run() + "/plans/p", "DATA, ORDERS, 5\n");
  ProgramResult missing = box.reel({"-C", "p", "SALES"});
  EXPECT_TRUE(missing.output.ends_with("Can't open create file\n\n" + std::string(REEL_USAGE))) << missing.output;
  EXPECT_EQ(voc(box, "ORDERS"), "<none>");
  ProgramResult absolute = box.reel({"-C", box.run() + "/plans/p", "SALES"});
  EXPECT_NE(absolute.output.find("Create DATA ORDERS --- 5 \n"), std::string::npos) << absolute.output;
  EXPECT_EQ(layout_of(box.account("SALES/ORDERS")).modulo, 5);
}

// A line is read up to 1,087 characters and the rest of a longer one is
// passed; a NUL ends a line's text, and the line after it is read in full.
TEST(Plan, LinesAreCutAt1087CharactersAndANulEndsOnlyItsOwnLine) {
  Sandbox box(kSave);
  std::string cut = "DATA, CUT, ";
  cut.resize(1086, ' ');
  spill(box.run() + "/plan", cut + "12\nDATA, AFTER, 5\n" + std::string("DATA, G\0H, 3\n", 13) + "DATA, NEXT, 7\n");
  ProgramResult made = box.reel({"-C", "plan", "SALES"});
  EXPECT_NE(made.output.find("Create DATA CUT --- 1 \n"
                             "Create DATA AFTER --- 5 \n"
                             "Plan line passed over (fewer than three fields): DATA, G\n"
                             "Create DATA NEXT --- 7 \n"),
            std::string::npos)
      << made.output;
  EXPECT_EQ(own_files(box), (std::vector<std::string>{"AFTER", "CUT", "NEXT"}));
  EXPECT_EQ(layout_of(box.account("SALES/CUT")).modulo, 1);
}

// A restore with ORDERS at block size 3 KiB (modulo 19 / 3 -> 7) and DYN
// laid out as a dynamic file that has grown from 3 to 20 groups in parts
// of 7 groups.
class Clear : public testing::Test {
 protected:
  Sandbox box{kSave};
  std::string account = box.account("SALES");

  void SetUp() override {
    spill(box.run() + "/blocks", "ORDERS 3\n");
    box.reel({"-B", "blocks", "SALES"});
    ASSERT_EQ(layout_of(account + "/ORDERS").modulo, 7);
    ASSERT_EQ(layout_of(account + "/ORDERS").block_size, 3072u);
    grown_dynamic(account + "/DYN");
  }

  static void grown_dynamic(const std::string& path) {
    fs::remove(path);
    setenv("MAX_FLENGTH", "8192", 1);
    ASSERT_EQ(M_create_hashed(path.c_str(), 20, 1, HASH_DYNAMIC, 0, nullptr), 1);
    unsetenv("MAX_FLENGTH");
    std::string over = slurp(path + "/over001");
    fl_put_u32(reinterpret_cast<uint8_t*>(over.data()), OH_MIN_MODULO, 3);
    spill(path + "/over001", over);
    std::string dat = slurp(path + "/dat001");
    fl_put_i32(reinterpret_cast<uint8_t*>(dat.data()), FH_MODULO, 3);
    spill(path + "/dat001", dat);
    Layout l = layout_of(path);
    ASSERT_EQ(l.modulo, 20);
    ASSERT_EQ(l.min_modulo, 3);
    ASSERT_EQ(l.primary_parts, 3u);
  }

  void add_by_hand() {
    put(account + "/CUSTOMERS", "HAND", "typed in");
    put(account + "/D_CUSTOMERS", "HANDDICT", "I");
    put(account + "/ORDERS", "HAND", "typed in");
    put(account + "/DYN", "HAND", "typed in");
    spill(account + "/BP/HANDPROG", "x");
  }
};

TEST_F(Clear, HandRecordsSurviveAPlainReloadAndGoWithErase) {
  add_by_hand();
  box.reel({"-O", "SALES"});
  EXPECT_EQ(keys_of(account + "/CUSTOMERS"), (std::vector<std::string>{"C1", "C2", "C3", "HAND"}));
  EXPECT_EQ(keys_of(account + "/DYN"), (std::vector<std::string>{"HAND", "Y1", "Y2"}));

  ProgramResult r = box.reel({"-O", "-E", "SALES"});
  EXPECT_EQ(listed_records(account + "/CUSTOMERS"), kCustomers) << r.output;
  EXPECT_EQ(listed_records(account + "/ORDERS"), kOrders);
  EXPECT_EQ(keys_of(account + "/D_CUSTOMERS"), (std::vector<std::string>{"@ID", "NAME"}));
  EXPECT_EQ(keys_of(account + "/D_BP"), (std::vector<std::string>{"@ID", "B1"}));
  EXPECT_EQ(listed_records(account + "/D_CUSTOMERS").front(), kAtId + "CUSTOMERS\\xFE10L\\xFES\\xFE");
  EXPECT_FALSE(fs::exists(account + "/BP/HANDPROG"));
  EXPECT_TRUE(fs::is_directory(account + "/BP"));
  // The static file keeps its modulo and block size.
  Layout orders = layout_of(account + "/ORDERS");
  EXPECT_EQ(orders.modulo, 7);
  EXPECT_EQ(orders.block_size, 3072u);
  // The grown dynamic file is back at its minimum in its first part only.
  Layout dyn = layout_of(account + "/DYN");
  EXPECT_EQ(dyn.modulo, 3);
  EXPECT_EQ(dyn.primary_parts, 1u);
  EXPECT_FALSE(fs::exists(account + "/DYN/dat002"));
  EXPECT_FALSE(fs::exists(account + "/DYN/dat003"));
  EXPECT_EQ(listed_records(account + "/DYN"), lines({{"Y1", "one"}, {"Y2", "two"}}));
  expect_sound(box, {"CUSTOMERS", "D_CUSTOMERS", "ORDERS", "D_BP", "DYN", "VOC"});
}

TEST_F(Clear, DataOnlyEmptiesDataFilesAndLeavesTheRest) {
  add_by_hand();
  ProgramResult r = box.reel({"-D", "-E", "SALES"});
  EXPECT_EQ(listed_records(account + "/CUSTOMERS"), kCustomers) << r.output;
  EXPECT_EQ(listed_records(account + "/ORDERS"), kOrders);
  EXPECT_EQ(keys_of(account + "/DYN"), (std::vector<std::string>{"Y1", "Y2"}));
  EXPECT_EQ(keys_of(account + "/D_CUSTOMERS"), (std::vector<std::string>{"@ID", "HANDDICT", "NAME"}));
  EXPECT_TRUE(fs::exists(account + "/BP/HANDPROG"));
  expect_sound(box, {"CUSTOMERS", "D_CUSTOMERS", "ORDERS", "DYN"});
}

TEST_F(Clear, ANameWithoutAnEntryIsNeitherClearedNorMade) {
  ProgramResult gone = run_program({.program = "mrvfile", .args = {"delete", account + "/VOC", "ORDERS"}});
  ASSERT_EQ(gone.status, 0) << gone.output;
  put(account + "/ORDERS", "HAND", "typed in");
  ProgramResult r = box.reel({"-O", "-E", "SALES"});
  EXPECT_NE(r.output.find("ORDERS open failure!\n"), std::string::npos) << r.output;
  EXPECT_EQ(voc(box, "ORDERS"), "<none>");
  EXPECT_EQ(keys_of(account + "/ORDERS"), (std::vector<std::string>{"HAND", "O1", "O2"}));
  EXPECT_EQ(listed_records(account + "/CUSTOMERS"), kCustomers);
}

}  // namespace
