#include "reel/reel_get_expbuf.h"

#include <cstdio>
#include <cstring>
#include <string>

#include "common/mrv_alloc.h"
#include "common/mrv_exit.h"
#include "common/mrv_msg.h"
#include "flib/fl_filehdr.h"
#include "reel/reel_util.h"

namespace {

// ---------------------------------------------------------------------------
// Lists. An entry records where its name lies as an offset into the list's
// allocation:
//   block list entry:    name offset (u32), factor (i32), modulo (i32)
//   recovery list entry: name offset (u32)
struct ListSpace {
  unsigned char* base = nullptr;
  size_t size = 0;
  size_t entry_size = 0;
  size_t strings_end = 0;  // first free byte above the names
  size_t lowest_entry = 0;  // offset of the newest entry; == size when empty
  int32_t count = 0;
};

ListSpace g_block_list;
ListSpace g_recovery_list;

bool list_ready(ListSpace& list, size_t size, size_t entry_size) {
  if (list.base == nullptr) {
    list.base = static_cast<unsigned char*>(mrv_malloc(size));
    if (list.base == nullptr) return false;
    list.size = size;
    list.entry_size = entry_size;
    list.lowest_entry = size;
  }
  return true;
}

uint32_t read_u32(const unsigned char* p) {
  uint32_t v;
  std::memcpy(&v, p, 4);
  return v;
}
void write_u32(unsigned char* p, uint32_t v) { std::memcpy(p, &v, 4); }

// Adds a name and returns its new entry, or null when names and entries
// would meet.
unsigned char* list_add(ListSpace& list, const std::string& name) {
  size_t needed = name.size() + 1;
  if (list.lowest_entry < list.entry_size ||
      list.strings_end + needed > list.lowest_entry - list.entry_size)
    return nullptr;
  list.lowest_entry -= list.entry_size;
  unsigned char* entry = list.base + list.lowest_entry;
  write_u32(entry, static_cast<uint32_t>(list.strings_end));
  std::memcpy(list.base + list.strings_end, name.c_str(), needed);
  list.strings_end += needed;
  ++list.count;
  return entry;
}

// The newest entry of that exact name.
const unsigned char* list_find(const ListSpace& list, const char* name) {
  for (int32_t i = 0; i < list.count; ++i) {
    const unsigned char* entry = list.base + list.lowest_entry + i * list.entry_size;
    if (std::strcmp(reinterpret_cast<const char*>(list.base + read_u32(entry)), name) == 0)
      return entry;
  }
  return nullptr;
}

bool is_separator(char c) { return c == ',' || c == ' ' || c == '\n' || c == '\t' || c == '\r'; }

// The next field of a -B line; fields are separated by any run of commas,
// blanks and newlines.
std::string next_field(const char*& p) {
  while (*p != '\0' && is_separator(*p)) ++p;
  const char* start = p;
  while (*p != '\0' && !is_separator(*p)) ++p;
  return std::string(start, p);
}

int32_t optional_number(const std::string& field) {
  if (field.empty() || !reel_is_number(field.c_str())) return -1;
  return static_cast<int32_t>(std::strtol(field.c_str(), nullptr, 10));
}

// Reads the lines of a list file in pieces of at most `line_max` characters.
template <typename OnLine>
int load_list(const char* path, size_t line_max, OnLine on_line) {
  FILE* f = std::fopen(path, "r");
  if (f == nullptr) return 0;
  std::string buffer(line_max + 1, '\0');
  while (std::fgets(buffer.data(), static_cast<int>(buffer.size()), f) != nullptr) {
    if (!on_line(buffer.c_str())) {
      std::fclose(f);
      return 0;
    }
  }
  std::fclose(f);
  return 1;
}

// ---------------------------------------------------------------------------
// Arena.
struct Region {
  unsigned char* base;
  unsigned char* saved_free;
  int32_t size;
  Region* prev;
  Region* next;
};

struct LevelEntry {
  Region* region;
  unsigned char* free;
};

struct LevelPage {
  LevelEntry entries[REEL_LEVELS_PER_PAGE];
  LevelPage* next;
};

int32_t arena_default_size = REEL_ARENA_DEFAULT_SIZE;
Region* arena_first_region = nullptr;
Region* arena_region = nullptr;
unsigned char* arena_free = nullptr;
Region* arena_level_region = nullptr;
int32_t arena_level = 0;
LevelPage* arena_first_page = nullptr;
int32_t arena_last_size = 0;

Region* new_region(int32_t size) {
  auto* region = static_cast<Region*>(mrv_malloc(sizeof(Region)));
  unsigned char* memory =
      region != nullptr ? static_cast<unsigned char*>(mrv_malloc(static_cast<size_t>(size))) : nullptr;
  if (memory == nullptr) {
    M_errmsg(0, "malloc error\n");
    MRV_EXIT(1);
  }
  *region = Region{memory, memory, size, nullptr, nullptr};
  return region;
}

void free_regions_from(Region* region) {
  while (region != nullptr) {
    Region* next = region->next;
    mrv_free(region->base);
    mrv_free(region);
    region = next;
  }
}

LevelPage* new_page() {
  auto* page = static_cast<LevelPage*>(mrv_malloc(sizeof(LevelPage)));
  if (page == nullptr) {
    M_errmsg(0, "malloc error\n");
    MRV_EXIT(1);
  }
  return page;
}

// Walks to page `index`; null when the chain ends before it.
LevelPage* page_at(int32_t index) {
  LevelPage* page = arena_first_page;
  for (int32_t i = 0; i < index && page != nullptr; ++i) page = page->next;
  return page;
}

}  // namespace

