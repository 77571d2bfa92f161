// REEL_INTAKE as an administrator runs it: the status line on a terminal
// and nothing of it off one, the run summary for scripts on every way a run
// ends and agreeing with dispmsg file by file, and mrvfile verify on the
// restored account.
#include <fcntl.h>
#include <pty.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <filesystem>
#include <fstream>
#include <sstream>
#include <string>
#include <vector>

#include "common/mrv_json.h"
#include "e2e/sandbox.h"
#include "support/temp_dir.h"

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
std::string run_on_terminal(const std::string& root, const std::vector<std::string>& args) {
  const std::string program = std::string(REEL_BIN_DIR) + "/REEL_INTAKE";
  int master = -1;
  pid_t pid = forkpty(&master, nullptr, nullptr, nullptr);
  if (pid == 0) {
    if (chdir((root + "/run").c_str()) != 0) _exit(127);
    setenv("MRVHOME", (root + "/home").c_str(), 1);
    setenv("MRVBIN", (root + "/bin").c_str(), 1);
    setenv("TMP", (root + "/tmp").c_str(), 1);
    setenv("MRV_REGISTRY", (root + "/no-registry").c_str(), 1);
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
  box.reel({"-A", "plan"});  // writes the sandbox's tapeinfo for a restore below
  spill(fs::path(box.run()).parent_path() / "home/sys/tapeinfo", "0 ../t.tap r../t.tap 8192\n");

  const std::string shown = run_on_terminal(fs::path(box.run()).parent_path().string(), {"ACC"});
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
    const std::vector<Told> told = told_in_dispmsg(slurp(box.account(name) + "/dispmsg"));
    const auto& files = account.get("files")->items;
    ASSERT_EQ(files.size(), told.size());
    for (size_t i = 0; i < files.size(); ++i) {
      EXPECT_EQ(files[i].text_of("kind"), told[i].kind);
      EXPECT_EQ(files[i].text_of("tape_name"), told[i].name);
      EXPECT_TRUE(files[i].bool_of("complete"));
      if (told[i].records >= 0) {
        EXPECT_EQ(files[i].number_of("records_restored"), told[i].records) << told[i].name;
      }
    }
  }
  EXPECT_EQ(accounts[0].number_of("members"), 3);
  EXPECT_EQ(accounts[0].get("files")->items[2].text_of("target"), "ORDER_LINESa");

  // The restored account verifies against the summary; a file short of
  // records and a file gone are named.
  ProgramResult verify = run_program({.program = "mrvfile", .args = {"verify", box.account("SALES"), "--summary", box.run() + "/summary.json"}});
  EXPECT_EQ(verify.status, 0) << verify.output;
  EXPECT_NE(verify.output.find(": sound, "), std::string::npos) << verify.output;
  ASSERT_EQ(run_program({.program = "mrvfile", .args = {"delete", box.account("SALES") + "/CUSTOMERS", "C2"}}).status, 0);
  verify = run_program({.program = "mrvfile", .args = {"verify", box.account("SALES"), "--summary", box.run() + "/summary.json"}});
  EXPECT_EQ(verify.status, 1);
  EXPECT_NE(verify.output.find("CUSTOMERS: 2 records, the run restored 3\n"), std::string::npos) << verify.output;
  fs::remove(box.account("SALES") + "/ORDER_LINESa");
  verify = run_program({.program = "mrvfile", .args = {"verify", box.account("SALES"), "--summary", box.run() + "/summary.json"}});
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
    box.reel({"-A", "plan"});
    spill(fs::path(box.run()).parent_path() / "home/sys/tapeinfo", "0 ../t.tap r../t.tap 8192\n");
    const std::string root = fs::path(box.run()).parent_path().string();
    ProgramResult r = run_program({.program = "REEL_INTAKE",
                                   .args = c.args,
                                   .input = c.answers,
                                   .directory = box.run(),
                                   .env = {{"MRVHOME", root + "/home"},
                                           {"MRVBIN", root + "/bin"},
                                           {"TMP", root + "/tmp"},
                                           {"MRV_REGISTRY", root + "/no-registry"},
                                           {"MRV_SUMMARY", root + "/s.json"}}});
    EXPECT_EQ(r.status, 1);
    JsonValue doc = read_summary(root + "/s.json");
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
  box.reel({"-A", "plan"});
  const fs::path root = fs::path(box.run()).parent_path();
  spill(root / "home/sys/tapeinfo", "0 ../t.tap r../t.tap 8192\n");
  spill(root / "s.json", "{\"completed\": true}");
  const std::string program = std::string(REEL_BIN_DIR) + "/REEL_INTAKE";
  {
    Child run([&] {
      if (chdir(box.run().c_str()) != 0) _exit(127);
      for (const auto& [name, value] : std::vector<std::pair<std::string, std::string>>{
               {"MRVHOME", (root / "home").string()}, {"MRVBIN", (root / "bin").string()},
               {"TMP", (root / "tmp").string()},      {"MRV_REGISTRY", (root / "none").string()},
               {"MRV_SUMMARY", (root / "s.json").string()}, {"MRV_MSG_PAUSE_MS", "0"}})
        setenv(name.c_str(), value.c_str(), 1);
      execl(program.c_str(), program.c_str(), "ACC", static_cast<char*>(nullptr));
      _exit(127);
    });
    ASSERT_TRUE(run.wait_for("or E to end")) << run.output();
    EXPECT_FALSE(fs::exists(root / "s.json"));
  }  // killed here, at the prompt
  EXPECT_FALSE(fs::exists(root / "s.json"));
}

}  // namespace

