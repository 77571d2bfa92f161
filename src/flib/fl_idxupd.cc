#include "flib/fl_idxupd.h"

#include <algorithm>

#include "common/fl_errout.h"
#include "common/mrv_marks.h"
#include "flib/fl_index.h"
#include "flib/fl_read.h"
#include "flib/fl_rel.h"

namespace {

std::vector<std::string> split(const std::string& text, char mark) {
  std::vector<std::string> parts;
  size_t start = 0;
  for (;;) {
    size_t at = text.find(mark, start);
    parts.push_back(text.substr(start, at == std::string::npos ? std::string::npos : at - start));
    if (at == std::string::npos) return parts;
    start = at + 1;
  }
}

const uint8_t* bytes(const std::string& s) { return reinterpret_cast<const uint8_t*>(s.data()); }
int32_t length(const std::string& s) { return static_cast<int32_t>(s.size()); }

}  // namespace

std::vector<std::string> M_index_values(const IndexEntry& entry, const std::string& id, const std::string& record) {
  std::vector<std::string> values;
  if (entry.location < 0) return values;
  std::string field;
  if (entry.location == 0) {
    field = id;
  } else {
    std::vector<std::string> fields = split(record, static_cast<char>(M_FM));
    size_t n = static_cast<size_t>(entry.location);
    field = n <= fields.size() ? fields[n - 1] : std::string();
  }
  if (entry.value_type == 'M')
    values = split(field, static_cast<char>(M_VM));
  else
    values.push_back(field);
  std::sort(values.begin(), values.end());
  values.erase(std::unique(values.begin(), values.end()), values.end());
  return values;
}

int M_index_prepare(REL_TYPE* rel, const uint8_t* key, int32_t key_length, IndexPrep* prep) {
  *prep = IndexPrep{};
  if (rel->index == nullptr) return 0;
  prep->active = true;
  int r = M_read_tuple(rel, key, key_length, &prep->old_record);
  if (r < 0) return -1;
  prep->had_old = r == 1;
  return 0;
}

int M_index_commit(REL_TYPE* rel, const uint8_t* key, int32_t key_length, const IndexPrep& prep,
                   const uint8_t* record, int32_t record_length) {
  IndexState* h = rel->index;
  if (!prep.active || h == nullptr) return 0;
  std::string id(reinterpret_cast<const char*>(key), static_cast<size_t>(key_length));
  std::string now = record != nullptr ? std::string(reinterpret_cast<const char*>(record), static_cast<size_t>(record_length))
                                      : std::string();
  int result = 0;
  for (size_t row = 0; row < h->rows.size(); ++row) {
    const IndexEntry& e = h->rows[row].entry;
    if (e.field_type != 'D' || e.root == IDX_NONE) continue;
    std::vector<std::string> before;
    std::vector<std::string> after;
    if (prep.had_old) before = M_index_values(e, id, prep.old_record);
    if (record != nullptr) after = M_index_values(e, id, now);
    std::vector<std::string> gone;
    std::vector<std::string> added;
    std::set_difference(before.begin(), before.end(), after.begin(), after.end(), std::back_inserter(gone));
    std::set_difference(after.begin(), after.end(), before.begin(), before.end(), std::back_inserter(added));
    for (const std::string& v : gone)
      if (M_index_remove(h, static_cast<int>(row), bytes(v), length(v), bytes(id), length(id)) < 0) result = -1;
    for (const std::string& v : added)
      if (M_index_insert(h, static_cast<int>(row), bytes(v), length(v), bytes(id), length(id)) < 0) result = -1;
  }
  if (result < 0)
    M_errout(0, "%s for file '%s', key '%.*s'\n", record != nullptr ? "Writing index value(s)" : "Deleting index value(s)",
             rel->path, static_cast<int>(key_length), reinterpret_cast<const char*>(key));
  return result;
}
