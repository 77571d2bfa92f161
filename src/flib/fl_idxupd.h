// Keeping the indexes of a file up to date on every record write,
// replacement and delete.
//
// The record's old values are read before the data changes (the prepare
// call, outside any group lock); once the data write has succeeded the
// commit removes the pairs that are gone and adds the new ones. Indexes of
// field type 'D' are kept; 'S' has no tree of its own, and 'I' and 'V'
// need the query language's expressions, which this system does not run.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

struct REL_TYPE;
struct IndexEntry;

struct IndexPrep {
  bool active = false;   // the file has indexes to keep
  bool had_old = false;  // a record stood under the key
  std::string old_record;
};

// The values of a record that an index of field type 'D' holds: location 0
// is the @ID; location n the n-th field; a multivalued index takes each
// distinct value of the field. Sorted, without repeats.
std::vector<std::string> M_index_values(const IndexEntry& entry, const std::string& id, const std::string& record);

// 0, or -1 when the old record cannot be read.
int M_index_prepare(REL_TYPE* rel, const uint8_t* key, int32_t key_length, IndexPrep* prep);
// After a successful write (`record` set) or delete (`record` null). 0 or
// -1 after a report; the data stays as written.
int M_index_commit(REL_TYPE* rel, const uint8_t* key, int32_t key_length, const IndexPrep& prep,
                   const uint8_t* record, int32_t record_length);
