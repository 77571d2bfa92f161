#include "flib/lrgfillib.h"

#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <vector>

#include "NT/NT_utils.h"
#include "common/fl_errout.h"
#include "common/mrv_exit.h"
#include "common/readconf.h"
#include "flib/fl_block.h"
#include "flib/fl_filehdr.h"
#include "flib/fl_memflush.h"
#include "flib/fl_rel.h"

int32_t M_large_file_limit = 1000;

namespace {

constexpr int32_t kReservedDescriptors = 20;

struct LargeFdEntry {
  REL_TYPE* owner = nullptr;
  uint32_t part = 0;  // part index | PART_OVERFLOW
  uint32_t file_id[3] = {0, 0, 0};
  uint8_t temporary = 0;
};

std::vector<LargeFdEntry> g_table;
uint32_t g_use_counter = 0;

PartEntry* entry_part(const LargeFdEntry& e) {
  auto& parts = (e.part & PART_OVERFLOW) != 0 ? e.owner->overflow : e.owner->primary;
  uint32_t index = e.part & ~PART_OVERFLOW;
  return index < parts.size() ? &parts[index] : nullptr;
}

int32_t descriptor_limit() {
  int32_t nfiles = M_cfg_nfiles();
  return std::max(nfiles - kReservedDescriptors, 1);
}

// Closes a part's descriptor; the handle forgets it as its current part.
void close_part(REL_TYPE* rel, uint32_t part, PartEntry* p) {
  // A flush may still be writing through the descriptor.
  M_flush_settle();
  uint32_t number = (part & ~PART_OVERFLOW) + 1;
  if ((part & PART_OVERFLOW) != 0) {
    if (rel->over_current == number) {
      rel->over_current = 0;
      rel->over_fd = -1;
    }
  } else if (rel->primary_current == number) {
    rel->primary_current = 0;
    rel->fd = -1;
  }
  close(p->fd);
  p->fd = -1;
  p->closed = 1;
}

// Opens a part's file and fills the device of its row. -1 on failure.
int open_part_file(REL_TYPE* rel, uint32_t number_and_kind, PartEntry* p) {
  char path[REL_NAME_SIZE + 16];
  M_part_path(rel, number_and_kind, path, sizeof path);
  M_reserve_descriptor();
  int fd = open(path, M_open_flags(rel->open_mode));
  if (fd < 0) {
    M_errout(0, "Open file(%s) modes(%x) error\n", path, static_cast<unsigned>(rel->open_mode));
    return -1;
  }
  MRV_STAT st;
  if (mrv_fstat(fd, &st) == 0) p->device = st.dev;
  p->fd = fd;
  p->closed = 0;
  return fd;
}

}  // namespace

void M_set_large_file_limit(int32_t limit) { M_large_file_limit = limit; }

void M_part_path(const REL_TYPE* rel, uint32_t part, char* out, size_t size) {
  std::snprintf(out, size, (part & PART_OVERFLOW) != 0 ? "%s/over%03u" : "%s/dat%03u", rel->path,
                part & ~PART_OVERFLOW);
}

int M_open_flags(int32_t mode) { return (mode & 0x7FFFFFFF) == 0 ? O_RDONLY : O_RDWR; }

int32_t M_open_part_count() {
  int32_t n = 0;
  for (const auto& e : g_table)
    if (PartEntry* p = entry_part(e); p != nullptr && p->fd >= 0 && p->closed == 0) ++n;
  return n;
}

void M_reserve_descriptor() {
  if (M_open_part_count() < descriptor_limit()) return;
  LargeFdEntry* victim = nullptr;
  PartEntry* victim_part = nullptr;
  for (auto& e : g_table) {
    PartEntry* p = entry_part(e);
    if (p == nullptr || p->fd < 0 || p->closed != 0 || p->lock_count != 0 || e.temporary != 0) continue;
    if (victim_part == nullptr || p->use_stamp < victim_part->use_stamp) {
      victim = &e;
      victim_part = p;
    }
  }
  if (victim == nullptr) {
    M_errout(0, "system error: file descriptors used over limit.\n");
    MRV_EXIT(1);
  }
  close_part(victim->owner, victim->part, victim_part);
}

