// Free block management of dynamic files: blocks given back go to the
// overflow part's free stack (in its OVERFLOW_HEADER) or, when the stack is
// full, onto the part's chain of FREE_LIST_BLOCKs.
//
// Released blocks gather in the release buffer, one FREE_LIST_BLOCK image
// whose entries all lie in one overflow part; the buffer is drained into
// that part's header when a block of another part arrives, when the image is
// full, or when the caller asks with address 0.
#pragma once

#include <cstdint>

struct REL_TYPE;

// Puts one block into the release buffer; 0 drains the buffer. 0 or -1.
int M_release_to_file(REL_TYPE* rel, uint32_t address);
