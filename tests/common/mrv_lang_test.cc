// The multibyte description of a language: sections and their refusals.
#include "common/mrv_lang.h"

#include "support/console.h"
#include "support/files.h"
#include "support/temp_dir.h"

namespace {

TEST(Multibyte, SectionsAreReadAndBadOnesRefused) {
  TempDir dir;
  ConsoleCapture console;
  const std::string home = dir.str() + "/";
  const std::string path = home + "sys/" + MULTIBYTE_FILE;
  std::filesystem::create_directories(home + "sys");
  std::vector<CodeSet> sets;
  EXPECT_EQ(read_multibyte_config(home, "JAPANESE", &sets), 0);  // no file: no code sets
  EXPECT_TRUE(sets.empty());

  spill(path, "# code sets\nOTHER\n1 9 1-2\nEND\nJAPANESE\n1 2 0xA1-0xFE 0xA1-0xFE\n2 2 0xA1-0xFE 0x21-0x7E\nEND\n");
  ASSERT_EQ(read_multibyte_config(home, "JAPANESE", &sets), 0) << console.text();
  ASSERT_EQ(sets.size(), 2u);
  EXPECT_EQ(sets[1].ranges[1].low, 0x21);

  struct Case {
    const char* line;
    std::string message;
  } cases[] = {
      {"1 5 1-2", "Invalid number of bytes for a character in file " + path + "\n"},
      {"1 2 0x41-0x5A 0xA1-0xFE", "First byte of a non-ASCII character must have high 8 bit on in file " + path + "\n"},
      {"1 2 0xA1-0xFE 0xA1", "Invalid range format in file " + path + "\n"},
      {"x 2", "Invalid format for JAPANESE in " + home + "sys\\multibyte.config\n"},
      {"2 2 0xB1-0xFE 0xA1-0xFE\n1 2 0xA1-0xFE 0x21-0x7E",
       "Ranges are not in accending order. codeset=1, byte=1, file=" + path + "\n"},
      {"1 2 0xA1-0xFE 0xA1-0xFE\n2 2 0xA1-0xFE 0xB1-0xB2",
       "Invalid Multi-byte configuration: first two bytes do not determine a character. file is " + path + "\n"},
  };
  for (const Case& c : cases) {
    console.clear();
    spill(path, std::string("JAPANESE\n") + c.line + "\nEND\n");
    EXPECT_EQ(read_multibyte_config(home, "JAPANESE", &sets), -1) << c.line;
    EXPECT_EQ(console.text(), c.message) << c.line;
  }
}

}  // namespace
