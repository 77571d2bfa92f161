#include "flib/fl_sfd.h"

#include <algorithm>
#include <cstring>
#include <vector>

#include "common/fl_errout.h"
#include "common/mrv_msgno.h"
#include "flib/fl_ovhdr.h"
#include "flib/fl_rel.h"
#include "flib/fl_report.h"

namespace {

std::vector<SharedFileRow> g_table;
bool g_ready = false;

void ensure_table() {
  if (!g_ready) M_init_shm_file_table(DEFAULT_SHM_FILE_ROWS);
}

bool same_id(const uint32_t a[3], const uint32_t b[3]) { return std::equal(a, a + 3, b); }
bool empty_row(const SharedFileRow& row) { return row.file_id[0] == 0 && row.file_id[1] == 0 && row.file_id[2] == 0; }

}  // namespace

void M_init_shm_file_table(int32_t rows) {
  g_table.assign(static_cast<size_t>(std::max(rows, 1)), SharedFileRow{});
  g_ready = true;
}

int M_link_file_entry(REL_TYPE* rel, const uint8_t* over_header) {
  ensure_table();
  OverflowHeader h = decode_overflow_header(over_header);
  auto primary = static_cast<uint8_t>(stored_part_count(h.primary_parts));
  auto overflow = static_cast<uint8_t>(stored_part_count(h.overflow_parts));
  SharedFileRow* free_row = nullptr;
  for (auto& row : g_table) {
    if (same_id(row.file_id, rel->file_id)) {
      if (row.users < MAX_FILE_USERS) ++row.users;
      row.primary_count = primary;
      row.overflow_count = overflow;
      row.modulo = h.modulo;
      rel->sfd = &row;
      return 0;
    }
    if (free_row == nullptr && empty_row(row)) free_row = &row;
  }
  if (free_row == nullptr) {
    M_msgno_out(MRV_MSG_FILE_TABLE_FULL, "");
    return -1;
  }
  std::copy(rel->file_id, rel->file_id + 3, free_row->file_id);
  free_row->users = 1;
  free_row->split_flag = 0;
  free_row->no_reuse = 0;
  free_row->primary_count = primary;
  free_row->overflow_count = overflow;
  free_row->modulo = h.modulo;
  rel->sfd = free_row;
  return 0;
}

void M_del_file_entry(REL_TYPE* rel) {
  SharedFileRow* row = rel->sfd;
  rel->sfd = nullptr;
  if (row == nullptr) return;
  if (row->users > 0) --row->users;
  if (row->users == 0) *row = SharedFileRow{};
}

void M_cleansfd(const uint32_t file_id[3]) {
  ensure_table();
  for (auto& row : g_table)
    if (same_id(row.file_id, file_id)) row = SharedFileRow{};
}
