/*
 * What the fuzz targets of the library share: a kernel that is whatever its write is, and memory hooks that count blocks
 * and refuse what a message merely claims. One of each for the process.
 */
#pragma once

#include "lib/librtsock/rtslib.h"
#include "platform/rtsock/rtsock.h"

#include <errno.h>
#include <stdlib.h>
#include <string.h>

inline void must(bool holds)
{
    if (!holds) abort();
}

inline constexpr size_t LARGEST_BLOCK = 1 << 26;

inline int peer;          // the kernel's end of the last socket opened
inline int block_count;   // blocks that the library has

/* Accepts every option; write is the rest of it. */
inline rtsock_kernel kernel_that(ssize_t (*write)(void *, const void *, size_t))
{
    return {
        .rk_name = "fuzz",
        .rk_open = [](int fd, void **) { return peer = fd, 0; },
        .rk_close = [](void *) {},
        .rk_write = write,
        .rk_getsockopt = [](void *, int, void *value, socklen_t *length) {
            *length = RTSLIB_TYPES + 1;
            memcpy(value, rtslib_versions, *length);
            return 0;
        },
        .rk_setsockopt = [](void *, int, const void *, socklen_t) { return 0; },
        .rk_sysctl = [](const int *, unsigned, void *, size_t *) { return errno = ENOENT, -1; },
        .rk_sysctlbyname = [](const char *, void *, size_t *, const void *, size_t) { return errno = ENOENT, -1; },
        .rk_bind_table = [](int, uint32_t) { return 0; },
        .rk_bind_interface = [](int, uint32_t) { return 0; },
        .rk_source = nullptr,
        .rk_pump = nullptr,
    };
}

inline void *take_block(size_t count, size_t size)
{
    if (count * size > LARGEST_BLOCK) return errno = ENOMEM, nullptr;
    block_count++;
    return calloc(count, size);
}

inline void count_blocks()
{
    rtslib_malloc = [](uint16_t, size_t size) { return take_block(1, size); };
    rtslib_calloc = [](uint16_t, size_t count, size_t size) { return take_block(count, size); };
    rtslib_free = [](uint16_t, void *block) {
        block_count -= block != nullptr ? 1 : 0;
        free(block);
    };
}
