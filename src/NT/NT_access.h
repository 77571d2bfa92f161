// Access tests that really try.
//
// NT_access: a missing path gives errno 2 and -1; a directory always passes;
// for a file modes 0 and 1 pass, and modes 2 and above try an open (read and
// write for 2, read otherwise).
// The probing test of a directory, check_access, is in common/readroot.h.
#pragma once

int NT_access(const char* path, int mode);

// The modes by name: whether the path is there, and whether it can be
// opened for reading and writing.
enum class AccessMode : int {
  Exists = 0,
  Write = 2,
};
inline int NT_access(const char* path, AccessMode mode) { return NT_access(path, static_cast<int>(mode)); }
