// newacct: makes a working account in the current directory.
//
// The account is its VOC (a static hashed file with its dictionary D_VOC)
// holding what a new account needs: the verbs ("V"), the keywords ("K") and
// the entries of the account's own files. An existing VOC is left alone.
#include <cstdio>
#include <cstdlib>
#include <string>

#include "NT/NT_access.h"
#include "common/mrv_marks.h"
#include "common/readconf.h"
#include "common/readroot.h"
#include "shmem/shmaddr.h"
#include "flib/fl_create.h"
#include "flib/fl_mempool.h"
#include "flib/fl_mkfile.h"
#include "flib/fl_voc.h"
#include "flib/parttbl.h"

namespace {

constexpr int32_t kVocModulo = 101;

struct Item {
  const char* key;
  const char* fields[3];
};

// Verbs and keywords that the database's command processor knows, and the
// account's own file.
constexpr Item kItems[] = {
    {"VOC", {"F", "VOC", "D_VOC"}},
    {"CREATE.FILE", {"V", "CREATE.FILE", nullptr}},
    {"DELETE.FILE", {"V", "DELETE.FILE", nullptr}},
    {"CLEAR.FILE", {"V", "CLEAR.FILE", nullptr}},
    {"COPY", {"V", "COPY", nullptr}},
    {"LIST", {"V", "LIST", nullptr}},
    {"SELECT", {"V", "SELECT", nullptr}},
    {"SORT", {"V", "SORT", nullptr}},
    {"COUNT", {"V", "COUNT", nullptr}},
    {"ED", {"V", "ED", nullptr}},
    {"LOGTO", {"V", "LOGTO", nullptr}},
    {"DICT", {"K", "DICT", nullptr}},
    {"WITH", {"K", "WITH", nullptr}},
    {"BY", {"K", "BY", nullptr}},
    {"AND", {"K", "AND", nullptr}},
    {"OR", {"K", "OR", nullptr}},
    {"EQ", {"K", "EQ", nullptr}},
};

std::string record_of(const Item& item) {
  std::string record;
  for (const char* field : item.fields) {
    if (field == nullptr) break;
    if (!record.empty()) record += static_cast<char>(M_FM);
    record += field;
  }
  return record;
}

}  // namespace

int main() {
  // The account's files carry the marks of the installation's language group.
  if (std::getenv("MRVHOME") != nullptr) {
    M_readconfg();
    M_init_process(-1, 1);
  }
  M_init_pools();
  if (M_load_part_table() < 0) return 1;
  if (NT_access("VOC", AccessMode::Exists) == 0) {
    std::fprintf(stderr, "newacct: VOC already exists here; this is an account.\n");
    return 1;
  }
  if (M_create_hashed("VOC", kVocModulo, 1, 0, 0, nullptr) != 1 ||
      M_create_hashed("D_VOC", 1, 1, 0, 0, nullptr) != 1 || M_dict_at_id("VOC", "D_VOC", 0) != 1) {
    std::fprintf(stderr, "newacct: cannot make the VOC\n");
    return 1;
  }
  if (M_open_voc("VOC") != 1) {
    std::fprintf(stderr, "newacct: cannot open the VOC\n");
    return 1;
  }
  int rc = 0;
  for (const Item& item : kItems)
    if (M_voc_write(item.key, record_of(item)) != 1) rc = 1;
  M_close_voc();
  if (rc != 0) std::fprintf(stderr, "newacct: cannot write the VOC\n");
  return rc;
}
