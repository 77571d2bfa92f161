#include "reel/reel_resume.h"

#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <fstream>
#include <sstream>
#include <vector>

#include "NT/NT_fault.h"
#include "reel/reel_current.h"

namespace {

constexpr char kNewNote[] = ".reel_loading.new";

// Objects of the note, one a line: "<kind> <name>", with a backslash and a
// line end in the name written "\\" and "\n".
std::vector<std::string> g_left_unfinished;  // by an earlier run, not yet loaded again
std::vector<std::string> g_noted;            // the note as it stands now

std::string object_line(int kind, const std::string& name) {
  std::string line = std::string(reel_file_kind_text(kind)) + " ";
  for (char c : name) {
    if (c == '\\')
      line += "\\\\";
    else if (c == '\n')
      line += "\\n";
    else
      line += c;
  }
  return line;
}

void erase(std::vector<std::string>& lines, const std::string& line) {
  lines.erase(std::remove(lines.begin(), lines.end(), line), lines.end());
}

// Writes the note as g_noted has it, or removes it when it is empty.
void write_note() {
  if (g_noted.empty()) {
    unlink(REEL_LOADING_NOTE);
    return;
  }
  std::string text;
  for (const std::string& line : g_noted) text += line + "\n";
  const int fd = open(kNewNote, O_WRONLY | O_CREAT | O_TRUNC, 0644);
  if (fd < 0) return;
  const bool written = NT_write(fd, text.data(), text.size()) == static_cast<ssize_t>(text.size()) &&
                       fsync(fd) == 0;
  close(fd);
  if (written)
    std::rename(kNewNote, REEL_LOADING_NOTE);
  else
    unlink(kNewNote);
}

}  // namespace

void reel_read_loading_note() {
  g_left_unfinished.clear();
  std::ifstream in(REEL_LOADING_NOTE);
  for (std::string line; std::getline(in, line);)
    if (!line.empty()) g_left_unfinished.push_back(line);
  g_noted = g_left_unfinished;
}

bool reel_is_noted(int kind, const std::string& name) {
  const std::string line = object_line(kind, name);
  return std::find(g_left_unfinished.begin(), g_left_unfinished.end(), line) != g_left_unfinished.end();
}

void reel_note_loading(int kind, const std::string& name) {
  const std::string line = object_line(kind, name);
  if (std::find(g_noted.begin(), g_noted.end(), line) != g_noted.end()) return;
  g_noted.push_back(line);
  write_note();
}

void reel_loading_done(int kind, const std::string& name, bool complete) {
  if (!complete) return;
  const std::string line = object_line(kind, name);
  if (std::find(g_noted.begin(), g_noted.end(), line) == g_noted.end()) return;
  erase(g_left_unfinished, line);
  erase(g_noted, line);
  write_note();
}

void reel_forget_loading_note() {
  g_left_unfinished.clear();
  g_noted.clear();
}
