// Access tests that really try.
//
// NT_access: a missing path gives errno 2 and -1; a directory always passes;
// for a file modes 0 and 1 pass, and modes 2 and above try an open (read and
// write for 2, read otherwise).
// The probing test of a directory, check_access, is in common/readroot.h.
#pragma once

int NT_access(const char* path, int mode);
