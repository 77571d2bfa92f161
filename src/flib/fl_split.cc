#include "flib/fl_split.h"

#include "flib/fl_lock.h"
#include "flib/fl_rel.h"

int (*M_split_seam)(REL_TYPE* rel) = nullptr;
void (*M_merge_seam)(REL_TYPE* rel, uint8_t* block, uint32_t address) = nullptr;

void M_split_due(REL_TYPE* rel) {
  if (M_split_seam == nullptr || rel->sfd == nullptr) return;
  // Lock 3 of the file: one process at a time starts a split.
  if (M_LLM_Lock("semaphore", rel->file_id + 1, "3", 0, 0, 0, -1, -1) != LLM_GRANTED) return;
  if (M_split_seam(rel) == 0) rel->sfd->split_flag = 0;
  M_LLM_Release("semaphore", rel->file_id + 1, "3", 0, -1, -1);
}
