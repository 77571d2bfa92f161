// Structural check of a hashed file.
//
// Reads the file through the library and reports every rule of the format
// that it breaks: the headers, every group's chain of blocks (kind, group,
// hash type byte, datapos, byteleft, key table and key area, record
// positions and long-record chains), that each key lies in the group it
// hashes to, that chains end, and for a dynamic file the overflow headers,
// the part counts and the free lists. Nothing is written.
#pragma once

#include <string>
#include <vector>

// Appends one line per finding; returns the number of findings. A file
// that does not open is one finding (the open prints its own reasons).
int M_check_file(const char* path, std::vector<std::string>* findings);
