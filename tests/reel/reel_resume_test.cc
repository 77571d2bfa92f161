// The note of the object being loaded: what a run that broke off leaves,
// and what the next run learns from it.
#include "reel/reel_resume.h"

#include <algorithm>

#include "tape_child.h"

namespace {

// Runs `body` in a child working in `dir`.
void in_dir(const std::string& dir, const std::function<void()>& body) {
  ProgramResult r = run_in_child([&] {
    if (chdir(dir.c_str()) != 0) _exit(3);
    body();
  });
  EXPECT_EQ(r.status, 0) << r.output;
}

TEST(LoadingNote, NamesAndPathsOfAnyBytesComeBackToTheNextRun) {
  const std::string dir = tape_test::scratch("resume_note");
  const std::string odd = "A\tB\\C\nD";
  in_dir(dir, [&] {
    reel_read_loading_note();
    reel_note_loading(FILE_KIND_DATA, odd, "path\t" + odd);
    reel_note_loading(FILE_KIND_DICT, odd, "D_" + odd);
    reel_loading_done(FILE_KIND_DICT, odd, true);   // finished: leaves the note
    reel_note_loading(FILE_KIND_SAM, "NOTES");
    reel_loading_done(FILE_KIND_SAM, "NOTES", false);  // a failed write: stays
    _exit(0);  // killed: nothing more happens
  });
  // One line an object, whatever bytes its name holds.
  const std::string note = slurp(dir + "/" + REEL_LOADING_NOTE);
  EXPECT_TRUE(note.starts_with("DATA ")) << note;
  EXPECT_EQ(std::count(note.begin(), note.end(), '\n'), 2) << note;
  in_dir(dir, [&] {
    reel_read_loading_note();
    if (!reel_is_noted(FILE_KIND_DATA, odd) || reel_noted_path(FILE_KIND_DATA, odd) != "path\t" + odd) _exit(4);
    if (reel_is_noted(FILE_KIND_DICT, odd) || !reel_is_noted(FILE_KIND_SAM, "NOTES")) _exit(5);
    if (reel_is_noted(FILE_KIND_DATA, "A")) _exit(6);
    // Another object loaded meanwhile does not push the unfinished ones out.
    reel_note_loading(FILE_KIND_DATA, "OTHER", "OTHER");
    reel_loading_done(FILE_KIND_DATA, "OTHER", true);
    reel_read_loading_note();
    if (!reel_is_noted(FILE_KIND_DATA, odd) || !reel_is_noted(FILE_KIND_SAM, "NOTES")) _exit(7);
    reel_loading_done(FILE_KIND_DATA, odd, true);
    reel_loading_done(FILE_KIND_SAM, "NOTES", true);
  });
  EXPECT_FALSE(std::filesystem::exists(dir + "/" + REEL_LOADING_NOTE));
}

}  // namespace
