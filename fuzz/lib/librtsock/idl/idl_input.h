/*
 * What the fuzz targets of the codec share: the choice of what is decoded, which the first octets of an input make, and
 * memory that is counted, bounded and can be told to run out.
 *
 * A block's size must stay in proportion to the input, however small the octets that ask for it. The blocks come from
 * malloc, so that the sanitizer sees every octet read or written beside them.
 */
#pragma once

#include "lib/librtsock/idl/idl.h"

#include <stdlib.h>
#include <string.h>

#include <vector>

static inline void must(bool holds)
{
    if (!holds) abort();
}

struct idl_choice {
    bool idr, map, message;              // message: in an envelope, made here or found in the input
    enum { WORKS, NONE, FAILS } memory;
    uint32_t number;                     // of the type, or of the message
    int calls;                           // of the allocation function that succeed before it fails
};

/* Reads the choice from the front of the input and steps over it. False: the input is too short. */
static inline bool idl_choose(const uint8_t *&data, size_t &size, struct idl_choice &c)
{
    enum { OCTETS = 4 };
    if (size < OCTETS) return false;
    c.idr = (data[0] & 1) != 0;
    c.map = (data[0] & 2) != 0 && !c.idr;
    c.message = (data[0] & 4) != 0;
    c.memory = (data[0] & 8) == 0 ? idl_choice::WORKS : (data[0] & 16) == 0 ? idl_choice::FAILS : idl_choice::NONE;
    c.number = uint32_t(data[1] | data[2] << 8);
    c.calls = data[3];
    data += OCTETS;
    size -= OCTETS;
    return true;
}

/* The type chosen, or null: it has not that form. */
static inline const struct idl_type *idl_chosen_type(const struct idl_choice &c)
{
    const struct idl_type *type = idl_catalogue[c.number % idl_catalogue_count];
    return type->it_dialect == (c.idr ? IDL_DIALECT_NETWORK : IDL_DIALECT_IDR) ? nullptr : type;
}

struct idl_blocks {
    size_t largest;     // allowed for one block
    int calls;          // that succeed; negative: all
    size_t live, total; // blocks not given back, octets ever taken
};

static inline struct idl_blocks idl_blocks_for(size_t input)
{
    return { 64 * input + 4096, -1, 0, 0 };
}

static inline void *idl_take_block(size_t size, void *context)
{
    auto *blocks = static_cast<struct idl_blocks *>(context);
    must(size != 0 && size <= blocks->largest);
    if (blocks->calls == 0) return nullptr;
    blocks->calls--;
    blocks->live++;
    blocks->total += size;
    return malloc(size);
}

static inline void idl_give_block(void *memory, void *context)
{
    must(memory != nullptr);
    static_cast<struct idl_blocks *>(context)->live--;
    free(memory);
}

/* A record or map, on the heap and to the octet. */
struct idl_room {
    void *at;
    explicit idl_room(size_t octets) : at(malloc(octets)) {}
    idl_room(const idl_room &) = delete;
    idl_room &operator=(const idl_room &) = delete;
    ~idl_room() { free(at); }
};
