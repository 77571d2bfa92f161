#include <cstdio>
#include <filesystem>
#include <fstream>
#include <string>

#include "flib/fl_filehdr.h"
#include "flib/fl_open.h"
#include "flib/fl_rel.h"
#include "common/readconf.h"
#include "mrvfile.h"

namespace {

// The language group that wrote the file, from its header (the first part
// of a dynamic file).
void print_language(const std::string& path) {
  std::string header_path = std::filesystem::is_directory(path) ? path + "/dat001" : path;
  std::ifstream in(header_path, std::ios::binary);
  uint8_t block[FH_READ_SIZE] = {};
  if (!in.read(reinterpret_cast<char*>(block), sizeof block)) return;
  FileHeader h = decode_file_header(block);
  std::printf("language group: %u/%u/%u\n", h.record_mark, h.lang2, h.lang3);
}

}  // namespace

int mrvfile_info(const Args& args) {
  if (args.size() != 1) return mrvfile_usage();
  REL_TYPE rel;
  if (!mrvfile_open(&rel, args[0], OpenMode::Read)) return 1;
  bool dynamic = rel_is_dynamic(&rel);
  std::printf("path: %s\n", rel.path);
  std::printf("kind: %s\n", hash_is_key_range(rel.hashtype) ? "key-range" : dynamic ? "dynamic" : "static");
  std::printf("hash type: %d (function %d%s)\n", rel.hashtype, hash_function(rel.hashtype),
              dynamic ? (hash_is_keydata(rel.hashtype) ? ", KEYDATA" : ", KEYONLY") : "");
  // The code in the form `create --block` takes, so that a file can be made alike.
  std::printf("block size: %u (code %d)\n", rel.block_size, BlockSizeCode::of_bytes(rel.block_size).code);
  std::printf("modulo: %d\n", rel.modulo);
  std::printf("recoverable: %d\n", rel.rfs);
  print_language(args[0]);
  std::printf("largest part: %d\n", rel.max_flength != 0 ? rel.max_flength : M_cfg_max_flength());
  if (rel.update_trigger[0] != '\0') std::printf("update trigger: %s\n", rel.update_trigger);
  if (rel.delete_trigger[0] != '\0') std::printf("delete trigger: %s\n", rel.delete_trigger);
  if (dynamic) {
    std::printf("minimum modulo: %d\n", rel.min_modulo);
    std::printf("split base: %u\n", rel.split_base);
    std::printf("split load: %d\n", rel.split_load);
    std::printf("merge load: %d\n", rel.merge_load);
    std::printf("group free blocks: %d\n", rel.grp_free_blk);
    std::printf("spread: %u\n", rel.spread);
    std::printf("blocks per part: %d\n", rel.groups_per_part);
    std::printf("primary parts: %zu\n", rel.primary.size());
    for (size_t i = 0; i < rel.primary.size(); ++i)
      std::printf("dat%03zu: first group %u\n", i + 1, rel.primary[i].first_group);
    std::printf("overflow parts: %zu\n", rel.overflow.size());
  }
  M_closefile(&rel);
  return 0;
}
