// The account's VOC: the one hashed file that names every other file.
//
// An entry is keyed by a file's name and holds, field by field (separated by
// the field mark in force): its type ("F", "DIR", "LF", "LD", "V", "K", ...),
// the data path and the dictionary path, both relative to the account. The
// handle stays open while an account is worked on; creation and the opens
// through the VOC use it when it is open.
#pragma once

#include <cstdint>
#include <string>

#include "flib/fl_rel.h"

// The open VOC; valid between M_open_voc and M_close_voc.
extern REL_TYPE M_voc;
bool M_voc_is_open();
// Opens "VOC" of the working directory for reading and writing. 1, or 0/-1
// as M_openfile gives.
int M_open_voc(const char* path);
void M_close_voc();

// Record access by key; each answers 0 (absent or refused) when no VOC is
// open. 1 found / done, 0 absent, -1 error.
int M_voc_read(const std::string& key, std::string* record);
int M_voc_write(const std::string& key, const std::string& record);
int M_voc_delete(const std::string& key);

// The first three fields of an entry.
struct VocEntry {
  std::string type;
  std::string data_path;
  std::string dict_path;
};
VocEntry M_voc_fields(const std::string& record);

// Opens the file that the VOC entry `name` points to: `which` 1 its data
// path, 3 its dictionary path; read-write. 1 opened, 0 no entry, no such
// path or absent, -1 error.
int M_open_by_voc(REL_TYPE* rel, const std::string& name, int which);
