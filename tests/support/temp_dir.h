// A scratch directory under the build folder, removed when the test ends.
#pragma once

#include <filesystem>
#include <string>

#include <gtest/gtest.h>
#include <unistd.h>

class TempDir {
 public:
  TempDir() {
    const auto* info = testing::UnitTest::GetInstance()->current_test_info();
    std::string name = info != nullptr
                           ? std::string(info->test_suite_name()) + "." + info->name()
                           : std::string("scratch");
    for (char& c : name)
      if (c == '/') c = '_';
    path_ = std::filesystem::path(REEL_TEST_TMP) / (name + "." + std::to_string(getpid()));
    std::filesystem::remove_all(path_);
    std::filesystem::create_directories(path_);
  }
  ~TempDir() {
    std::error_code ec;
    std::filesystem::remove_all(path_, ec);
  }
  TempDir(const TempDir&) = delete;
  TempDir& operator=(const TempDir&) = delete;

  const std::filesystem::path& path() const { return path_; }
  std::string str() const { return path_.string(); }

 private:
  std::filesystem::path path_;
};

// A test with a scratch directory of its own: `tmp`, and `dir` its path.
class ScratchTest : public testing::Test {
 protected:
  TempDir tmp;
  const std::string dir = tmp.str();
};
