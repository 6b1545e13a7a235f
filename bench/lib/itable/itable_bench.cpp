/*
 * Look-ups in index tables against std::unordered_map and Judy arrays, in one run: a million indexes, dense and sparse,
 * looked up in random order. Best of some rounds.
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

enum { INDEXES = 1000000, ROUNDS = 7 };

double now_ns()
{
    struct timespec time;
    clock_gettime(CLOCK_MONOTONIC, &time);
    return double(time.tv_sec) * 1e9 + double(time.tv_nsec);
}

template <typename finder> double best_of(const std::vector<uint32_t> &order, finder find)
{
    double best = 1e18;
    uintptr_t sum = 0;
    for (int round = 0; round < ROUNDS; round++) {
        double begin = now_ns();
        for (uint32_t index : order)
            sum += find(index);
        best = std::min(best, (now_ns() - begin) / double(order.size()));
    }
    if (sum != uintptr_t(ROUNDS) * order.size())
        printf("look-ups were lost\n");
    return best;
}

void run(const char *name, std::vector<uint32_t> indexes, bool judged)
{
    std::mt19937 random(5);
    struct itable32 *table = itable32_create();
    std::unordered_map<uint32_t, uintptr_t> map;
    void *judy = nullptr;
    for (uint32_t index : indexes) {
        itable32_insert(table, 1, &index);
        map[index] = 1;
        void **slot = JudyLIns(&judy, index, nullptr);
        *slot = reinterpret_cast<void *>(1);
    }
    std::shuffle(indexes.begin(), indexes.end(), random);
    double ours = best_of(indexes, [&](uint32_t index) { return itable32_lookup(table, &index); });
    double theirs = best_of(indexes, [&](uint32_t index) { return map.find(index)->second; });
    double judys = best_of(indexes, [&](uint32_t index) {
        return reinterpret_cast<uintptr_t>(*JudyLGet(judy, index, nullptr));
    });
    printf("itable32 %-7s %6.1f ns  unordered_map %6.1f ns  ratio %.2f  goal 3\n", name, ours, theirs, theirs / ours);
    printf("itable32 %-7s %6.1f ns  Judy          %6.1f ns  ratio %.2f%s\n", name, ours, judys, judys / ours,
           judged ? "  goal 1" : "");
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
        sparse[i] = i * 4096U + random() % 4096;
    }
    run("dense", dense, true);
    run("sparse", sparse, false);
    return 0;
}
