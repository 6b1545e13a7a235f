// Makes one allocation of the program fail. Link with --wrap for malloc, calloc, realloc and strdup.
#pragma once

#include <stddef.h>

extern "C" {
void *__real_malloc(size_t size);
void *__real_calloc(size_t count, size_t size);
void *__real_realloc(void *block, size_t size);
char *__real_strdup(const char *text);
void *__wrap_malloc(size_t size);
void *__wrap_calloc(size_t count, size_t size);
void *__wrap_realloc(void *block, size_t size);
char *__wrap_strdup(const char *text);
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
