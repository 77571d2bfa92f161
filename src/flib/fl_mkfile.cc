#include "flib/fl_mkfile.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <cstring>

#include "NT/NT_access.h"
#include "NT/NT_utils.h"
#include "common/fl_errout.h"
#include "common/init_params.h"
#include "common/mrv_marks.h"
#include "common/mrv_msgno.h"
#include "flib/fl_create.h"
#include "flib/fl_filehdr.h"
#include "flib/fl_heads.h"
#include "flib/fl_open.h"
#include "flib/fl_rel.h"
#include "flib/fl_voc.h"
#include "flib/fl_write.h"
#include "flib/lrgfillib.h"

namespace {

constexpr size_t kVocKeyMax = 127;

std::string last_component(const std::string& name) {
  size_t slash = name.rfind('/');
  return slash == std::string::npos ? name : name.substr(slash + 1);
}

// "D_" + short name in the directory of `name`.
std::string dict_path_of(const std::string& name) {
  size_t slash = name.rfind('/');
  std::string dir = slash == std::string::npos ? "" : name.substr(0, slash + 1);
  return dir + "D_" + last_component(name);
}

bool accessible(const std::string& path) { return NT_access(path.c_str(), AccessMode::Exists) == 0; }

std::string entry_text(const char* type, const std::string& path, const std::string& dict) {
  std::string record = type;
  record += static_cast<char>(M_FM);
  record += path;
  record += static_cast<char>(M_FM);
  record += dict;
  return record;
}

// Asks the operator for a modulo until one above 0 is typed; 0 at end of
// input.
int32_t ask_modulo() {
  for (;;) {
    M_msgno_out(MRV_MSG_ASK_MODULO, "");
    std::fflush(stdout);
    int value = 0;
    int got = std::scanf("%d", &value);
    if (got == EOF) return 0;
    if (got == 1 && value > 0) return value;
    if (got != 1) std::scanf("%*s");
    M_msgno_out(MRV_MSG_BAD_MODULO, "");
  }
}

int32_t round_to_prime(int32_t modulo) {
  int32_t prime = prime_or_itself(modulo);
  if (prime != modulo) M_msgno_out(MRV_MSG_MODULO_CHANGED, "%d%d", modulo, prime);
  return prime;
}

}  // namespace

int M_dict_at_id(const char* name, const char* dict_path, int32_t) {
  REL_TYPE dict;
  if (M_openfile(&dict, dict_path, OpenMode::ReadWrite) != 1) {
    M_msgno_out(MRV_MSG_DICT_OPEN, "%s", dict_path);
    return 0;
  }
  const char fm = static_cast<char>(M_FM);
  std::string record = std::string("D") + fm + "0" + fm + fm + name + fm + "10L" + fm + "S" + fm;
  int rc = M_append_strtuple(&dict, reinterpret_cast<const uint8_t*>("@ID"), 3,
                             reinterpret_cast<const uint8_t*>(record.data()),
                             static_cast<int32_t>(record.size()), 0, nullptr);
  M_closefile(&dict);
  if (rc != 1) {
    M_msgno_out(MRV_MSG_DICT_WRITE, "%s", dict_path);
    return 0;
  }
  return 1;
}

int M_create_dir_file(const char* name, int32_t name_len, int32_t flags, int voc_entry_exists,
                      std::string* dict_path_out, int32_t verbose, const char*) {
  const std::string path(name, static_cast<size_t>(name_len));
  const std::string key =
      (flags & CREATE_KEY_AS_GIVEN) != 0 ? path : last_component(path);
  const std::string dict = dict_path_of(path);
  if (accessible(path) || (!voc_entry_exists && accessible(dict))) {
    M_msgno_out(MRV_MSG_PATH_EXISTS, "%s", accessible(path) ? path.c_str() : dict.c_str());
    return 0;
  }
  if (mkdir(path.c_str(), 0775) != 0) {
    M_msgno_out(MRV_MSG_NO_DIRECTORY, "%s", path.c_str());
    return 0;
  }
  const bool no_dict = (flags & CREATE_DIR_NO_DICT) != 0 && !voc_entry_exists;
  std::string record;
  if (no_dict) {
    record = std::string("DIR") + static_cast<char>(M_FM) + path;
  } else {
    std::string old;
    std::string old_dict =
        voc_entry_exists && M_voc_read(key, &old) == 1 ? M_voc_fields(old).dict_path : dict;
    record = entry_text("DIR", path, old_dict.empty() ? dict : old_dict);
  }
  if (M_voc_write(key, record) != 1) {
    M_msgno_out(MRV_MSG_VOC_WRITE, "%s", key.c_str());
    NT_RemoveFile(path.c_str(), "");
    return 0;
  }
  if (dict_path_out != nullptr) *dict_path_out = no_dict ? "" : dict;
  if (voc_entry_exists || (flags & CREATE_DIR_NO_DICT) != 0) return 1;
  if (M_create_hashed(dict.c_str(), 1, 1, 0, verbose, nullptr) != 1) return 0;
  return M_dict_at_id(key.c_str(), dict.c_str(), verbose);
}

