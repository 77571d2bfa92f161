// Commands and processes.
//
// NT_system runs a command line through the system shell ("/bin/sh -c")
// with the process's standard handles and waits; like the original direct
// route it reports 0 whatever the command's own exit code was.
//
// The tool's own housekeeping never goes through a shell: text from a tape
// (file and program names) must never reach one. The NT_cmd_* functions do
// natively what the housekeeping lines "mkdir", "mv", "cat" and
// "echo ... >> file" did, with the same visible result: the same directory,
// the same move, the same text printed, the same line appended (the words
// keep their single quotes, as the original platform's echo left them).
// Real programs (newacct, mrvsort) are started with an argument vector, found
// in MRVBIN first and then on PATH.
#pragma once

#include <string>
#include <vector>

int NT_system(const char* command);
int NT_RunCommand(const char* command);

// True when the first word of `command`, cut to its last path part, is the
// program `name` (cut the same way) with or without its extension, ignoring
// case.
bool is_command(const char* command, const char* name);

// Full path of a program: MRVBIN first, then each PATH directory; empty when
// not found.
std::string NT_find_program(const char* name);
// Starts `program` (found as above) with `args` and the process's standard
// handles, waits, and returns its exit status; -1 when it could not be run.
int NT_run_program(const char* program, const std::vector<std::string>& args);

// "mkdir path": 0, or -1 with the shell's kind of complaint on standard error.
int NT_cmd_mkdir(const char* path);
// "mv from to": into `to` when that is a directory; across file systems by
// copy and delete. 0 or -1 with a complaint.
int NT_cmd_move(const char* from, const char* to);
// "cat file": the file's bytes to standard output.
int NT_cmd_cat(const char* path);
// "echo text >> file": appends `text` and a newline to `file`.
int NT_cmd_echo_append(const char* file, const std::string& text);
// A word as the original echo line quoted it: 'word'.
std::string NT_echo_word(const std::string& word);
