#include "reel/reel_resume.h"

#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <cassert>
#include <cstdio>
#include <fstream>
#include <sstream>
#include <vector>

#include "NT/NT_fault.h"
#include "NT/NT_utils.h"
#include "flib/fl_voc.h"
#include "reel/reel_current.h"

namespace {

constexpr char kNewNote[] = ".reel_loading.new";

// Objects of the note, one a line: "<kind> <name>\t<path>", with a
// backslash, a TAB and a line end in the name and path written "\\",
// "\t" and "\n".
struct Noted {
  std::string object;  // "<kind> <name>"
  std::string path;
};
std::vector<Noted> g_left_unfinished;  // by an earlier run, not yet loaded again
std::vector<Noted> g_noted;            // the note as it stands now

std::string escaped(const std::string& text) {
  std::string out;
  for (char c : text) {
    if (c == '\\')
      out += "\\\\";
    else if (c == '\n')
      out += "\\n";
    else if (c == '\t')
      out += "\\t";
    else
      out += c;
  }
  return out;
}

const char* kind_text(int kind) {
  if (kind == REEL_OBJECT_WORK_FILE) return "WORK";
  if (kind == REEL_OBJECT_SCRATCH) return "TEMP";
  return reel_file_kind_text(kind);
}

std::string object_line(int kind, const std::string& name) {
  return std::string(kind_text(kind)) + " " + escaped(name);
}

std::string unescaped(const std::string& text) {
  std::string out;
  for (size_t i = 0; i < text.size(); ++i) {
    if (text[i] != '\\' || i + 1 == text.size()) {
      out += text[i];
      continue;
    }
    const char c = text[++i];
    out += c == 'n' ? '\n' : c == 't' ? '\t' : c;
  }
  return out;
}

const Noted* find(const std::vector<Noted>& list, const std::string& object) {
  for (const Noted& n : list)
    if (n.object == object) return &n;
  return nullptr;
}

void erase(std::vector<Noted>& list, const std::string& object) {
  std::erase_if(list, [&object](const Noted& n) { return n.object == object; });
}

// Writes the note as g_noted has it, or removes it when it is empty.
void write_note() {
  if (g_noted.empty()) {
    unlink(REEL_LOADING_NOTE);
    return;
  }
  std::string text;
  for (const Noted& n : g_noted) text += n.object + "\t" + escaped(n.path) + "\n";
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
  for (std::string line; std::getline(in, line);) {
    const size_t tab = line.find('\t');
    if (!line.empty()) g_left_unfinished.push_back({line.substr(0, tab), tab == std::string::npos ? "" : unescaped(line.substr(tab + 1))});
  }
  g_noted = g_left_unfinished;
}

bool reel_is_noted(int kind, const std::string& name) {
  return find(g_left_unfinished, object_line(kind, name)) != nullptr;
}

std::string reel_noted_path(int kind, const std::string& name) {
  const Noted* n = find(g_left_unfinished, object_line(kind, name));
  return n != nullptr ? n->path : "";
}

void reel_note_loading(int kind, const std::string& name, const std::string& path) {
  const std::string object = object_line(kind, name);
  if (const Noted* n = find(g_noted, object); n != nullptr && (path.empty() || n->path == path)) return;
  erase(g_noted, object);
  g_noted.push_back({object, path});
  write_note();
}

void reel_loading_done(int kind, const std::string& name, bool complete) {
  if (!complete) return;
  const std::string object = object_line(kind, name);
  if (find(g_noted, object) == nullptr) return;
  erase(g_left_unfinished, object);
  erase(g_noted, object);
  write_note();
}

void reel_clear_scratch() {
  assert(M_voc_is_open());
  const std::string prefix = std::string(kind_text(REEL_OBJECT_SCRATCH)) + " ";
  const std::vector<Noted> left = g_left_unfinished;
  for (const Noted& n : left) {
    if (!n.object.starts_with(prefix)) continue;
    const std::string name = unescaped(n.object.substr(prefix.size()));
    M_voc_delete(name);
    if (!n.path.empty()) NT_RemoveFile(n.path.c_str(), "");
    reel_loading_done(REEL_OBJECT_SCRATCH, name, true);
  }
}

void reel_forget_loading_note() {
  g_left_unfinished.clear();
  g_noted.clear();
}
