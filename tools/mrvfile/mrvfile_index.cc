// mrvfile index: the alternate key indexes of a hashed file.
//
//   mrvfile index add PATH NAME FIELD [--multi] [--numeric] [--later]
//                     [--no-empty] [--key-length N] [--block CODE]
//                     [--compress] [--large] [--ov-modulo N]
//   mrvfile index list PATH
//   mrvfile index build PATH [NAME]
//   mrvfile index scan PATH NAME
//   mrvfile index find PATH NAME VALUE
//   mrvfile index drop PATH NAME
//   mrvfile index check PATH
//
// FIELD is the field number (0: the @ID). The options after it shape the
// index file when the first index makes it: key length (kept whole in a
// node, 1..300, default 64), block size code (n+1 KiB, default 3), prefix
// compression of leaf keys, a large index in parts of MAX_FLENGTH bytes,
// and the number of tail buckets (compressed indexes only).
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <string>

#include "flib/fl_idxbuild.h"
#include "flib/fl_index.h"
#include "flib/fl_open.h"
#include "flib/fl_read.h"
#include "flib/fl_rel.h"
#include "mrvfile.h"

namespace {

// The row of index NAME, or -1 after a message.
int find_row(REL_TYPE* rel, const std::string& path, const std::string& name) {
  int row = rel->index != nullptr ? M_index_row(rel->index, name.c_str()) : -1;
  if (row < 0) std::fprintf(stderr, "mrvfile: %s has no index %s\n", path.c_str(), name.c_str());
  return row;
}

// Opens PATH for reading and finds index NAME with a tree to walk; the row,
// or -1 after a message (the file is closed again).
int open_tree(REL_TYPE* rel, const std::string& path, const std::string& name) {
  if (!mrvfile_open(rel, path, OpenMode::Read)) return -1;
  int row = find_row(rel, path, name);
  if (row >= 0 && rel->index->rows[static_cast<size_t>(row)].entry.root == IDX_NONE) {
    std::fprintf(stderr, "mrvfile: index %s has no tree of its own (field type %c)\n", name.c_str(),
                 rel->index->rows[static_cast<size_t>(row)].entry.field_type);
    row = -1;
  }
  if (row < 0) M_closefile(rel);
  return row;
}

// Exit status of a walk: 0 when it ran, 1 when the index is not usable or
// failed.
int walk_status(int r, const std::string& name) {
  if (r == 0) std::fprintf(stderr, "mrvfile: index %s is not built yet (run mrvfile index build)\n", name.c_str());
  return r == 1 ? 0 : 1;
}

int index_add(const Args& a) {
  if (a.size() < 3) return mrvfile_usage();
  long field = 0;
  if (!mrvfile_number(a[2], &field) || field < 0) {
    std::fprintf(stderr, "mrvfile: field must be a number 0 or above, not %s\n", a[2].c_str());
    return 2;
  }
  char value_type = 'S';
  char key_type = 'T';
  bool later = false;
  uint8_t option = 0;
  IndexFileOptions o;
  for (size_t i = 3; i < a.size(); ++i) {
    long n = 0;
    auto number = [&](const char* what) {
      if (i + 1 >= a.size() || !mrvfile_number(a[i + 1], &n)) {
        std::fprintf(stderr, "mrvfile: %s needs a number\n", what);
        return false;
      }
      ++i;
      return true;
    };
    if (a[i] == "--multi") {
      value_type = 'M';
    } else if (a[i] == "--numeric") {
      key_type = 'N';
    } else if (a[i] == "--later") {
      later = true;
    } else if (a[i] == "--no-empty") {
      option |= IE_OPTION_SKIP_EMPTY;
    } else if (a[i] == "--compress") {
      o.version = IDX_VERSION_COMPRESSED;
    } else if (a[i] == "--large") {
      o.large = true;
    } else if (a[i] == "--key-length") {
      if (!number("--key-length")) return 2;
      o.key_length = static_cast<int32_t>(n);
    } else if (a[i] == "--block") {
      if (!number("--block")) return 2;
      o.block_code = static_cast<int32_t>(n);
    } else if (a[i] == "--ov-modulo") {
      if (!number("--ov-modulo")) return 2;
      o.ov_modulo = static_cast<int32_t>(n);
    } else {
      return mrvfile_usage();
    }
  }
  REL_TYPE rel;
  if (!mrvfile_open(&rel, a[0], OpenMode::ReadWrite)) return 1;
  if (rel.index == nullptr) {
    if (o.block_code >= 0 && o.block_code <= IDX_MAX_BLOCK_CODE && o.key_length > 0 &&
        !key_length_fits(o.key_length, idx_block_size(o.block_code))) {
      std::fprintf(stderr, "mrvfile: key length %d is too long for blocks of %u bytes\n", o.key_length,
                   idx_block_size(o.block_code));
      M_closefile(&rel);
      return 2;
    }
    if (M_create_index_file(&rel, o) != 1) {
      std::fprintf(stderr, "mrvfile: cannot make the index file of %s\n", a[0].c_str());
      M_closefile(&rel);
      return 1;
    }
  }
  // An index added to a file that holds records is built at once, so that
  // it answers for them; --later leaves that to "index build".
  bool has_records = M_for_each_key(&rel, [](const uint8_t*, int32_t, const uint8_t*, int32_t, uint32_t) { return 1; }) == 1;
  int r = M_add_index(&rel, a[1].c_str(), 'D', value_type, key_type, option, static_cast<int32_t>(field), nullptr,
                      later || has_records);
  if (r == 1 && has_records && !later && M_build_index(&rel, M_index_row(rel.index, a[1].c_str())) != 1) {
    std::fprintf(stderr, "mrvfile: index %s was added but its build failed; run mrvfile index build\n", a[1].c_str());
    r = -1;
  }
  M_closefile(&rel);
  if (r == 0) std::fprintf(stderr, "mrvfile: %s already has an index named %s or on field %ld\n", a[0].c_str(),
                           a[1].c_str(), field);
  return r == 1 ? 0 : 1;
}

int index_list(const Args& a) {
  if (a.size() != 1) return mrvfile_usage();
  REL_TYPE rel;
  if (!mrvfile_open(&rel, a[0], OpenMode::Read)) return 1;
  if (rel.index != nullptr) {
    for (size_t row = 0; row < rel.index->rows.size(); ++row) {
      const IndexEntry& e = rel.index->rows[row].entry;
      const char* state = "no tree";
      if (e.root != IDX_NONE) {
        std::vector<uint8_t> node(rel.index->node_size);
        if (M_idx_read(rel.index, e.root, node.data(), rel.index->node_size) < 0) state = "unreadable";
        else if (decode_node_head(node.data()).next == ROOT_TO_BUILD) state = "to be built";
        else if (decode_node_head(node.data()).next == ROOT_RESET) state = "reset";
        else state = "usable";
      }
      std::printf("%s\tfield %d\t%s\t%s\t%s\n", e.name, e.location, e.value_type == 'M' ? "multivalued" : "single",
                  e.key_type == 'N' ? "numeric" : "text", state);
    }
  }
  M_closefile(&rel);
  return 0;
}

int index_build(const Args& a) {
  if (a.size() != 1 && a.size() != 2) return mrvfile_usage();
  REL_TYPE rel;
  if (!mrvfile_open(&rel, a[0], OpenMode::ReadWrite)) return 1;
  int status = 0;
  if (rel.index == nullptr) {
    std::fprintf(stderr, "mrvfile: %s has no index\n", a[0].c_str());
    status = 1;
  } else if (a.size() == 2) {
    int row = find_row(&rel, a[0], a[1]);
    if (row < 0 || M_build_index(&rel, row) != 1) status = 1;
  } else {
    for (size_t row = 0; row < rel.index->rows.size(); ++row)
      if (rel.index->rows[row].entry.field_type == 'D' && M_build_index(&rel, static_cast<int>(row)) != 1) status = 1;
  }
  if (status != 0) std::fprintf(stderr, "mrvfile: the build of %s failed\n", a[0].c_str());
  M_closefile(&rel);
  return status;
}

int index_scan(const Args& a) {
  if (a.size() != 2) return mrvfile_usage();
  REL_TYPE rel;
  int row = open_tree(&rel, a[0], a[1]);
  if (row < 0) return 1;
  int r = M_index_walk(rel.index, row, "", true, [](const std::string& key, const std::string& id) {
    std::printf("%s\t%s\n", mrvfile_escape(key).c_str(), mrvfile_escape(id).c_str());
    return 0;
  });
  M_closefile(&rel);
  return walk_status(r, a[1]);
}

int index_find(const Args& a) {
  if (a.size() != 3) return mrvfile_usage();
  std::string value;
  if (!mrvfile_unescape(a[2], &value)) {
    std::fprintf(stderr, "mrvfile: bad escape in %s\n", a[2].c_str());
    return 2;
  }
  REL_TYPE rel;
  int row = open_tree(&rel, a[0], a[1]);
  if (row < 0) return 1;
  char type = rel.index->rows[static_cast<size_t>(row)].entry.key_type;
  size_t found = 0;
  int r = M_index_walk(rel.index, row, value, false, [&](const std::string& key, const std::string& id) {
    if (M_index_compare(type, key, value) != 0) return 1;
    std::printf("%s\n", mrvfile_escape(id).c_str());
    ++found;
    return 0;
  });
  M_closefile(&rel);
  int status = walk_status(r, a[1]);
  return status == 0 && found == 0 ? 1 : status;
}

int index_drop(const Args& a) {
  if (a.size() != 2) return mrvfile_usage();
  REL_TYPE rel;
  if (!mrvfile_open(&rel, a[0], OpenMode::ReadWrite)) return 1;
  int row = find_row(&rel, a[0], a[1]);
  int r = row >= 0 ? M_drop_index(&rel, a[1].c_str()) : 0;
  M_closefile(&rel);
  return r == 1 ? 0 : 1;
}

int index_check(const Args& a) {
  if (a.size() != 1) return mrvfile_usage();
  // The data is opened alone, so that the index's own checks speak.
  std::string problem = mrvfile_path_problem(a[0], false);
  REL_TYPE rel;
  if (!problem.empty() || M_openfile(&rel, a[0].c_str(), OpenMode::Read, OPEN_NO_INDEX) != 1) {
    std::fprintf(stderr, "mrvfile: %s: %s\n", a[0].c_str(), problem.empty() ? "does not open" : problem.c_str());
    return 1;
  }
  int r = M_open_index(&rel);
  int status = 0;
  if (r < 0) {
    std::printf("%s: the index file is damaged\n", a[0].c_str());
    status = 1;
  } else if (r == 1) {
    int32_t counted = M_ndx_gethdr(&rel);
    if (counted != static_cast<int32_t>(rel.index->rows.size())) {
      std::printf("%s: the file header counts %d indexes, the index file holds %zu\n", a[0].c_str(), counted,
                  rel.index->rows.size());
      status = 1;
    }
    for (const std::string& f : M_check_index(rel.index)) {
      std::printf("%s: %s\n", a[0].c_str(), f.c_str());
      status = 1;
    }
  }
  M_closefile(&rel);
  return status;
}

struct Sub {
  const char* name;
  int (*run)(const Args&);
};

constexpr Sub kSubs[] = {
    {"add", index_add},   {"list", index_list}, {"build", index_build}, {"scan", index_scan},
    {"find", index_find}, {"drop", index_drop}, {"check", index_check},
};

}  // namespace

int mrvfile_index(const Args& args) {
  if (args.empty()) return mrvfile_usage();
  for (const Sub& s : kSubs)
    if (args[0] == s.name) return s.run(Args(args.begin() + 1, args.end()));
  return mrvfile_usage();
}
