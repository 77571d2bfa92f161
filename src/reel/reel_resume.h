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

// Reads the note of the account in the working directory: what an earlier
// run left unfinished. Called right after the account is entered.
void reel_read_loading_note();
// Whether the note of the earlier run names the object (`kind` as
// reel_file_kind_text gives it, `name` its name on tape).
bool reel_is_noted(int kind, const std::string& name);
// The object is about to be written: it joins the note.
void reel_note_loading(int kind, const std::string& name);
// The object is done: it leaves the note unless `complete` is false.
void reel_loading_done(int kind, const std::string& name, bool complete);
// Forgets the account's note (the account is closed).
void reel_forget_loading_note();