int M_insert_part_file(REL_TYPE* rel, uint32_t part) {
  if (static_cast<int32_t>(g_table.size()) >= M_large_file_limit) {
    M_errout(0, "Too many dynamic part files (%d) are opened.\n", M_large_file_limit);
    return -1;
  }
  LargeFdEntry e;
  e.owner = rel;
  e.part = part;
  std::copy(rel->file_id, rel->file_id + 3, e.file_id);
  e.temporary = rel->temporary;
  g_table.push_back(e);
  if (PartEntry* p = entry_part(g_table.back())) p->use_stamp = ++g_use_counter;
  return 0;
}

int open_large_file(REL_TYPE* rel, uint32_t part) {
  if (!rel_is_dynamic(rel)) {
    M_errout(0, "It isn't dynamic file, open_large_file() error.\n");
    return -1;
  }
  uint32_t number = part & ~PART_OVERFLOW;
  bool overflow = (part & PART_OVERFLOW) != 0;
  if (overflow) {
    if (number > rel->overflow.size()) M_open_large_file(rel);
    if (number == 0 || number > rel->overflow.size()) {
      M_errout(0, "Overflow part file number too large(%u, %zu)!\n", number, rel->overflow.size());
      return -1;
    }
  } else if (number == 0 || number > rel->primary.size()) {
    M_errout(0, "file number(%u) > primary file count (%zu) in REL_TYPE error\n", number,
             rel->primary.size());
    return -1;
  }
  PartEntry& p = (overflow ? rel->overflow : rel->primary)[number - 1];
  if ((p.closed != 0 || p.fd < 0) && open_part_file(rel, part, &p) < 0) return -1;
  p.use_stamp = ++g_use_counter;
  return p.fd;
}

int M_open_large_file(REL_TYPE* rel) {
  if (rel->sfd == nullptr) return -1;
  size_t want_primary = std::max<size_t>(rel->sfd->primary_count, 1);
  while (rel->primary.size() < want_primary) {
    rel->primary.push_back(PartEntry{});
    uint32_t number = static_cast<uint32_t>(rel->primary.size());
    PartEntry& p = rel->primary.back();
    p.closed = 1;
    if (open_part_file(rel, number, &p) < 0) {
      rel->primary.pop_back();
      M_errout(0, "Open primary file error\n");
      return -1;
    }
    uint8_t header[FH_READ_SIZE];
    if (pread(p.fd, header, sizeof header, 0) != static_cast<ssize_t>(sizeof header)) {
      M_errout(0, "Read primary file header error!\n");
      return -1;
    }
    FileHeader h = decode_file_header(header);
    p.first_group = static_cast<uint32_t>(h.first_group);
    if (h.max_flength > 0 && rel->block_size > 0)
      rel->groups_per_part = h.max_flength / static_cast<int32_t>(rel->block_size);
    if (M_insert_part_file(rel, number - 1) < 0) return -1;
  }
  size_t want_overflow = std::max<size_t>(rel->sfd->overflow_count, 1);
  while (rel->overflow.size() < want_overflow) {
    rel->overflow.push_back(PartEntry{});
    uint32_t number = static_cast<uint32_t>(rel->overflow.size());
    PartEntry& p = rel->overflow.back();
    if (open_part_file(rel, number | PART_OVERFLOW, &p) < 0) {
      rel->overflow.pop_back();
      M_errout(0, "Open overflow file error\n");
      return -1;
    }
    if (M_insert_part_file(rel, (number - 1) | PART_OVERFLOW) < 0) return -1;
  }
  return 1;
}

PartEntry* M_part_entry(REL_TYPE* rel, uint32_t address) {
  if (!rel_is_dynamic(rel)) return nullptr;
  auto& parts = addr_is_overflow(address) ? rel->overflow : rel->primary;
  uint32_t index = addr_part_index(address);
  return index < parts.size() ? &parts[index] : nullptr;
}

int M_check_file_stat(const REL_TYPE* rel) {
  return rel->sfd != nullptr && static_cast<int32_t>(rel->sfd->modulo) != rel->modulo ? 1 : 0;
}

void M_remove_part_files(REL_TYPE* rel) {
  M_flush_settle();
  std::erase_if(g_table, [rel](const LargeFdEntry& e) { return e.owner == rel; });
  for (auto* parts : {&rel->primary, &rel->overflow}) {
    for (auto& p : *parts) {
      if (p.fd >= 0 && p.closed == 0) close(p.fd);
      p.fd = -1;
      p.closed = 1;
    }
    parts->clear();
  }
  rel->fd = -1;
  rel->over_fd = -1;
  rel->primary_current = 0;
  rel->over_current = 0;
}
