// REEL_INTAKE as an administrator runs it: the status line on a terminal
// and nothing of it off one, the run summary for scripts on every way a run
// ends and agreeing with dispmsg file by file, and mrvfile verify on the
// restored account.
#include <fcntl.h>
#include <pty.h>

#include <cerrno>

#include "common/mrv_json.h"
#include "e2e/sandbox.h"

namespace {

namespace fs = std::filesystem;

// A save of one account with a file of `records` records.
std::string long_save(int records) {
  std::string save = "tape t.tap\nlabel name=LONG\naccount BIG\nfile ITEMS hashed\nsubfile modulo=997\n";
  for (int i = 0; i < records; ++i) save += "item K" + std::to_string(i) + " 'record number " + std::to_string(i) + "'\n";
  return save + "end\n";
}

// Runs REEL_INTAKE with its standard input, output and error on a
// pseudo-terminal, as at an operator's console; returns what the terminal
// showed.
std::string run_on_terminal(const Sandbox& box, const std::vector<std::string>& args) {
  const std::string program = std::string(REEL_BIN_DIR) + "/REEL_INTAKE";
  box.set_unit(args);
  int master = -1;
  pid_t pid = forkpty(&master, nullptr, nullptr, nullptr);
  if (pid == 0) {
    if (chdir(box.run().c_str()) != 0) _exit(127);
    for (const auto& [name, value] : box.env()) setenv(name.c_str(), value.c_str(), 1);
    setenv("MRV_MSG_PAUSE_MS", "0", 1);
    unsetenv("MRV_STATUS");
    std::vector<char*> argv{const_cast<char*>(program.c_str())};
    for (const auto& a : args) argv.push_back(const_cast<char*>(a.c_str()));
    argv.push_back(nullptr);
    alarm(60);
    execv(program.c_str(), argv.data());
    _exit(127);
  }
  std::string shown;
  if (pid < 0) return shown;
  char chunk[4096];
  for (;;) {
    ssize_t n = read(master, chunk, sizeof chunk);
    if (n > 0) {
      shown.append(chunk, static_cast<size_t>(n));
      continue;
    }
    if (n < 0 && errno == EINTR) continue;
    break;  // EIO once the child has closed the terminal
  }
  close(master);
  waitpid(pid, nullptr, 0);
  return shown;
}

TEST(Progress, ShownInPlaceOnATerminalAndNotInAPipe) {
  Sandbox box;
  spill(box.run() + "/save.txt", long_save(30000));
  ASSERT_EQ(run_program({.program = "mkreel", .args = {"save.txt"}, .directory = box.run()}).status, 0);

  const std::string shown = run_on_terminal(box, {"ACC"});
  EXPECT_NE(shown.find("REEL_INTAKE is finished"), std::string::npos) << shown;
  const size_t line = shown.find("\r\x1b[KBIG ITEMS: ");
  ASSERT_NE(line, std::string::npos) << shown.substr(0, 2000);
  EXPECT_NE(shown.find(" records, ", line), std::string::npos);
  EXPECT_NE(shown.find(" MB read", line), std::string::npos);
  // The line is cleared before the last console line and not drawn again.
  const size_t finished = shown.find("REEL_INTAKE is finished");
  EXPECT_LT(shown.rfind("\r\x1b[K"), finished);
  EXPECT_NE(slurp(box.account("BIG") + "/dispmsg").find("30000 records restored"), std::string::npos);

  // The same load again (over the existing file) with output to a pipe.
  ProgramResult piped = box.reel({"-R", "ALL", "ACC2"});
  EXPECT_NE(piped.output.find("REEL_INTAKE is finished"), std::string::npos) << piped.output;
  EXPECT_EQ(piped.output.find('\x1b'), std::string::npos);
  EXPECT_EQ(piped.output.find("MB read"), std::string::npos);
  EXPECT_NE(piped.output.find("......"), std::string::npos);  // the dots stay
}

// dispmsg's account of the files: (kind, tape name, count or -1).
struct Told {
  std::string kind;
  std::string name;
  long long records = -1;
};

std::vector<Told> told_in_dispmsg(const std::string& text) {
  std::vector<Told> told;
  std::istringstream in(text);
  for (std::string line; std::getline(in, line);) {
    for (const char* verb : {"Create ", "Loading "}) {
      if (!line.starts_with(verb)) continue;
      const std::string rest = line.substr(std::string(verb).size());
      std::string kind = rest.substr(0, 4);
      while (kind.ends_with(' ')) kind.pop_back();
      const size_t end = rest.find(verb[0] == 'C' ? " --- " : " ...");
      told.push_back({kind, rest.substr(5, end - 5)});
    }
    if (line.ends_with(" records restored") && !told.empty()) told.back().records = std::stoll(line);
  }
  return told;
}

// The summary's files of an account against dispmsg's account of them.
void expect_agrees(const JsonValue& account, const std::string& dispmsg) {
  const std::vector<Told> told = told_in_dispmsg(dispmsg);
  const auto& files = account.get("files")->items;
  ASSERT_EQ(files.size(), told.size());
  for (size_t i = 0; i < files.size(); ++i) {
    EXPECT_EQ(files[i].text_of("kind"), told[i].kind);
    EXPECT_EQ(files[i].text_of("tape_name"), told[i].name);
    if (told[i].records >= 0) EXPECT_EQ(files[i].number_of("records_restored"), told[i].records) << told[i].name;
  }
}

JsonValue read_summary(const std::string& path) {
  JsonValue v;
  std::string error;
  EXPECT_TRUE(M_json_parse(slurp(path), &v, &error)) << error;
  return v;
}

const char kSave[] =
    "tape t.tap\nlabel name=SAVE\naccount SALES\n"
    "file CUSTOMERS hashed\nsubfile modulo=3 room=64\nitem C1 'Smith\\xFEJohn'\nitem C2 'Jones'\nitem C3 'Brown'\n"
    "file D_CUSTOMERS hashed\nsubfile modulo=1\nitem @ID 'D\\xFE0'\n"
    "file 'ORDER LINES' hashed\nsubfile modulo=1\nitem L1 'a'\nitem L2 'b'\n"
    "file BP dir\nsub MAIN sam\ntext 'PRINT 1\\nEND\\n'\nsub REPORT sam\ntext 'CRT 2\\n'\n"
    "file NOTES sam\ntext 'Read me.\\n'\n"
    "account STOCK\nfile PARTS hashed\nsubfile modulo=3\nitem P1 'Bolt'\n"
    "end\n";

TEST(RunSummary, AgreesWithDispmsgFileByFile) {
  Sandbox box(kSave);
  setenv("MRV_SUMMARY", "summary.json", 1);  // relative: taken from where the run starts
  ProgramResult run = box.reel({"ACC"});
  unsetenv("MRV_SUMMARY");
  ASSERT_EQ(run.status, 1);
  JsonValue doc = read_summary(box.run() + "/summary.json");
  EXPECT_TRUE(doc.bool_of("completed"));
  EXPECT_EQ(doc.text_of("ended_by"), "end of save");
  EXPECT_EQ(doc.number_of("records_restored"), 7);
  const auto& accounts = doc.get("accounts")->items;
  ASSERT_EQ(accounts.size(), 2u);
  for (const JsonValue& account : accounts) {
    const std::string name = account.text_of("name");
    SCOPED_TRACE(name);
    EXPECT_EQ(fs::path(account.text_of("directory")), fs::canonical(box.account(name)));
    expect_agrees(account, slurp(box.account(name) + "/dispmsg"));
    for (const JsonValue& file : account.get("files")->items) EXPECT_TRUE(file.bool_of("complete"));
  }
  EXPECT_EQ(accounts[0].number_of("members"), 3);
  EXPECT_EQ(accounts[0].get("files")->items[2].text_of("target"), "ORDER_LINESa");

  // The restored account verifies against the summary; a file short of
  // records and a file gone are named.
  auto verify_sales = [&] {
    return run_program({.program = "mrvfile", .args = {"verify", box.account("SALES"), "--summary", box.run() + "/summary.json"}});
  };
  ProgramResult verify = verify_sales();
  EXPECT_EQ(verify.status, 0) << verify.output;
  EXPECT_NE(verify.output.find(": sound, "), std::string::npos) << verify.output;
  ASSERT_EQ(run_program({.program = "mrvfile", .args = {"delete", box.account("SALES") + "/CUSTOMERS", "C2"}}).status, 0);
  verify = verify_sales();
  EXPECT_EQ(verify.status, 1);
  EXPECT_NE(verify.output.find("CUSTOMERS: 2 records, the run restored 3\n"), std::string::npos) << verify.output;
  fs::remove(box.account("SALES") + "/ORDER_LINESa");
  verify = verify_sales();
  EXPECT_NE(("\n" + verify.output).find("\nORDER_LINESa: no such file (named by the VOC entry ORDER LINES)\n"), std::string::npos)
      << verify.output;
  EXPECT_NE(verify.output.find(box.account("SALES") + ": 2 findings\n"), std::string::npos) << verify.output;
}

// A reel that ends without the end of the save: the run asks for the next
// reel. What it is told decides how the summary says it ended.
TEST(RunSummary, WrittenOnEveryWayARunEnds) {
  const std::string cut = "tape t.tap\nlabel name=CUT\naccount CUT\nfile F hashed\nsubfile modulo=1\nitem A 'x'\n";
  struct Case {
    std::vector<std::string> args;
    std::string answers;
    const char* ended_by;
  } cases[] = {
      {{"ACC"}, "", "end of input"},
      {{"ACC"}, "E\n", "operator"},
      {{"-U", "5", "ACC"}, "", "fatal"},  // no such unit
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.ended_by);
    Sandbox box(cut);
    ProgramResult r = box.reel(c.args, {{"MRV_SUMMARY", box.root() + "/s.json"}}, c.answers);
    EXPECT_EQ(r.status, 1);
    JsonValue doc = read_summary(box.root() + "/s.json");
    EXPECT_EQ(doc.text_of("ended_by"), c.ended_by) << r.output;
    EXPECT_FALSE(doc.bool_of("completed", true));
    if (std::string(c.ended_by) == "fatal") continue;
    // The file the reel ended in: as dispmsg tells it when it was finished,
    // incomplete when the run ended with it open.
    const JsonValue& account = doc.get("accounts")->items.at(0);
    const JsonValue& file = account.get("files")->items.at(0);
    EXPECT_EQ(file.text_of("tape_name"), "F");
    const std::vector<Told> told = told_in_dispmsg(slurp(account.text_of("directory") + "/dispmsg"));
    ASSERT_EQ(told.size(), 1u);
    EXPECT_EQ(file.bool_of("complete"), told[0].records >= 0);
    if (told[0].records >= 0) {
      EXPECT_EQ(file.number_of("records_restored"), told[0].records);
    }
  }
}

