// Allocation wrappers. Memory from all of them is zero-filled, including the
// part that mrv_realloc adds; callers depend on it. mrv_malloc may return
// null and its callers test the result; M_emalloc never returns null: it ends
// the run with status 1 after message 30062.
#pragma once

#include <cstddef>

void* mrv_malloc(size_t size);
void* mrv_calloc(size_t count, size_t size);
void* mrv_realloc(void* pointer, size_t size);
void mrv_free(void* pointer);
void* M_emalloc(size_t size);
