// The sorted build of an index through the program mrvsort.
#pragma once

#include <string>

struct REL_TYPE;
struct IndexState;

// A build under way: the keys not yet written and the two temporary files.
struct IndexBuild {
  std::string buffer;
  void* unsorted = nullptr;
  void* sorted = nullptr;
};

// Empties index row `row` and builds it anew from every record of the
// file. 1 built, -1 failed (the index is left marked to be built).
int M_build_index(REL_TYPE* rel, int row);
// Writes the buffered lines to the unsorted file; with `run_sort`, then
// sorts it into the sorted file ("mrvsort -u -r -o SORTED UNSORTED"). 0 or
// -1 after a report.
int M_write_sorted_keys(IndexBuild* build, bool run_sort);
// One line of the build's file, and its reading back.
std::string M_index_sort_line(char key_type, const std::string& key, const std::string& id);
bool M_index_parse_line(char key_type, const std::string& line, std::string* key, std::string* id);
// Writes the report "/tmp/LARGERPT<pid>" of an index-space problem and
// tells the user where it is.
void M_index_space_report(const char* file, const char* index, const IndexState* h, const char* reason);