namespace {

// A data file just laid out with its heads left to a loader, when the
// creation fails after all: no loader comes, so the file goes rather than
// stay with holes where its heads belong.
void discard_laid_out(const std::string& path, bool dynamic) {
  REL_TYPE rel;
  std::snprintf(rel.path, sizeof rel.path, "%s", path.c_str());
  char first_part[REL_NAME_SIZE + 16];
  M_part_path(&rel, 1, first_part, sizeof first_part);
  ScopedFd first(open(dynamic ? first_part : path.c_str(), O_RDONLY));
  if (PendingHeads* heads = M_heads_take(first.get())) M_heads_forget(heads);
  first.reset();
  if (dynamic)
    NT_RemoveFile(path.c_str(), "");
  else
    unlink(path.c_str());
}

// An entry of the same name may hold the other half of the pair: it is
// read into *old, and *exists says whether there was one. False, after the
// message, when it leaves no room for what `flags` asks to make.
bool existing_entry_allows(const std::string& key, int32_t flags, VocEntry* old, bool* exists) {
  std::string record;
  if (M_voc_read(key, &record) != 1) return true;
  if ((flags & CREATE_DATA) != 0 && (flags & CREATE_DICT) != 0) {
    M_msgno_out(MRV_MSG_BOTH_HALVES_EXIST, "%s", key.c_str());
    return false;
  }
  *old = M_voc_fields(record);
  if (old->type.starts_with("L") && (flags & (CREATE_DATA | CREATE_DICT | CREATE_DIR)) != 0) {
    M_msgno_out(MRV_MSG_MULTI_LEVEL, "%s", key.c_str());
    return false;
  }
  if ((flags & (CREATE_DIR | CREATE_DATA)) != 0 && !old->data_path.empty()) {
    M_msgno_out(MRV_MSG_DATA_EXISTS, "%s", key.c_str());
    return false;
  }
  if ((flags & CREATE_DICT) != 0 && !old->dict_path.empty()) {
    M_msgno_out(MRV_MSG_DICT_EXISTS, "%s", key.c_str());
    return false;
  }
  *exists = true;
  return true;
}

}  // namespace

int M_create_file(const char* name, const char* dict_name, int32_t dict_modulo, int32_t modulo,
                  int32_t dict_block, int32_t block, int32_t flags, int32_t verbose, int32_t type,
                  const char* part_table) {
  (void)dict_name;  // names a multi-level member, which this build does not make
  const bool heads_to_loader = M_heads_to_loader;
  dict_block = std::clamp(dict_block, BlockSizeCode::kMin, BlockSizeCode::kMax);
  block = std::clamp(block, BlockSizeCode::kMin, BlockSizeCode::kMax);
  if (type == CREATE_TYPE_NONE) type = 0;
  if (type == CREATE_TYPE_DEFAULT_DYNAMIC) type = HASH_DYNAMIC;

  const std::string path = name;
  const std::string short_name = last_component(path);
  if (short_name.size() > CREATE_NAME_MAX) {
    M_msgno_out(MRV_MSG_NAME_TOO_LONG, "%s", short_name.c_str());
    return 0;
  }
  const bool key_as_given = (flags & CREATE_KEY_AS_GIVEN) != 0;
  const std::string key = key_as_given ? path : short_name;
  if (key_as_given && key.size() > kVocKeyMax) {
    M_msgno_out(MRV_MSG_KEY_TOO_LONG, "%s", key.c_str());
    return 0;
  }

  bool entry_exists = false;
  VocEntry old;
  if (!existing_entry_allows(key, flags, &old, &entry_exists)) return 0;

  if ((flags & CREATE_DIR) != 0)
    return M_create_dir_file(path.c_str(), static_cast<int32_t>(path.size()), flags, entry_exists ? 1 : 0,
                             nullptr, verbose, part_table);

  const bool dynamic = hash_is_dynamic(type);
  if ((type & ~(HASH_DYNAMIC | 0x20)) > 2) {
    M_msgno_out(MRV_MSG_BAD_HASH_TYPE, "%d", type);
    type = dynamic ? HASH_DYNAMIC + 1 : 0;
  }
  if ((flags & CREATE_DATA) != 0) {
    while (modulo < 1) {
      modulo = ask_modulo();
      if (modulo == 0) return 0;
    }
    if (type == 0) modulo = round_to_prime(modulo);
    if (dynamic && modulo < 3) modulo = 3;
  }
  if ((flags & CREATE_DICT) != 0)
    dict_modulo = dict_modulo < 1 ? 1 : (flags & CREATE_DATA) != 0 ? round_to_prime(dict_modulo) : dict_modulo;

  std::string data_path = old.data_path;
  std::string dict_path = old.dict_path;
  if ((flags & CREATE_DICT) != 0) {
    dict_path = dict_path_of(path);
    if (M_create_hashed(dict_path.c_str(), dict_modulo, dict_block, 0, verbose, part_table) != 1) return 0;
  }
  if ((flags & CREATE_DATA) != 0) {
    if (M_create_hashed(path.c_str(), modulo, block, type, verbose, part_table) != 1) {
      if ((flags & CREATE_DICT) != 0) unlink(dict_path.c_str());
      return 0;
    }
    data_path = path;
  }
  const char* entry_type = old.type.starts_with("D") || old.type.starts_with("d") ? "DIR" : "F";
  if (M_voc_write(key, entry_text(entry_type, data_path, dict_path)) < 0) {
    M_msgno_out(MRV_MSG_VOC_WRITE, "%s", key.c_str());
    if (heads_to_loader && (flags & CREATE_DATA) != 0) discard_laid_out(path, dynamic);
    return 0;
  }
  if ((flags & CREATE_DICT) != 0) return M_dict_at_id(short_name.c_str(), dict_path.c_str(), verbose);
  return 1;
}
