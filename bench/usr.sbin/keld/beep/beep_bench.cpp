/*
 * Benchmark of the BEEP engine: what framing, channels and flow control cost over a plain TCP connection.
 *
 * Each row is measured in turn with its base, several times, and shown with the medians: what disturbs the machine for
 * a while then disturbs both. The ratio shown is the median of the ratios. It says something about the engine; the
 * figures alone say as much about the machine. A goal missed is shown and no failure, since a loaded machine can do
 * that to a row. Allocations are counted, not timed, so one too many fails.
 */
#include "bench/usr.sbin/keld/beep/allocations.h"
#include "bench/usr.sbin/keld/beep/engine_end.h"
#include "bench/usr.sbin/keld/beep/plain_end.h"
#include "bench/usr.sbin/keld/relay_end.h"

#include <algorithm>
#include <array>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>

enum { ROUNDS = 9 };
static constexpr int32_t EXCHANGES = 20000, EXCHANGE_OCTETS = 64;
static constexpr int32_t PIECE_OCTETS = 4096, STREAM_PIECES = (64 << 20) / PIECE_OCTETS;
static constexpr int32_t LINE_OCTETS = 64, REPLY_LINES = (64 << 20) / LINE_OCTETS;
static constexpr double ALLOCATIONS_GOAL = 1.0;

static constexpr struct row {
    const char *ro_key;    // to ask for this row alone
    const char *ro_name;
    struct load ro_load;
    pair_end ro_measuring, ro_other;
    pair_end ro_base_measuring, ro_base_other;
    double ro_per_message;   // what a message counts in the figure
    double ro_goal;          // least ratio
} rows[] = {
    { "exchange", "MSG/RPY exchanges, 1 outstanding [1/s]", { EXCHANGES, EXCHANGE_OCTETS, EXCHANGE_OCTETS, 1 },
      engine_ask, engine_answer, plain_ping, plain_pong, 1, 0.35 },
    { "exchange-32", "MSG/RPY exchanges, 32 outstanding [1/s]", { EXCHANGES, EXCHANGE_OCTETS, EXCHANGE_OCTETS, 32 },
      engine_ask, engine_answer, plain_ping, plain_pong, 1, 0.35 },
    { "window", "4 KiB messages, window 4096 [MiB/s]", { STREAM_PIECES, PIECE_OCTETS, 0, 4 },
      engine_ask, engine_answer, plain_source, plain_sink, PIECE_OCTETS / 1048576.0, 0.06 },
    { "ample", "4 KiB messages, ample window [MiB/s]", { STREAM_PIECES, PIECE_OCTETS, 0, 0 },
      engine_stream, scripted_sink, plain_source, plain_sink, PIECE_OCTETS / 1048576.0, 0.25 },
    { "relay", "reply of 64 MiB from vrd, relayed [MiB/s]", { REPLY_LINES, LINE_OCTETS, 0, 0 },
      relay_reply, relay_sink, plain_copy, copy_sink, LINE_OCTETS / 1048576.0, 0.25 },
};

static double median(std::array<double, ROUNDS> values)
{
    std::nth_element(values.begin(), values.begin() + ROUNDS / 2, values.end());
    return values[ROUNDS / 2];
}

static void measure(const struct row &row)
{
    std::array<double, ROUNDS> figures, bases, ratios;
    double work = row.ro_load.messages * row.ro_per_message;
    for (size_t round = 0; round < ROUNDS; round++) {
        bases[round] = work / pair_run(row.ro_base_measuring, row.ro_base_other, row.ro_load);
        figures[round] = work / pair_run(row.ro_measuring, row.ro_other, row.ro_load);
        ratios[round] = figures[round] / bases[round];
    }
    double ratio = median(ratios);
    printf("%-42s %10.0f %10.0f %7.3f   at least %.2f%s\n", row.ro_name, median(figures), median(bases), ratio,
           row.ro_goal, ratio < row.ro_goal ? "   MISSED" : "");
    fflush(stdout);
}

static bool show_allocations(const char *name, double count)
{
    bool passed = count <= ALLOCATIONS_GOAL;
    printf("%-42s %10.2f %10.2f %7.3f   at most  %.2f%s\n", name, count, ALLOCATIONS_GOAL, count / ALLOCATIONS_GOAL,
           ALLOCATIONS_GOAL, passed ? "" : "   FAILED");
    return passed;
}

static bool measure_allocations()
{
    struct allocations counted = allocations_count();
    bool received = show_allocations("allocations for each frame received", counted.al_received);
    bool sent = show_allocations("allocations for each message sent", counted.al_sent);
    return received && sent;
}

static int usage(FILE *out, int status)
{
    fprintf(out, "usage: beep_bench [ROW]    all rows, or one of:");
    for (const auto &row : rows) fprintf(out, " %s", row.ro_key);
    fprintf(out, " allocations\n");
    return status;
}

int main(int argc, char **argv)
{
    const char *wanted = argc > 1 ? argv[1] : nullptr;
    bool wants_allocations = !wanted || strcmp(wanted, "allocations") == 0;
    bool known = wants_allocations;
    for (const auto &row : rows) known = known || strcmp(wanted, row.ro_key) == 0;
    if (wanted && strcmp(wanted, "--help") == 0) return usage(stdout, EXIT_SUCCESS);
    if (argc > 2 || !known) return usage(stderr, EXIT_FAILURE);

    printf("%-42s %10s %10s %7s   %s\n", "", "figure", "base", "ratio", "goal");
    fflush(stdout);   // or the children would print it again
    for (const auto &row : rows)
        if (!wanted || strcmp(wanted, row.ro_key) == 0) measure(row);
    return wants_allocations && !measure_allocations() ? EXIT_FAILURE : EXIT_SUCCESS;
}
