// Home directories: the administrator's stop switch, the temporary
// directory's candidates, and read_root's single run.
#include "common/readroot.h"

#include <sys/stat.h>

#include "common/settmppath.h"
#include "support/files.h"
#include "support/run_program.h"
#include "support/temp_dir.h"

namespace {

class Root : public testing::Test {
 protected:
  void SetUp() override {
    for (const char* d : {"home/Temp", "bin", "good"}) std::filesystem::create_directories(dir_.path() / d);
    for (const char* name : {"MRV_TEMP", "TEMP", "TMP"}) unsetenv(name);
    setenv("MRVHOME", (dir_.str() + "/home").c_str(), 1);
    setenv("MRVBIN", (dir_.str() + "/bin").c_str(), 1);
    setenv("MRV_REGISTRY", registry().c_str(), 1);
    reset_root_for_tests();
  }
  void TearDown() override {
    for (const char* name : {"MRVHOME", "MRVBIN", "MRV_REGISTRY", "MRV_TEMP", "TEMP", "TMP"}) unsetenv(name);
    reset_root_for_tests();
  }
  std::string registry() const { return dir_.str() + "/registry"; }
  TempDir dir_;
};

TEST_F(Root, StoppedEndsTheRunBeforeTheHomeIsLookedAt) {
  spill(registry(), "STOPPED=1\n");
  setenv("MRVHOME", "/no/such/home", 1);
  ProgramResult r = run_in_child([] { read_root(); });
  EXPECT_EQ(r.output, "An Administrator has stopped Morvane from running.\nUse startmr to restart Morvane.\n");
  EXPECT_NE(r.status, 0);

  spill(registry(), "STOPPED=0\n");
  setenv("MRVHOME", (dir_.str() + "/home").c_str(), 1);
  r = run_in_child([] {
    read_root();
    std::printf("home %s\n", mrv_home_dir().c_str());
    std::exit(0);
  });
  EXPECT_EQ(r.output, "home " + dir_.str() + "/home/\n");
}

TEST_F(Root, TemporaryDirectoryCandidatesInOrder) {
  spill(dir_.path() / "plain", "");
  setenv("MRV_TEMP", (dir_.str() + "/missing").c_str(), 1);
  setenv("TEMP", (dir_.str() + "/plain").c_str(), 1);  // not a directory
  setenv("TMP", (dir_.str() + "/good").c_str(), 1);
  ASSERT_NE(get_temp_path(), nullptr);
  EXPECT_EQ(std::string(get_temp_path()), dir_.str() + "/good");
  EXPECT_EQ(std::string(std::getenv("TMP")), dir_.str() + "/good");
}

TEST_F(Root, NoCandidateGivesTheHomesTempAndASecondCallDoesNothing) {
  spill(registry(), "");
  read_root();
  EXPECT_EQ(std::string(std::getenv("TEMP")), dir_.str() + "/home/Temp");
  EXPECT_EQ(std::string(std::getenv("TMP")), dir_.str() + "/home/Temp");
  setenv("MRVHOME", "/elsewhere", 1);
  read_root();
  EXPECT_EQ(mrv_home_dir(), dir_.str() + "/home/");
  EXPECT_EQ(std::string(get_include_dir()), dir_.str() + "/home/include");
  // The library's temporary path takes only the candidates, not the home's
  // Temp: with none it is /tmp/.
  settmppath();
  EXPECT_EQ(std::string(M_tmp_path), "/tmp/");
}

TEST_F(Root, WithoutTempUnderTheHomeTheRunEnds) {
  std::filesystem::remove(dir_.path() / "home/Temp");
  ProgramResult r = run_in_child([] { read_root(); });
  EXPECT_EQ(r.output, "Can't access " + dir_.str() + "/home/Temp.\n");
}

}  // namespace