int reel_load_block_list(const char* path) {
  if (!list_ready(g_block_list, REEL_BLOCK_LIST_SIZE, 12)) return 0;
  int ok = load_list(path, REEL_BLOCK_LINE_MAX, [](const char* line) {
    while (*line == ' ') ++line;
    if (*line == '\n' || *line == '\0') return true;
    const char* p = line;
    std::string name = next_field(p);
    if (name.empty()) return true;  // a line of separators only
    if (name.size() > REEL_LIST_NAME_MAX) return false;
    int32_t factor = optional_number(next_field(p));
    int32_t modulo = optional_number(next_field(p));
    unsigned char* entry = list_add(g_block_list, name);
    if (entry == nullptr) return false;
    write_u32(entry + 4, static_cast<uint32_t>(factor));
    write_u32(entry + 8, static_cast<uint32_t>(modulo));
    return true;
  });
  return ok && g_block_list.count > 0 ? 1 : 0;
}

int reel_load_recovery_list(const char* path) {
  if (!list_ready(g_recovery_list, REEL_RECOVERY_LIST_SIZE, 4)) return 0;
  int ok = load_list(path, REEL_RECOVERY_LINE_MAX, [](const char* line) {
    std::string name;
    for (const char* p = line; *p != '\0'; ++p)
      if (*p != ' ' && *p != '\n') name += *p;
    return list_add(g_recovery_list, name) != nullptr;
  });
  return ok && g_recovery_list.count > 0 ? 1 : 0;
}

int reel_find_block_entry(const char* name, int32_t* factor, int32_t* modulo) {
  *factor = -1;
  *modulo = -1;
  if (g_block_list.base == nullptr) return 0;
  const unsigned char* entry = list_find(g_block_list, name);
  if (entry == nullptr) return 0;
  *factor = static_cast<int32_t>(read_u32(entry + 4));
  *modulo = static_cast<int32_t>(read_u32(entry + 8));
  return 1;
}

int reel_in_recovery_list(const char* name) {
  return g_recovery_list.base != nullptr && list_find(g_recovery_list, name) != nullptr ? 1 : 0;
}

int32_t reel_block_list_modulo(const char* name, int32_t modulo, int32_t* block) {
  int32_t factor = 1;
  int32_t listed = -1;
  if (!reel_find_block_entry(name, &factor, &listed) || factor < 0) factor = 1;
  if (listed < 1) listed = BlockSizeCode{factor}.modulo_keeping_size(modulo);
  if (block != nullptr) *block = factor;
  return reel_next_prime(listed);
}

void reel_clear_lists() {
  for (ListSpace* list : {&g_block_list, &g_recovery_list}) {
    mrv_free(list->base);
    *list = ListSpace{};
  }
}

