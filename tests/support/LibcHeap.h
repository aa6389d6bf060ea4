#pragma once

#include <cstddef>

/// The allocation functions of libc under their own names, for functions that replace the public ones.
extern "C" {
void* __libc_malloc(size_t);
void* __libc_calloc(size_t, size_t);
void* __libc_realloc(void*, size_t);
void* __libc_memalign(size_t, size_t);
void __libc_free(void*);
}
