// Makes one allocation of the program fail. Link with --wrap for malloc, calloc, realloc and strdup.
#pragma once

#include <stdlib.h>
#include <string.h>

extern "C" {
void *__real_malloc(size_t), *__wrap_malloc(size_t);
void *__real_calloc(size_t, size_t), *__wrap_calloc(size_t, size_t);
void *__real_realloc(void *, size_t), *__wrap_realloc(void *, size_t);
char *__real_strdup(const char *), *__wrap_strdup(const char *);
}

static int good_allocations = -1;   // that come before the one that fails; negative: none fails

static bool allocation_fails()
{
    return good_allocations >= 0 && good_allocations-- == 0;
}

void *__wrap_malloc(size_t size) { return allocation_fails() ? nullptr : __real_malloc(size); }
void *__wrap_calloc(size_t count, size_t size) { return allocation_fails() ? nullptr : __real_calloc(count, size); }
void *__wrap_realloc(void *block, size_t size) { return allocation_fails() ? nullptr : __real_realloc(block, size); }
char *__wrap_strdup(const char *text) { return allocation_fails() ? nullptr : __real_strdup(text); }
