/*
 * Benchmark of the rendering: a million lines of routes beside snprintf, which writes the same lines from one format
 * string and is given their names and numbers ready for use.
 *
 * Rounds alternate, so that what disturbs the machine disturbs both; the figures are medians, and the ratio is the
 * median of the rounds' ratios. A goal that is missed is shown and is no failure, since a loaded machine can do that.
 */
#include "lib/librtsock/format/rtslib_format.h"
#include "lib/librtsock/idl/idl.h"

#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <time.h>

#include <algorithm>
#include <array>

namespace {

enum { ROUNDS = 7, LINE = 512 };
constexpr int LINES = 1000000;
constexpr double GOAL = 0.5;   // times as fast as the other side

uint8_t prefix[4];
char interface_name[] = "ge-0/0/0.100";
struct rt_msg route;
char line[LINE], other_line[LINE];

double now_s()
{
    struct timespec now;
    clock_gettime(CLOCK_MONOTONIC, &now);
    return double(now.tv_sec) + double(now.tv_nsec) / 1e9;
}

void make_route()
{
    route.rts_hdr.rtsh_type = 2;
    route.rts_hdr.rtsh_op = 1;
    route.rts_hdr.rtsh_sender = route.rts_hdr.rtsh_creator = 1;
    route.af = 2, route.rt_type = 1, route.rt_flags = 0x20001, route.nh_type = 2, route.nh_flags = 16;
    route.rt_nhiflist = 15, route.altfwdnhidx = 16, route.rt_mcast_nhiflist = 17, route.filtidx = 18;
    route.lr_id = 1, route.featureid = 20, route.dflags = 0x7ffe, route.tid = 512;
    route.prefix_bits = 24, route.prefix = prefix, route.prefix_len = sizeof prefix;
    route.ifname = interface_name, route.ifname_len = sizeof interface_name;
}

void vary(int i)
{
    prefix[0] = 10;
    prefix[1] = uint8_t(i >> 8);
    prefix[2] = uint8_t(i);
    route.nhidx = 1048576U + unsigned(i);
}

void write_other()
{
    snprintf(other_line, sizeof other_line,
             "%-10.10s %-10.10s %-4.4s %-10.10s %-8.8s%s %u.%u.%u/%u tid=%d plen=%d type=%s flags=0x%x nh=%s "
             "nhflags=0x%x nhidx=%d rt_nhiflist = %d altfwdnhidx=%d filtidx=%d lr_id = %d featureid=%d %s %s "
             "rt_mcast_nhiflist=%d dflags 0x%x\n",
             "routing", "routing", "P", "route", "add", "inet", prefix[0], prefix[1], prefix[2], route.prefix_bits,
             route.tid, route.prefix_bits, "user", route.rt_flags, "ucst", route.nh_flags, int(route.nhidx),
             int(route.rt_nhiflist), int(route.altfwdnhidx), int(route.filtidx), route.lr_id, route.featureid,
             interface_name, "", int(route.rt_mcast_nhiflist), route.dflags);
}

double render_s()
{
    double start = now_s();
    for (int i = 0; i < LINES; i++) {
        vary(i);
        if (rtslib_format_output(nullptr, line, sizeof line, 0, &route) != 0)
            exit(EXIT_FAILURE);
    }
    return now_s() - start;
}

double other_s()
{
    double start = now_s();
    for (int i = 0; i < LINES; i++) {
        vary(i);
        write_other();
    }
    return now_s() - start;
}

double median(std::array<double, ROUNDS> values)
{
    std::nth_element(values.begin(), values.begin() + ROUNDS / 2, values.end());
    return values[ROUNDS / 2];
}

}   // namespace

int main()
{
    make_route();
    std::array<double, ROUNDS> figures, bases, ratios;
    for (size_t round = 0; round < ROUNDS; round++) {
        figures[round] = render_s();
        bases[round] = other_s();
        ratios[round] = bases[round] / figures[round];
    }
    if (strcmp(line, other_line) != 0) {
        fprintf(stderr, "format_bench: the lines differ:\n%s%s", line, other_line);
        return EXIT_FAILURE;
    }
    printf("%-42s %10s %10s %7s   %s\n", "", "figure", "base", "ratio", "goal");
    printf("%-42s %10.3f %10.3f %7.2f   at least %.1f%s\n", "a million lines of routes [s]", median(figures),
           median(bases), median(ratios), GOAL, median(ratios) < GOAL ? "   MISSED" : "");
    return EXIT_SUCCESS;
}
