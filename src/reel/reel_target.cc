#include "reel/reel_target.h"

#include "reel/reel_account.h"
#include "reel/reel_current.h"

void reel_show(char letter, int ok) {
  const CurrentFile& f = reel_current;
  const char* kind = reel_file_kind_text(f.file_kind);
  const char* name = f.name.c_str();
  switch (letter) {
    case 'L':
      reel_tell("Loading %s %s ...\n", kind, name);
      break;
    case 'O':
      reel_tell(f.file_kind == FILE_KIND_DICT ? "%s open dict failure!\n" : "%s open failure!\n",
                name);
      break;
    case 'M':
      reel_tell("Resize %s to new modulo ----- %d  ", name, f.modulo);
      reel_tell(ok ? "\n" : "failed\n");
      break;
    case 'C':
      if (ok == 0) {
        reel_tell("Create %s %s failure!\n", kind, name);
        break;
      }
      reel_tell("Create %s %s --- %d ", kind, name, f.modulo);
      if (f.short_name != f.name)
        reel_tell(" -----> %s\n", f.short_name.c_str());
      else
        reel_tell("\n");
      break;
    default:
      break;
  }
}
