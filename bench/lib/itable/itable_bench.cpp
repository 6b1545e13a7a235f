/*
 * Look-ups in index tables against std::unordered_map and Judy arrays, in one run: a million indexes, looked up in
 * random order, each independent of the one before.
 *
 * "dense" is one run of indexes. "sparse" has one index in each block of 4096, over all 32 bits: a middle table and a
 * leaf for each, about the most memory that an index can cost (1 GiB here), so that most levels are far away.
 *
 * Each structure is built whole before the next, in ascending order. In each round all take turns, each with one pass
 * that is not timed before the one that is, so that none pays for what another left in the caches. The best rounds are
 * shown: what else the machine does can only add to a time.
 */
#include "lib/itable/itable.h"

#include <Judy.h>
#include <stdio.h>
#include <time.h>

#include <algorithm>
#include <random>
#include <unordered_map>
#include <vector>

namespace {

enum { INDEXES = 1000000, ROUNDS = 15, BLOCK = 4096 };

double now_ns()
{
    struct timespec time;
    clock_gettime(CLOCK_MONOTONIC, &time);
    return double(time.tv_sec) * 1e9 + double(time.tv_nsec);
}

/* ns for each look-up. Every value is 1, so a sum tells whether all were found. */
template <typename finder> double timed(const std::vector<uint32_t> &order, finder find)
{
    double begin = 0;
    for (int pass = 0; pass < 2; pass++) {
        begin = now_ns();
        uintptr_t sum = 0;
        for (uint32_t index : order)
            sum += find(index);
        if (sum != order.size())
            printf("look-ups were lost\n");
    }
    return (now_ns() - begin) / double(order.size());
}

void print_row(const char *name, const char *other, double ours, double theirs, double goal)
{
    double ratio = theirs / ours;
    printf("itable32 %-6s %6.1f ns  %-13s %6.1f ns  ratio %5.2f", name, ours, other, theirs, ratio);
    if (goal > 0)
        printf("  goal %.0f%s", goal, ratio < goal ? "  missed" : "");
    printf("\n");
}

void run(const char *name, std::vector<uint32_t> indexes, double map_goal, double judy_goal)
{
    struct itable32 *table = itable32_create();
    for (uint32_t index : indexes)
        itable32_insert(table, 1, &index);
    std::unordered_map<uint32_t, uintptr_t> map;
    for (uint32_t index : indexes)
        map[index] = 1;
    void *judy = nullptr;
    for (uint32_t index : indexes)
        *reinterpret_cast<Word_t *>(JudyLIns(&judy, index, nullptr)) = 1;
    std::shuffle(indexes.begin(), indexes.end(), std::mt19937(5));

    double tables = 1e18, maps = 1e18, judys = 1e18;
    for (int round = 0; round < ROUNDS; round++) {
        tables = std::min(tables, timed(indexes, [&](uint32_t index) { return itable32_lookup(table, &index); }));
        maps = std::min(maps, timed(indexes, [&](uint32_t index) { return map.find(index)->second; }));
        judys = std::min(judys, timed(indexes, [&](uint32_t index) {
                             return *reinterpret_cast<Word_t *>(JudyLGet(judy, index, nullptr));
                         }));
    }
    print_row(name, "unordered_map", tables, maps, map_goal);
    print_row(name, "Judy", tables, judys, judy_goal);
    itable32_destroy(table);
    JudyLFreeArray(&judy, nullptr);
}

}   // namespace

int main()
{
    std::mt19937 random(6);
    std::vector<uint32_t> dense(INDEXES), sparse(INDEXES);
    for (uint32_t i = 0; i < INDEXES; i++) {
        dense[i] = i;
        sparse[i] = i * BLOCK + random() % BLOCK;
    }
    run("dense", dense, 3, 1);
    run("sparse", sparse, 3, 0);
    return 0;
}
