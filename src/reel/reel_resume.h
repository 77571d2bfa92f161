// Resuming a restore that broke off.
//
// While a file or member is being loaded, the account holds the note
// ".reel_loading" naming it. A run that breaks off (killed, power lost, a
// full disk) leaves the note behind; the next run into the account reads it
// at the account's opening, and with -R ALL an object the note names is
// taken as missing and loaded again, where -R ALL otherwise keeps what
// exists. A file whose load ended with a failed write stays in the note
// after its close, so that it too is loaded again.
//
// Invariants:
//   1. The note is written and synced (through a new name and a rename, so
//      it is never seen half written) before the first write of the object
//      it names.
//   2. An object leaves the note only once it is finished and sound; the
//      objects an earlier run left unfinished stay in it until this run has
//      loaded each of them again.
#pragma once

#include <string>

inline constexpr char REEL_LOADING_NOTE[] = ".reel_loading";
// The kind under which the account's own work files (pgm_map, SAM, DAM)
// are noted while they are made; other objects go by their file kind.
inline constexpr int REEL_OBJECT_WORK_FILE = 5;
// A scratch file of the loader (the new layout of a resize): whatever of it
// a run that broke off left is removed when the account is opened again.
inline constexpr int REEL_OBJECT_SCRATCH = 6;

// Reads the note of the account in the working directory: what an earlier
// run left unfinished. Called right after the account is entered.
void reel_read_loading_note();
// Whether the note of the earlier run names the object (`kind` a file kind
// or one of the kinds above, `name` its name on tape).
bool reel_is_noted(int kind, const std::string& name);
// The path on disk that the earlier run noted for the object, or empty.
std::string reel_noted_path(int kind, const std::string& name);
// The object is about to be written, at `path` in the account (empty when
// it has no path of its own): it joins the note.
void reel_note_loading(int kind, const std::string& name, const std::string& path = "");
// Removes the scratch files (and their VOC entries) that the earlier run
// left. REQUIRES: the account's VOC is open.
void reel_clear_scratch();
// The object is done: it leaves the note unless `complete` is false.
void reel_loading_done(int kind, const std::string& name, bool complete);
// Forgets the account's note (the account is closed).
void reel_forget_loading_note();