void reel_init_levels() {
  arena_default_size = REEL_ARENA_DEFAULT_SIZE;
  if (arena_first_region != nullptr) free_regions_from(arena_first_region);
  for (LevelPage* page = arena_first_page; page != nullptr;) {
    LevelPage* next = page->next;
    mrv_free(page);
    page = next;
  }
  arena_first_region = new_region(arena_default_size);
  arena_region = arena_level_region = arena_first_region;
  arena_free = arena_first_region->base;
  arena_level = 0;
  arena_first_page = new_page();
  arena_first_page->entries[0] = LevelEntry{arena_region, arena_free};
}

int32_t reel_push_level() {
  int32_t pages = arena_level / REEL_LEVELS_PER_PAGE;
  LevelPage* page = arena_first_page;
  for (int32_t i = 0; i < pages; ++i) {
    if (page->next == nullptr) {
      M_errmsg(0, "Level table in error\n");
      break;
    }
    page = page->next;
  }
  ++arena_level;
  int32_t place = arena_level % REEL_LEVELS_PER_PAGE;
  if (place == 0) {
    if (page->next == nullptr) page->next = new_page();
    page = page->next;
    page->next = nullptr;
  }
  page->entries[place] = LevelEntry{arena_region, arena_free};
  arena_level_region = arena_region;
  arena_level_region->saved_free = arena_free;
  return arena_level;
}

int reel_pop_level(int32_t level) {
  if (level < 1 || level > arena_level) {
    M_errmsg(0, "illegal level %d, current level %d\n", level, arena_level);
    return 0;
  }
  LevelPage* page = page_at(level / REEL_LEVELS_PER_PAGE);
  if (page == nullptr) {
    M_errmsg(0, "Level table in error\n");
    return -1;
  }
  LevelEntry& entry = page->entries[level % REEL_LEVELS_PER_PAGE];
  LevelEntry taken = entry;
  arena_free = taken.free;
  entry = LevelEntry{nullptr, nullptr};
  for (LevelPage* later = page->next; later != nullptr;) {
    LevelPage* next = later->next;
    mrv_free(later);
    later = next;
  }
  page->next = nullptr;
  arena_region = taken.region;
  arena_level = level - 1;

  // Keep one spare region when this one is more than half used: a level that
  // ends near a region boundary then needs no fresh allocation.
  Region* keep_to = arena_region;
  if (arena_region->next != nullptr && arena_free - arena_region->base > arena_default_size / 2)
    keep_to = arena_region->next;
  free_regions_from(keep_to->next);
  keep_to->next = nullptr;

  LevelPage* below = page_at(arena_level / REEL_LEVELS_PER_PAGE);
  if (below == nullptr) return -1;
  const LevelEntry& open = below->entries[arena_level % REEL_LEVELS_PER_PAGE];
  arena_level_region = open.region;
  if (arena_level_region != nullptr) arena_level_region->saved_free = open.free;
  return 1;
}

void* reel_arena_alloc(int32_t size) {
  if (size < 0) {
    arena_last_size = -1;
    return nullptr;
  }
  arena_last_size = size;
  int32_t length = (size & ~7) + 8;
  auto room = [] { return arena_region->base + arena_region->size - arena_free; };
  if (room() < length && arena_region->next != nullptr) {
    arena_region = arena_region->next;
    arena_free = arena_region->base;
  }
  if (room() < length) {
    Region* region = new_region(length > arena_default_size ? length : arena_default_size);
    free_regions_from(arena_region->next);  // a next region too small is dropped
    region->prev = arena_region;
    arena_region->next = region;
    arena_region = region;
    arena_free = region->base;
  }
  unsigned char* result = arena_free;
  arena_free += length;
  return result;
}

int32_t reel_arena_level() { return arena_level; }

int32_t reel_arena_region_count() {
  int32_t n = 0;
  for (Region* r = arena_first_region; r != nullptr; r = r->next) ++n;
  return n;
}

int32_t reel_arena_region_size() { return arena_region->size; }

bool reel_level_entry_position(int32_t level, int32_t* page, int32_t* place) {
  *page = level / REEL_LEVELS_PER_PAGE;
  *place = level % REEL_LEVELS_PER_PAGE;
  LevelPage* p = page_at(*page);
  return p != nullptr && p->entries[*place].region != nullptr;
}
