// Report files: the mrv.errlog stanza and failed platform calls.
#include <cerrno>
#include <regex>

#include "NT/NT_logerror.h"
#include "common/mrv_exit.h"
#include "support/files.h"
#include "support/run_program.h"
#include "support/temp_dir.h"

namespace {

TEST(ErrlogExit, AppendsAStanzaToTheBinDirectory) {
  TempDir dir;
  setenv("MRVBIN", dir.str().c_str(), 1);
  M_errlog_exit("lock call failed");
  M_errlog_exit("again");
  unsetenv("MRVBIN");
  std::string log = slurp(dir.str() + "/mrv.errlog");
  std::regex stanza(
      "mrv \\(pid = [0-9]+\\) exit at [0-9]{2}:[0-9]{2}:[0-9]{2} [0-9]{2}/[0-9]{2}/[0-9]{2}\\.\n"
      "Error = lock call failed\n\n"
      "mrv \\(pid = [0-9]+\\) exit at .*\\.\nError = again\n\n");
  EXPECT_TRUE(std::regex_match(log, stanza)) << log;
}

TEST(LogError, SilentUnlessDebuggingThenToTheNamedFile) {
  TempDir dir;
  std::string log = dir.str() + "/debug.log";
  ProgramResult r = run_in_child([] {
    errno = ENOENT;
    MNT_LogError("CreateFile");
  });
  EXPECT_EQ(r.output, "");

  setenv("MRV_DEBUG", "1", 1);
  setenv("MRV_DEBUG_LOG", log.c_str(), 1);
  errno = ENOENT;
  MNT_LogError("CreateFile");
  unsetenv("MRV_DEBUG");
  unsetenv("MRV_DEBUG_LOG");
  std::regex report(
      "Mrvno:  [0-9]+, User: .*, Time: [0-9]{2}:[0-9]{2}:[0-9]{2} [A-Z][a-z]{2} [0-9]{2} "
      "[0-9]{4}\r\nAPI 'CreateFile' failed\\.  Error returned was:\r\n   \\(2\\) .+\r\n");
  std::string text = slurp(log);
  EXPECT_TRUE(std::regex_match(text, report)) << text;
}

}  // namespace
