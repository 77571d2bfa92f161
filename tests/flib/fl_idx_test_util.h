// A hashed file with an index file, and helpers that look at its trees,
// for the index tests.
#pragma once

#include <map>
#include <set>
#include <string>
#include <utility>
#include <vector>

#include "fl_test_util.h"
#include "flib/fl_delete.h"
#include "flib/fl_index.h"

using Pair = std::pair<std::string, std::string>;  // key, @ID

class IndexedFile : public RecordFile {
 protected:
  IndexState* h() { return rel.index; }
  // Makes the file and its index file.
  void make(bool dynamic, const IndexFileOptions& options) {
    create(dynamic ? 1 : 7, 1, dynamic ? 64 : 0);
    ASSERT_EQ(M_create_index_file(&rel, options), 1);
  }
  int add(const char* name, int32_t field, char value_type = 'S', bool later = false, uint8_t option = 0,
          char key_type = 'T') {
    return M_add_index(&rel, name, 'D', value_type, key_type, option, field, nullptr, later);
  }
  int row(const char* name) { return M_index_row(h(), name); }
  std::vector<Pair> scan(const char* name) {
    std::vector<Pair> out;
    int r = M_index_walk(h(), row(name), "", true, [&](const std::string& k, const std::string& id) {
      out.emplace_back(k, id);
      return 0;
    });
    EXPECT_EQ(r, 1) << name;
    return out;
  }
  int insert(const char* name, const std::string& key, const std::string& id) {
    return M_index_insert(h(), row(name), bytes(key), length(key), bytes(id), length(id));
  }
  int remove(const char* name, const std::string& key, const std::string& id) {
    return M_index_remove(h(), row(name), bytes(key), length(key), bytes(id), length(id));
  }
  int del(const std::string& key) { return M_delete_tuple(&rel, bytes(key), length(key), nullptr); }
  NodeHead node_head(uint32_t address) {
    std::vector<uint8_t> node(h()->node_size);
    EXPECT_GE(M_idx_read(h(), address, node.data(), h()->node_size), 0);
    return decode_node_head(node.data());
  }
  std::vector<KeyEntry> node_entries(uint32_t address) {
    std::vector<uint8_t> node(h()->node_size);
    EXPECT_GE(M_idx_read(h(), address, node.data(), h()->node_size), 0);
    std::vector<KeyEntry> entries;
    EXPECT_TRUE(decode_node_entries(node.data(), h()->node_size, h()->head.key_length,
                                    h()->head.version == IDX_VERSION_COMPRESSED, &entries));
    return entries;
  }
  uint32_t root(const char* name) { return h()->rows[static_cast<size_t>(row(name))].entry.root; }
  // Levels of the tree, along its first children.
  int depth(const char* name) {
    uint32_t a = root(name);
    int d = 1;
    while (node_head(a).is_leaf == 0) {
      a = node_entries(a).front().child;
      ++d;
    }
    return d;
  }
  std::string check() {
    std::string all;
    for (const auto& f : M_check_index(h())) all += f + "\n";
    return all;
  }
};