namespace {

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
  for (const char* program : {"REEL_INTAKE", "newacct", "mkreel", "mrvfile"}) {
    EXPECT_TRUE(fs::exists(prefix / "bin" / program)) << program;
    EXPECT_TRUE(fs::exists(prefix / "share/man/man1" / (std::string(program) + ".1"))) << program;
  }
  EXPECT_FALSE(fs::exists(prefix / "bin/flbench"));
  EXPECT_TRUE(fs::exists(prefix / "share/man/man5/tapeinfo.5"));

  // The home: include/, sys/tapeinfo and Temp/, laid out as `mrvhome init`
  // lays it out where that program is installed.
  const fs::path home = root / "home";
  if (fs::exists(prefix / "bin/mrvhome")) {
    ProgramResult init = run_program({.program = bin + "/mrvhome", .args = {"init", home.string()}});
    ASSERT_EQ(init.status, 0) << init.output;
  } else {
    for (const char* d : {"include", "sys", "Temp"}) fs::create_directories(home / d);
    spill(home / "sys/tapeinfo", "");
  }
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
  const std::vector<Told> told = told_in_dispmsg(slurp(account / "dispmsg"));
  const auto& files = sales.get("files")->items;
  ASSERT_EQ(files.size(), told.size());
  for (size_t i = 0; i < files.size(); ++i) {
    EXPECT_EQ(files[i].text_of("kind"), told[i].kind);
    EXPECT_EQ(files[i].text_of("tape_name"), told[i].name);
    if (told[i].records >= 0) {
      EXPECT_EQ(files[i].number_of("records_restored"), told[i].records);
    }
  }
  // The dictionary overflowed: resize_list and the summary name the same modulo.
  const JsonValue& dict = files.at(1);
  ASSERT_EQ(dict.text_of("kind"), "DICT");
  const int suggested = static_cast<int>(dict.number_of("suggested_modulo"));
  ASSERT_GT(suggested, 1);
  EXPECT_NE(slurp(account / "resize_list").find("------->  " + std::to_string(suggested)), std::string::npos);

  const std::string summary = (run / "sales.json").string();
  ProgramResult verify = run_program({.program = bin + "/mrvfile", .args = {"verify", account.string(), "--summary", summary}});
  EXPECT_EQ(verify.status, 0) << verify.output;

  // Resize what overflowed: every record stays, at the new modulo.
  const std::string d_customers = (account / "D_CUSTOMERS").string();
  const std::vector<std::string> before = listed_records(d_customers);
  ASSERT_EQ(before.size(), 401u);  // and the @ID of a new dictionary
  ProgramResult resized = run_program({.program = bin + "/mrvfile", .args = {"resize", d_customers, std::to_string(suggested)}});
  ASSERT_EQ(resized.status, 0) << resized.output;
  EXPECT_EQ(listed_records(d_customers), before);
  EXPECT_NE(run_program({.program = bin + "/mrvfile", .args = {"info", d_customers}}).output.find("modulo: " + std::to_string(suggested) + "\n"),
            std::string::npos);
  verify = run_program({.program = bin + "/mrvfile", .args = {"verify", account.string(), "--summary", summary}});
  EXPECT_EQ(verify.status, 0) << verify.output;

  // A file damaged on purpose is named.
  {
    std::fstream f(account / "CUSTOMERS", std::ios::in | std::ios::out | std::ios::binary);
    f.seekp(1024 + 6);  // flags of group 0's head block
    f.put(3);
  }
  verify = run_program({.program = bin + "/mrvfile", .args = {"verify", account.string(), "--summary", summary}});
  EXPECT_EQ(verify.status, 1);
  EXPECT_NE(("\n" + verify.output).find("\nCUSTOMERS: group 0"), std::string::npos) << verify.output;

  // And away again: nothing of the install is left but empty folders.
  ProgramResult removed = run_program({.program = "/bin/sh", .args = {"-c", make + "uninstall"}});
  EXPECT_EQ(removed.status, 0) << removed.output;
  for (const auto& e : fs::recursive_directory_iterator(prefix)) EXPECT_TRUE(e.is_directory()) << e.path();
}

}  // namespace
