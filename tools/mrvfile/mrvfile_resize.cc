// mrvfile resize PATH MODULO: lays a hashed file out again at a new modulo.
//
// The records are copied into a new file beside the old one ("PATH.resize",
// same kind, hash type and block size), the copy is counted, and only then
// does it take the old file's name: PATH becomes "PATH.resize-old", the copy
// becomes PATH, and the old one is removed. A failure before the renames
// leaves PATH as it was; the copy is removed. Parts placed in other
// partitions are removed with the file they belong to.
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <string>

#include "flib/fl_create.h"
#include "flib/fl_filehdr.h"
#include "flib/fl_mem.h"
#include "flib/fl_open.h"
#include "flib/fl_read.h"
#include "flib/fl_rel.h"
#include "mrvfile.h"

namespace {

namespace fs = std::filesystem;

constexpr char kCopySuffix[] = ".resize";
constexpr char kOldSuffix[] = ".resize-old";
constexpr char kSpillSuffix[] = ".resize-records";

// Removes a hashed file. The parts of a dynamic file that the part table
// placed in another partition stand there, with a link of their normal name
// in the file's directory: those go with their links.
void remove_hashed(const std::string& path) {
  std::error_code ec;
  if (fs::is_directory(fs::symlink_status(path, ec))) {
    for (const auto& entry : fs::directory_iterator(path, ec)) {
      if (!entry.is_symlink(ec)) continue;
      fs::path target = fs::read_symlink(entry.path(), ec);
      if (ec) continue;
      if (target.is_relative()) target = entry.path().parent_path() / target;
      fs::remove(target, ec);
    }
  }
  fs::remove_all(path, ec);
}

// The number of alternate key indexes the file's header counts; 0 when it
// can't be read (the open that follows says why).
int32_t index_count(const std::string& path) {
  std::ifstream in(fs::is_directory(path) ? path + "/dat001" : path, std::ios::binary);
  uint8_t block[FH_READ_SIZE] = {};
  if (!in.read(reinterpret_cast<char*>(block), sizeof block)) return 0;
  return decode_file_header(block).index_count;
}

int fail(const std::string& path, const std::string& what) {
  std::fprintf(stderr, "mrvfile: %s: %s\n", path.c_str(), what.c_str());
  return 1;
}

// The records of `from` go to a spill file first and from there into `to`:
// the library keeps the group under operation in one cell for the process,
// so one file's walk may not be interleaved with writes to another.
// The number copied, or -1.
int64_t copy_records(REL_TYPE* from, REL_TYPE* to, const std::string& spill_path) {
  std::FILE* spill = std::fopen(spill_path.c_str(), "w+b");
  if (spill == nullptr) return -1;
  int64_t spilled = 0;
  std::string record;
  int r = M_for_each_key(from, [&](const uint8_t* key, int32_t key_length, const uint8_t* block, int32_t row,
                                   uint32_t address) {
    if (M_catch_tuple(from, key, key_length, block, row, address, &record, 0) != 1) return -1;
    const uint32_t lengths[2] = {static_cast<uint32_t>(key_length), static_cast<uint32_t>(record.size())};
    if (std::fwrite(lengths, sizeof lengths, 1, spill) != 1 ||
        std::fwrite(key, 1, lengths[0], spill) != lengths[0] ||
        std::fwrite(record.data(), 1, lengths[1], spill) != lengths[1])
      return -1;
    ++spilled;
    return 0;
  });
  int64_t copied = 0;
  if (r == 0 && std::fflush(spill) == 0 && std::fseek(spill, 0, SEEK_SET) == 0 && M_init_mem_buffers(to) == 1) {
    std::string key;
    for (uint32_t lengths[2]; copied < spilled && std::fread(lengths, sizeof lengths, 1, spill) == 1; ++copied) {
      key.resize(lengths[0]);
      record.resize(lengths[1]);
      if (std::fread(key.data(), 1, lengths[0], spill) != lengths[0] ||
          std::fread(record.data(), 1, lengths[1], spill) != lengths[1] ||
          M_mem_add_tuple(to, reinterpret_cast<const uint8_t*>(key.data()), static_cast<int32_t>(key.size()),
                          reinterpret_cast<const uint8_t*>(record.data()), static_cast<int32_t>(record.size())) != 1)
        break;
    }
    if (M_mem_force_flush(to, 1) != 1) copied = -1;
  }
  std::fclose(spill);
  std::remove(spill_path.c_str());
  return r == 0 && copied == spilled ? copied : -1;
}

}  // namespace

int mrvfile_resize(const Args& args) {
  long modulo = 0;
  if (args.size() != 2 || !mrvfile_number(args[1], &modulo)) return mrvfile_usage();
  const std::string& path = args[0];
  if (modulo < 1 || modulo > 0x7FFFFFFF) return fail(path, "the modulo must be 1 or more");
  const std::string copy = path + kCopySuffix;
  const std::string old = path + kOldSuffix;
  std::error_code ec;
  if (fs::exists(copy, ec) || fs::exists(old, ec))
    return fail(path, "a resize was left half done: remove " + copy + " or " + old + " first");

  // The indexes stand beside the layout and are counted in its header; the
  // copy would lose them.
  if (const int32_t indexes = index_count(path); indexes > 0)
    return fail(path, "has " + std::to_string(indexes) +
                          " alternate key index(es): drop them with 'mrvfile index drop', resize, and add them again");
  REL_TYPE from;
  if (!mrvfile_open(&from, path, OpenMode::Read)) return 1;
  if (hash_is_key_range(from.hashtype)) {
    M_closefile(&from);
    return fail(path, "a key-range file keeps its layout and cannot be resized");
  }
  const int32_t type = from.hashtype;
  const int32_t block = BlockSizeCode::of_bytes(from.block_size).code;
  const int32_t was = rel_is_dynamic(&from) ? from.min_modulo : from.modulo;
  if (M_create_hashed(copy.c_str(), static_cast<int32_t>(modulo), block, type, 0, nullptr) != 1) {
    M_closefile(&from);
    return fail(copy, "cannot create the new layout (is the disk full?)");
  }
  REL_TYPE to;
  if (!mrvfile_open(&to, copy, OpenMode::ReadWrite)) {
    M_closefile(&from);
    remove_hashed(copy);
    return 1;
  }
  const int64_t copied = copy_records(&from, &to, path + kSpillSuffix);
  M_closefile(&to);
  M_closefile(&from);
  // The copy must hold every record before it may take the file's place.
  const int64_t counted = copied < 0 ? -1 : mrvfile_count_records(copy);
  if (copied < 0 || counted != copied) {
    remove_hashed(copy);
    return fail(path, "copying the records failed; the file is left as it was");
  }
  fs::rename(path, old, ec);
  if (ec) {
    remove_hashed(copy);
    return fail(path, "cannot rename it: " + ec.message());
  }
  fs::rename(copy, path, ec);
  if (ec) {
    fs::rename(old, path, ec);
    remove_hashed(copy);
    return fail(path, "cannot put the new layout in place; the file is left as it was");
  }
  remove_hashed(old);
  std::printf("%s: modulo %d -> %ld, %lld records\n", path.c_str(), was, modulo, static_cast<long long>(copied));
  return 0;
}
