/*
 * Records made from their tables: random ones, and memory that a test can count, fail and check.
 */
#pragma once

#include "lib/librtsock/idl/idl.h"

#include <map>
#include <memory>
#include <random>
#include <vector>

/* Hands out blocks filled with 0xa5, so that a decoder that relies on zeroes is found out. */
struct heap {
    int left = -1;            // allocations that still succeed; -1: all
    int taken = 0;
    size_t largest = 0;
    std::map<void *, std::unique_ptr<uint64_t[]>> live;

    static void *take(size_t size, void *context);
    static void give(void *memory, void *context);
};

struct random_source {
    std::mt19937 engine;
    heap memory;
    uint32_t below(uint32_t bound) { return engine() % bound; }
};

/* Fills record with values that survive a round trip in both forms. */
void fill_record(random_source &source, const struct idl_type *type, void *record);
/* Room for one record or map of that size, aligned. */
std::vector<uint64_t> room_for(uint32_t octets);

/* Octets of the record in one form, TLV with a null map. */
std::vector<uint8_t> tlv_of(const struct idl_type *type, const void *record, const void *map = nullptr);
std::vector<uint8_t> idr_of(const struct idl_type *type, const void *record);
