/*
 * Benchmark of the filter compiler: expressions of ten terms, beside what libpcap's compiler takes for packet filters
 * of ten terms, with and without its optimizer. One row has terms that each test one field, which is the least a packet
 * filter's term can be; the other has addresses and ports, each of which that compiler has to spell out.
 *
 * Rounds alternate, so that what disturbs the machine disturbs all; the figures are medians, and a ratio is the median
 * of the rounds' ratios. A goal that is missed is shown and is no failure, since a loaded machine can do that.
 */
#include "lib/librtsock/filter/rts_filter.h"

#include <pcap/pcap.h>
#include <stdio.h>
#include <stdlib.h>
#include <time.h>

#include <algorithm>
#include <array>

enum { ROUNDS = 15, SNAPSHOT = 65535 };
static constexpr int COMPILATIONS = 2000, BASE_COMPILATIONS = 100;
static constexpr double GOAL = 10;

static constexpr struct row {
    const char *ro_name, *ro_expression, *ro_base;
} rows[] = {
    { "ten fields",
      "type == RTM_ADD && family == AF_INET && dst == 10.1.0.0/16 && gateway != 10.0.0.1 && flags & 4 && "
      "ifd.index >= 16 && ifd.name ~ \"ge-0\" && table->index == 3 && prefix <= 24 && metric < 100",
      "ether proto 2048 and ip proto 6 and dst net 10.1.0.0/16 and not src host 10.0.0.1 and ip[6] & 4 != 0 and "
      "ip[2:2] >= 16 and tcp dst port 80 and tcp[13] = 3 and ip[8] <= 24 and greater 100" },
    { "ten addresses and ports",
      "host == 10.0.0.1 || host == 10.0.0.2 || host == 10.0.0.3 || host == 10.0.0.4 || host == 10.0.0.5 || "
      "net == 10.1.0.0/16 || net == 10.2.0.0/16 || port == 80 || port == 443 || port == 22",
      "host 10.0.0.1 or host 10.0.0.2 or host 10.0.0.3 or host 10.0.0.4 or host 10.0.0.5 or net 10.1.0.0/16 or "
      "net 10.2.0.0/16 or port 80 or port 443 or port 22" },
};

static double now_us()
{
    struct timespec now;
    clock_gettime(CLOCK_MONOTONIC, &now);
    return double(now.tv_sec) * 1e6 + double(now.tv_nsec) / 1e3;
}

static double compile_us(const char *expression)
{
    alignas(16) static unsigned char block[2048];
    double start = now_us();
    for (int i = 0; i < COMPILATIONS; i++)
        if (rts_filter_string_parse(expression, block, sizeof block) != RTS_FILTER_DONE) exit(EXIT_FAILURE);
    return (now_us() - start) / COMPILATIONS;
}

static double base_us(pcap_t *pcap, const char *expression, int optimize)
{
    double start = now_us();
    for (int i = 0; i < BASE_COMPILATIONS; i++) {
        struct bpf_program program;
        if (pcap_compile(pcap, &program, expression, optimize, PCAP_NETMASK_UNKNOWN) != 0) {
            pcap_perror(pcap, "filter_bench");
            exit(EXIT_FAILURE);
        }
        pcap_freecode(&program);
    }
    return (now_us() - start) / BASE_COMPILATIONS;
}

static double median(std::array<double, ROUNDS> values)
{
    std::nth_element(values.begin(), values.begin() + ROUNDS / 2, values.end());
    return values[ROUNDS / 2];
}

static void measure(pcap_t *pcap, const struct row &row, int optimize)
{
    std::array<double, ROUNDS> figures, bases, ratios;
    for (size_t round = 0; round < ROUNDS; round++) {
        figures[round] = compile_us(row.ro_expression);
        bases[round] = base_us(pcap, row.ro_base, optimize);
        ratios[round] = bases[round] / figures[round];
    }
    char name[64];
    snprintf(name, sizeof name, "%s%s [us]", row.ro_name, optimize ? ", base optimized" : "");
    printf("%-42s %10.2f %10.2f %7.2f   at least %.0f%s\n", name, median(figures), median(bases), median(ratios), GOAL,
           median(ratios) < GOAL ? "   MISSED" : "");
}

int main()
{
    pcap_t *pcap = pcap_open_dead(DLT_EN10MB, SNAPSHOT);
    if (!pcap) return EXIT_FAILURE;
    printf("%-42s %10s %10s %7s   %s\n", "", "figure", "base", "ratio", "goal");
    for (const auto &row : rows)
        for (int optimize = 0; optimize < 2; optimize++) measure(pcap, row, optimize);
    pcap_close(pcap);
    return EXIT_SUCCESS;
}
