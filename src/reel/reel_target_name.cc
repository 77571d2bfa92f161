// Names on disk of tape objects, and what becomes of a target in the way.
#include <algorithm>
#include <cstdio>
#include <cstring>

#include "NT/NT_access.h"
#include "NT/NT_utils.h"
#include "common/mrv_marks.h"
#include "common/mrv_status.h"
#include "flib/fl_read.h"
#include "flib/fl_voc.h"
#include "reel/reel_account.h"
#include "reel/reel_current.h"
#include "reel/reel_init.h"
#include "reel/reel_resume.h"
#include "reel/reel_settings.h"
#include "reel/reel_target.h"
#include "reel/reel_util.h"

namespace {

constexpr char kDictPrefix[] = "D_";

// Type words of VOC items that are files; any other item gives way.
bool is_file_type(const std::string& type) {
  return type.starts_with("F") || type.starts_with("LF") || type.starts_with("LD") ||
         type.starts_with("DIR");
}

bool is_file_word(const char* type) {
  return std::strcmp(type, "LF") == 0 || std::strcmp(type, "LD") == 0 || std::strcmp(type, "DIR") == 0 ||
         std::strcmp(type, "F") == 0;
}

bool accessible(const std::string& path) { return NT_access(path.c_str(), AccessMode::Exists) == 0; }

// The VOC item of `key` as type, data path and dictionary path, each read
// as reel_next_attribute reads them. False when there is no item.
struct VocItem {
  char type[REEL_ATTRIBUTE_LIMIT + 1] = {};
  char data[REEL_ATTRIBUTE_LIMIT + 1] = {};
  char dict[REEL_ATTRIBUTE_LIMIT + 1] = {};
};

bool read_voc_item(const std::string& key, VocItem* item, std::string* record) {
  if (M_voc_read(key, record) != 1) return false;
  const auto* cursor = reinterpret_cast<const unsigned char*>(record->c_str());
  reel_next_attribute(&cursor, item->type, 1);
  reel_next_attribute(&cursor, item->data, 1);
  reel_next_attribute(&cursor, item->dict, 1);
  return true;
}

// Replaces every character of name_bad_chars by its fill character. A
// file's name becomes fields of its VOC entry, so a field or record mark
// in it (which would cut the entry into other paths, ".." among them) is
// made "_" as well.
void clean_name(std::string& name, int mode) {
  const RunSettings& s = reel_settings;
  for (char& c : name) {
    size_t at = s.name_bad_chars.find(c);
    if (at != std::string::npos && at < s.name_fill_chars.size())
      c = s.name_fill_chars[at];
    else if (mode == REEL_NAME_FILE &&
             (static_cast<unsigned char>(c) == M_FM || static_cast<unsigned char>(c) == M_RM))
      c = '_';
  }
}

// Letters in the last place, then in the place before it, until a free
// name is found; the operator names it when all are taken.
std::string unique_name(std::string work, int mode) {
  const int max = reel_settings.max_name_len;
  int len = static_cast<int>(work.size());
  for (char c2 = 'a';; ++c2) {
    if (len < max) {
      work.push_back('a');
      ++len;
    }
    for (char c = 'a'; c <= 'z'; ++c) {
      work[static_cast<size_t>(len - 1)] = c;
      if (reel_name_exists(work, len, mode) == 0) return work;
    }
    if (c2 > 'z' || len < 2) break;
    work[static_cast<size_t>(len - 2)] = c2;
  }
  for (;;) {
    M_status_clear();
    std::printf("Please enter a short name: ");
    std::fflush(stdout);
    char answer[256];
    if (std::scanf("%255s", answer) != 1) reel_fatal("End of input while waiting for a short name.\n");
    if (reel_name_exists(answer, len, mode) == 0) return answer;
  }
}

}  // namespace

int reel_name_exists(const std::string& name, int name_len, int mode) {
  std::string n = name.substr(0, static_cast<size_t>(std::max(name_len, 0)));
  if (mode == REEL_NAME_FILE) {
    std::string record;
    return M_voc_read(n, &record) == 1 || accessible(n) || accessible(kDictPrefix + n) ? 1 : 0;
  }
  if (mode == REEL_NAME_MEMBER) return accessible(reel_current.short_name + "/" + n) ? 1 : 0;
  return 1;
}