// A summary an earlier run left is gone as soon as the next run starts, so
// that a run killed at a prompt leaves none to be mistaken for its own.
TEST(RunSummary, AKilledRunLeavesNoneBehind) {
  Sandbox box("tape t.tap\nlabel name=CUT\naccount CUT\nfile F hashed\nsubfile modulo=1\nitem A 'x'\n");
  const fs::path root = box.root();
  spill(root / "s.json", "{\"completed\": true}");
  {
    Child run = box.start({"ACC"}, {{"MRV_SUMMARY", (root / "s.json").string()}});
    ASSERT_TRUE(run.wait_for("or E to end")) << run.output();
    EXPECT_FALSE(fs::exists(root / "s.json"));
  }  // killed here, at the prompt
  EXPECT_FALSE(fs::exists(root / "s.json"));
}

// The whole road of an administrator, from an installed tree: install into
// a scratch prefix, lay out a home, add a tape unit, restore with the
// console going to a file, read the summary, verify, resize what
// overflowed.
TEST(Installed, RestoreVerifyAndResizeFromAnInstalledTree) {
  TempDir dir;
  const fs::path root = dir.path();
  const fs::path prefix = root / "prefix";
  const fs::path build = fs::path(REEL_BIN_DIR).parent_path();
  // The tree is built already, so the build step of `make install` has
  // nothing to do.
  const std::string make = "make -s -C '" + std::string(REEL_SOURCE_DIR) + "' BUILD='" + build.string() +
                           "' PREFIX='" + prefix.string() + "' ";
  ProgramResult installed = run_program({.program = "/bin/sh", .args = {"-c", make + "install"}});
  ASSERT_EQ(installed.status, 0) << installed.output;
  const std::string bin = (prefix / "bin").string();
  for (const char* program : {"REEL_INTAKE", "newacct", "mkreel", "mrvfile", "mrvhome"}) {
    EXPECT_TRUE(fs::exists(prefix / "bin" / program)) << program;
    EXPECT_TRUE(fs::exists(prefix / "share/man/man1" / (std::string(program) + ".1"))) << program;
  }
  EXPECT_FALSE(fs::exists(prefix / "bin/flbench"));
  EXPECT_TRUE(fs::exists(prefix / "share/man/man5/tapeinfo.5"));

  // The home, laid out by the installed mrvhome.
  const fs::path home = root / "home";
  ProgramResult init = run_program({.program = bin + "/mrvhome", .args = {"init", home.string()}});
  ASSERT_EQ(init.status, 0) << init.output;
  // Unit 1: the image one up from the account, where a restore works.
  std::ofstream(home / "sys/tapeinfo", std::ios::app) << "1 ../t.tap r../t.tap 8192\n";

  // A save whose dictionary outgrows its modulo: the loader resizes data
  // files itself, a dictionary goes to resize_list.
  std::string save = "tape t.tap\nlabel name=SAVE\naccount SALES\n"
                     "file CUSTOMERS hashed\nsubfile modulo=7\nitem C1 'Smith'\nitem C2 'Jones'\n"
                     "file D_CUSTOMERS hashed\nsubfile modulo=1\n";
  for (int i = 0; i < 400; ++i) save += "item F" + std::to_string(i) + " 'D\\xFE" + std::string(60, 'x') + "'\n";
  save += "file BP dir\nsub MAIN sam\ntext 'PRINT 1\\nEND\\n'\nend\n";
  const fs::path run = root / "run";
  fs::create_directories(run);
  spill(run / "save.txt", save);
  ASSERT_EQ(run_program({.program = bin + "/mkreel", .args = {"save.txt"}, .directory = run.string()}).status, 0);

  // Output to a file, no pause setting: nothing pauses, so the run with its
  // dozens of console lines ends at once (a second a line would outlast the
  // child's alarm).
  ProgramResult restore = run_program(
      {.program = "/bin/sh",
       .args = {"-c", "exec '" + bin + "/REEL_INTAKE' -U 1 STAGE > run.log 2>&1"},
       .directory = run.string(),
       .env = {{"MRVHOME", home.string()},
               {"MRVBIN", bin},
               {"TMP", (home / "Temp").string()},
               {"MRV_REGISTRY", (root / "no-registry").string()},
               {"MRV_SUMMARY", "sales.json"}},
       .unset = {"MRV_MSG_PAUSE_MS"}});
  const std::string log = slurp(run / "run.log");
  EXPECT_EQ(restore.status, 1) << log;
  EXPECT_NE(log.find("REEL_INTAKE is finished"), std::string::npos) << log;
  EXPECT_EQ(log.find('\x1b'), std::string::npos);

  const fs::path account = run / "SALES";
  JsonValue doc = read_summary((run / "sales.json").string());
  EXPECT_TRUE(doc.bool_of("completed"));
  const JsonValue& sales = doc.get("accounts")->items.at(0);
  expect_agrees(sales, slurp(account / "dispmsg"));
  // The dictionary overflowed: resize_list and the summary name the same modulo.
  const JsonValue& dict = sales.get("files")->items.at(1);
  ASSERT_EQ(dict.text_of("kind"), "DICT");
  const int suggested = static_cast<int>(dict.number_of("suggested_modulo"));
  ASSERT_GT(suggested, 1);
  EXPECT_NE(slurp(account / "resize_list").find("------->  " + std::to_string(suggested)), std::string::npos);

  auto mrvfile = [&](std::vector<std::string> args) {
    return run_program({.program = bin + "/mrvfile", .args = std::move(args)});
  };
  const std::string summary = (run / "sales.json").string();
  ProgramResult verify = mrvfile({"verify", account.string(), "--summary", summary});
  EXPECT_EQ(verify.status, 0) << verify.output;

  // Resize what overflowed (the records a resize keeps are mrvfile's own
  // tests'); the account still verifies.
  const std::string d_customers = (account / "D_CUSTOMERS").string();
  ASSERT_EQ(listed_records(d_customers).size(), 401u);  // and the @ID of a new dictionary
  ProgramResult resized = mrvfile({"resize", d_customers, std::to_string(suggested)});
  ASSERT_EQ(resized.status, 0) << resized.output;
  verify = mrvfile({"verify", account.string(), "--summary", summary});
  EXPECT_EQ(verify.status, 0) << verify.output;

  // A file damaged on purpose is named.
  {
    std::fstream f(account / "CUSTOMERS", std::ios::in | std::ios::out | std::ios::binary);
    f.seekp(1024 + 6);  // flags of group 0's head block
    f.put(3);
  }
  verify = mrvfile({"verify", account.string(), "--summary", summary});
  EXPECT_EQ(verify.status, 1);
  EXPECT_NE(("\n" + verify.output).find("\nCUSTOMERS: group 0"), std::string::npos) << verify.output;

  // And away again: nothing of the install is left but empty folders.
  ProgramResult removed = run_program({.program = "/bin/sh", .args = {"-c", make + "uninstall"}});
  EXPECT_EQ(removed.status, 0) << removed.output;
  for (const auto& e : fs::recursive_directory_iterator(prefix)) EXPECT_TRUE(e.is_directory()) << e.path();
}

}  // namespace
