/*
 * Statistics of the socket. A message has the counters of one message type, so a table is made of many: that of type 1
 * comes first and brings the title.
 */
#include "lib/librtsock/format/rtsm.h"
#include "lib/librtsock/format/raw.h"
#include "lib/librtsock/format/rtslib_format.h"
#include "lib/librtsock/format/rtslib_format_raw.h"
#include "lib/librtsock/format/value_names.h"

#include <inttypes.h>
#include <stdio.h>

namespace {

enum { FIRST_TYPE = 1, TYPE_COLUMN = 10, OP_COLUMN = 9, CELL_MAX = 256 };

constexpr const char *kinds[] = { "Total ops", "Failed ops", "Vetoed ops", "Locked ops", "Unknown ops" };
constexpr const char *full_columns[] = { "sndpkts", "sndbytes", "sndmaxpkt", "rcvpkts", "rcvbytes", "rcvmaxpkt" };

void put_title(struct format_out *out, const struct rtsm_raw &stats)
{
    format_put(out, "\n", 1);
    format_put_column(out, format_name_of(kinds, stats.kind), TYPE_COLUMN);
    format_put_string(out, ":: ");
    for (int op = 1; op <= RTSM_OPS; op++) {
        format_put(out, " ", 1);
        format_put_right(out, rtslib_format_op(op), OP_COLUMN);
    }
    format_put(out, "\n", 1);
}

void put_row(struct format_out *out, const struct rtsm_raw &stats)
{
    format_put_right(out, rtslib_format_rtm_type(stats.type), TYPE_COLUMN);
    format_put_string(out, ":  ");
    for (const struct rtsm_counters_raw &op : stats.ops) {
        char cell[CELL_MAX];
        int length = snprintf(cell, sizeof cell, " %4" PRIu64 "/%-4" PRIu64, op.sndpkts, op.rcvpkts);
        format_put(out, cell, size_t(length));
    }
}

void put_op(struct format_out *out, int number, const struct rtsm_counters_raw &op)
{
    char line[CELL_MAX];
    int length = snprintf(line, sizeof line,
                          " %9" PRIu64 " %9" PRIu64 " %9" PRIu32 " %9" PRIu64 " %9" PRIu64 " %9" PRIu32 "\n",
                          op.sndpkts, op.sndbytes, op.sndmaxpkt, op.rcvpkts, op.rcvbytes, op.rcvmaxpkt);
    format_put_right(out, rtslib_format_op(number), TYPE_COLUMN);
    format_put(out, line, size_t(length));
}

bool is_idle(const struct rtsm_counters_raw &op)
{
    return op.sndpkts == 0 && op.rcvpkts == 0;
}

}   // namespace

void format_put_socket_stats(struct format_out *out, const void *message)
{
    const auto stats = format_raw_of<struct rtsm_raw>(message);
    if (stats.type == FIRST_TYPE)
        put_title(out, stats);
    if (!std::all_of(std::begin(stats.ops), std::end(stats.ops), is_idle))
        put_row(out, stats);
}

int rtslib_rtsm_format_full_output(struct rtslib_cookie *cookie, char *buffer, const void *message)
{
    struct format_out out = format_out_open(buffer, RTSLIB_FORMAT_FULL_SIZE);
    const auto stats = format_raw_of<struct rtsm_raw>(message);
    for (size_t i = 0; i < std::size(full_columns); i++) {
        if (i > 0)
            format_put(&out, " ", 1);
        format_put_right(&out, full_columns[i], OP_COLUMN);
    }
    format_put(&out, "\n", 1);
    format_put_right(&out, rtslib_format_rtm_type(stats.type), TYPE_COLUMN);
    format_put_string(&out, ":: \n");
    for (int op = 1; op <= RTSM_OPS; op++) {
        if (!is_idle(stats.ops[op - 1]))
            put_op(&out, op, stats.ops[op - 1]);
    }
    if (format_out_fits(&out))
        return 0;
    rtslib_err(cookie, RTSLIB_WARNING, "output full buffer too small for format!\n");
    return -1;
}
