#include "flib/fl_heads.h"

#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cstdlib>
#include <cstring>
#include <list>

#include "flib/fl_block.h"
#include "flib/fl_globals.h"
#include "flib/fl_io.h"

bool M_heads_to_loader = false;

namespace {

// Byte 28 of group g's head block under a spread layout.
uint8_t spread_part(int32_t spread, int32_t g, int32_t groups_per_part, int32_t modulo) {
  if (spread == 0) return 0;
  if (spread == 1) return static_cast<uint8_t>(g / groups_per_part + 1);
  return static_cast<uint8_t>((g * (spread - 1) - 1) / modulo + 1);
}

// Largest write of heads at once.
constexpr uint32_t kHeadRun = 256 * 1024;

// Entries keep their address while others come and go: a writer holds one.
std::list<PendingHeads> g_pending;
bool g_exit_hook = false;

// A run that ends normally leaves no file with holes where heads belong.
void write_all_at_exit() {
  // Nobody is left to answer a full disk.
  M_no_wait = 1;
  for (auto it = g_pending.begin(); it != g_pending.end();) {
    auto next = std::next(it);
    if (it->owner == getpid()) M_heads_write_rest(&*it);
    it = next;
  }
}

void drop(PendingHeads* pending) {
  g_pending.remove_if([pending](const PendingHeads& p) { return &p == pending; });
}

}  // namespace

void head_block(const HeadLayout& layout, int32_t g, uint8_t* out) {
  const uint32_t b = layout.block_size;
  const uint32_t d = initial_datapos(b);
  std::memset(out, 0, b);
  gb_set_byteleft(out, static_cast<int16_t>(b - d));
  gb_set_datapos(out, static_cast<int16_t>(d));
  gb_set_flags(out, FLAG_HEAD);
  gb_set_hashtype(out, static_cast<uint8_t>(layout.hashtype));
  gb_set_time(out, layout.stamp);
  gb_set_over_part(out, spread_part(layout.spread, g, layout.groups_per_part, layout.modulo));
  gb_set_group(out, static_cast<uint32_t>(g));
}

void M_heads_pending_add(const HeadLayout& layout, std::vector<ScopedFd> parts) {
  struct stat st {};
  if (parts.empty() || fstat(parts[0].get(), &st) != 0) return;
  // A file of the same identity that is still listed was removed and its
  // inode given again: the old entry means nothing now.
  g_pending.remove_if([&](const PendingHeads& p) { return p.device == st.st_dev && p.inode == st.st_ino; });
  PendingHeads& p = g_pending.emplace_back();
  p.layout = layout;
  p.parts = std::move(parts);
  p.device = st.st_dev;
  p.inode = st.st_ino;
  p.owner = getpid();
  p.done.assign(static_cast<size_t>(std::max(layout.modulo, 0)), 0);
  if (!g_exit_hook) {
    g_exit_hook = true;
    std::atexit(write_all_at_exit);
  }
}

PendingHeads* M_heads_take(int fd) {
  struct stat st {};
  if (g_pending.empty() || fd < 0 || fstat(fd, &st) != 0) return nullptr;
  for (PendingHeads& p : g_pending)
    if (p.device == st.st_dev && p.inode == st.st_ino) return &p;
  return nullptr;
}

int32_t head_run_end(const HeadLayout& layout, int32_t first, int32_t end) {
  const int32_t most = static_cast<int32_t>(std::max<uint32_t>(kHeadRun / layout.block_size, 1));
  return first + std::min(most, end - first);
}

int M_write_head_run(const HeadLayout& layout, int fd, int32_t first, int32_t end, std::vector<uint8_t>* scratch) {
  const uint32_t b = layout.block_size;
  scratch->resize(static_cast<size_t>(end - first) * b);
  for (int32_t g = first; g < end; ++g) head_block(layout, g, scratch->data() + static_cast<size_t>(g - first) * b);
  return M_write_waiting(fd, scratch->data(), scratch->size(), head_offset(layout, first));
}

int M_heads_write_rest(PendingHeads* pending) {
  const HeadLayout& layout = pending->layout;
  std::vector<uint8_t>& done = pending->done;
  int result = 0;
  std::vector<uint8_t> run;
  for (int32_t g = 0; g < layout.modulo;) {
    if (done[static_cast<size_t>(g)] != 0) {
      ++g;
      continue;
    }
    // The heads not done from g on, in g's part, up to one run.
    const uint32_t part = head_part(layout, g);
    const int32_t part_end = std::min(layout.modulo, static_cast<int32_t>(part + 1) * layout.groups_per_part);
    int32_t end = g;
    while (end < part_end && done[static_cast<size_t>(end)] == 0) ++end;
    end = head_run_end(layout, g, end);
    // A run that reached the disk is done; one that did not stays pending,
    // so that the next writer of the file, or the exit, has it made again.
    if (part < pending->parts.size() && M_write_head_run(layout, pending->parts[part].get(), g, end, &run) == 0)
      std::fill(done.begin() + g, done.begin() + end, 1);
    else
      result = -1;
    g = end;
  }
  if (result == 0) drop(pending);
  return result;
}

void M_heads_forget(PendingHeads* pending) { drop(pending); }

size_t M_heads_pending_count() { return g_pending.size(); }
