/*
 * Interface state: objects that the kernel keeps for its clients until each has heard of them, and the limits of one
 * that is slow to.
 *
 * The brief mode tells which object and what became of it; the full mode also who has still to hear of it.
 */
#include "lib/librtsock/format/line.h"
#include "lib/librtsock/format/raw.h"
#include "lib/librtsock/format/rtslib_format.h"
#include "lib/librtsock/format/rtslib_format_raw.h"

namespace {

constexpr format_piece brief_pieces[] = {
    named("", AT(ifsm_raw, object_type), rtslib_format_ifstate_type),
    named(" ", AT(ifsm_raw, object_op), rtslib_format_op),
    uns(" idx=", AT(ifsm_raw, idx)),
    hex(" flags=0x", AT(ifsm_raw, flags)),
    chars(" name=", AT(ifsm_raw, name)),
};
constexpr format_line brief_line = line_of(brief_pieces, sizeof(struct ifsm_raw));

constexpr format_piece full_pieces[] = {
    named(" rcv=", AT(ifsm_raw, receivers), rtslib_format_mtype_rcv),
    named(" issu=", AT(ifsm_raw, issu_state), rtslib_format_daemon_issu_state),
    uns(" clients=", AT(ifsm_raw, clients)),
    hex(" slots=0x", AT(ifsm_raw, slots)),
    uns(" seq=", AT(ifsm_raw, sequence)),
};
constexpr format_line full_line = line_of(full_pieces, sizeof(struct ifsm_raw));

constexpr format_piece limits_pieces[] = {
    named("", AT(ifsclim_raw, subtype), rtslib_format_ifsclim_subtype),
    named(" client=", AT(ifsclim_raw, client), rtslib_format_msg_sender_id),
    uns(" pending=", AT(ifsclim_raw, pending)),
    uns("/", AT(ifsclim_raw, pending_max)),
    uns(" limit=", AT(ifsclim_raw, limit_s)),
};
constexpr format_line limits_line = line_of(limits_pieces, sizeof(struct ifsclim_raw));

}   // namespace

int rtslib_ifsm_print(const void *message, char *buffer, size_t size, int mode)
{
    struct format_out out = format_out_open(buffer, size);
    const auto state = format_raw_of<struct ifsm_raw>(message);
    format_put_line(&out, &brief_line, &state);
    if (mode != RTSLIB_FORMAT_MODE_BRIEF)
        format_put_line(&out, &full_line, &state);
    return format_out_fits(&out) ? 0 : -1;
}

int rtslib_ifsclim_print(const void *message, char *buffer, size_t size)
{
    struct format_out out = format_out_open(buffer, size);
    const auto limits = format_raw_of<struct ifsclim_raw>(message);
    format_put_line(&out, &limits_line, &limits);
    return format_out_fits(&out) ? 0 : -1;
}