int reel_target_name(std::string& key, std::string& target_out, int mode) {
  std::string record;
  int found = 0;
  if (mode == REEL_NAME_FILE) {
    found = M_voc_read(key, &record) == 1;
    if (found && !is_file_type(M_voc_fields(record).type)) {
      M_voc_delete(key);  // a verb or menu of the same name gives way to the file
      found = 0;
    }
  } else if (mode == REEL_NAME_MEMBER) {
    found = M_read_tuple(&reel_pgm_map, reinterpret_cast<const uint8_t*>(key.data()),
                         static_cast<int32_t>(key.size()), &record) == 1;
    if (found) {
      target_out = record;
      return REEL_TARGET_EXISTS;
    }
  }
  if (found) {
    VocItem item;
    read_voc_item(key, &item, &record);
    target_out = item.data;
    if (target_out.empty()) target_out = std::string(item.dict).substr(std::min<size_t>(2, std::strlen(item.dict)));
    const int32_t kind = reel_current.file_kind;
    if ((kind == FILE_KIND_DICT && item.dict[0] != '\0') ||
        ((kind == FILE_KIND_DATA || kind == FILE_KIND_DIR) && item.data[0] != '\0'))
      return REEL_TARGET_EXISTS;
    return target_out == key ? REEL_TARGET_SAME : REEL_TARGET_OTHER;
  }

  if (mode == REEL_NAME_MEMBER) key = target_out;
  std::string work = key;
  if (work.size() > static_cast<size_t>(reel_settings.max_name_len))
    work.resize(static_cast<size_t>(reel_settings.max_name_len));
  clean_name(work, mode);
  // An empty name names no file on disk: it takes a letter like a taken one.
  if (work != key || work.empty() ||
      reel_name_exists(work, static_cast<int>(work.size()), mode) != 0) {
    target_out = unique_name(work, mode);
    return REEL_TARGET_OTHER;
  }
  target_out = key;
  return REEL_TARGET_SAME;
}

int reel_ask_overwrite(const std::string& tape_name, const std::string& target_name) {
  const RunSettings& s = reel_settings;
  // -R ALL keeps what exists, but for what a run that broke off left
  // unfinished: that is loaded again.
  const bool unfinished = reel_is_noted(reel_current.file_kind, tape_name);
  if (s.recovery_mode == 2 && !unfinished) return 2;
  const bool dict = reel_current.file_kind == FILE_KIND_DICT;
  VocItem item;
  std::string record;
  const bool readable = read_voc_item(tape_name, &item, &record);

  int answer = 0;
  if (s.recovery_mode != 0 || (readable && (tape_name == "BP" || !is_file_word(item.type)))) answer = 'O';
  while (answer != 'S' && answer != 'O') {
    M_status_clear();  // the question stands on lines of its own
    std::printf(dict ? "The DICT %s exists. What do you want to do next:\n"
                     : "The file %s exists. What do you want to do next:\n",
                tape_name.c_str());
    std::printf("\t S -- Skip \n");
    std::printf("\t O -- Overwrite\n");
    answer = reel_get_answer('S');
  }
  if (answer == 'S') return 2;

  const char fm = static_cast<char>(M_FM);
  if (dict) {
    if (item.data[0] == '\0')
      M_voc_delete(tape_name);
    else
      M_voc_write(tape_name, std::string(item.type) + fm + item.data + fm);
    std::string old = kDictPrefix + target_name;
    if (accessible(old)) NT_RemoveFile(old.c_str(), "");
    return 1;
  }
  if (item.dict[0] == '\0')
    M_voc_delete(tape_name);
  else
    M_voc_write(tape_name, std::string("F") + fm + fm + item.dict);
  if (!target_name.empty() && accessible(target_name) && NT_RemoveFile(target_name.c_str(), "") != 1)
    std::printf("remove file %s failed\n", target_name.c_str());
  return 1;
}

void reel_target_from_voc() {
  CurrentFile& f = reel_current;
  VocItem item;
  std::string record;
  if (!read_voc_item(f.name, &item, &record)) {
    f.short_name.clear();
    return;
  }
  f.short_name = item.data;
  if (f.short_name.empty()) f.short_name = std::string(item.dict).substr(std::min<size_t>(2, std::strlen(item.dict)));
}
