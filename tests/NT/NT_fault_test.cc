// The test switch of writes and tape reads: each setting fails exactly the
// writes or reads it names, and nothing fails without it.
#include "NT/NT_fault.h"

#include <fcntl.h>
#include <gtest/gtest.h>

#include <cerrno>

#include "support/run_program.h"

namespace {

// Five writes and three tape reads under MRV_FAULT=`setting`, in a child:
// each write's errno (0 when it succeeded), then each read's verdict.
std::string outcomes(const char* setting) {
  ProgramResult r = run_in_child([setting] {
    if (setting != nullptr) setenv("MRV_FAULT", setting, 1);
    const int fd = open("/dev/null", O_WRONLY);
    std::string seen;
    for (int i = 0; i < 5; ++i) {
      errno = 0;
      seen += NT_write(fd, "abc", 3) == 3 ? "0 " : std::to_string(errno) + " ";
    }
    for (int i = 0; i < 3; ++i) seen += NT_fault_tape_read() ? "F" : ".";
    std::printf("%s|%llu", seen.c_str(), static_cast<unsigned long long>(NT_write_failures));
  });
  return r.output;
}

TEST(FaultSwitch, EachSettingFailsWhatItNames) {
  const std::string enospc = std::to_string(ENOSPC) + " ";
  EXPECT_EQ(outcomes(nullptr), "0 0 0 0 0 ...|0");
  EXPECT_EQ(outcomes("write:3:ENOSPC"), "0 0 " + enospc + enospc + enospc + "...|3");
  EXPECT_EQ(outcomes("write:2:EIO"), "0 " + std::to_string(EIO) + " 0 0 0 ...|1");
  EXPECT_EQ(outcomes("read:2"), "0 0 0 0 0 .F.|0");
  EXPECT_EQ(outcomes("write:0:EIO"), "0 0 0 0 0 ...|0");
  EXPECT_EQ(outcomes("write:2:EPERM"), "0 0 0 0 0 ...|0");
}

TEST(FaultSwitch, KillAndInterruptStopTheProcessBeforeTheirWrite) {
  ProgramResult killed = run_in_child([] {
    setenv("MRV_FAULT", "kill:2", 1);
    const int fd = open("/dev/null", O_WRONLY);
    NT_write(fd, "a", 1);
    std::printf("one|");
    std::fflush(stdout);
    NT_write(fd, "b", 1);
    std::printf("two");
  });
  EXPECT_EQ(killed.status, 128 + SIGKILL);
  EXPECT_EQ(killed.output, "one|");

  ProgramResult interrupted = run_in_child([] {
    setenv("MRV_FAULT", "interrupt:1", 1);
    std::signal(SIGINT, [](int) { std::printf("interrupted|"); });
    const int fd = open("/dev/null", O_WRONLY);
    if (NT_write(fd, "a", 1) == 1) std::printf("written");
  });
  EXPECT_EQ(interrupted.output, "interrupted|written");
}

}  // namespace
