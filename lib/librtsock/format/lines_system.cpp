/*
 * Lines of the system itself: settings, commits, cards, synchronisation, security associations, protection, notices,
 * statistics, errors, and the state that the kernel keeps for its clients.
 */
#include "lib/librtsock/format/gencfg_line.h"
#include "lib/librtsock/format/line.h"
#include "lib/librtsock/format/rtslib_format.h"
#include "lib/librtsock/format/rtslib_format_raw.h"
#include "lib/librtsock/format/value_names.h"
#include "platform/target.h"

#include <string.h>

namespace {

/* --- associations and errors, which have no record -------------------------------------------------------------- */

const char *direction_name(int direction)
{
    static constexpr const char *names[] = { "null", "inbound", "outbound", "passthru", "null" };
    return format_name_of(names, direction);
}

constexpr format_piece association_pieces[] = {
    chars("sadb name=", AT(sa_raw, name)), named(" direc=", AT(sa_raw, direction), direction_name),
    dec(" spi=", AT(sa_raw, spi)), dec(" proto=", AT(sa_raw, proto)), dec(" idx=", AT(sa_raw, idx)),
    dec(" iflidx=", AT(sa_raw, iflidx)),
};
constexpr format_line association_line = line_in_own_order(association_pieces, sizeof(struct sa_raw));

void put_error_text(struct format_out *out, const void *record)
{
    const auto *error = static_cast<const struct rts_err_raw *>(record);
    char room[64];
    int number = target_errno_to_host(int(error->final_err));
    format_put_string(out, strerror_r(number, room, sizeof room));
}
constexpr format_piece error_pieces[] = {
    chars("function=", AT(rts_err_raw, function)), uns(" line=", AT(rts_err_raw, line)),
    uns(" seq_no=", AT(rts_err_raw, seq_no)), named(" rtm_type=", AT(rts_err_raw, type), rtslib_format_rtm_type),
    named(" rtm_op=", AT(rts_err_raw, op), rtslib_format_op),
    named(" sender_id=", AT(rts_err_raw, sender_id), rtslib_format_msg_sender_id),
    uns(" mproc_err=", AT(rts_err_raw, mproc_err)), uns(" final_err=", AT(rts_err_raw, final_err)), literal(":"),
};
constexpr format_line error_line = line_in_own_order(error_pieces, sizeof(struct rts_err_raw), put_error_text);

/* --- settings and commits -------------------------------------------------------------------------------------- */

constexpr format_piece setting_pieces[] = {
    uns("", AT(rts_sysconf_item, id)), uns("=", AT(rts_sysconf_item, value)), octets(" ", AT(rts_sysconf_item, octets)),
};
constexpr format_line setting_line = line_of(setting_pieces, sizeof(struct rts_sysconf_item));
constexpr format_piece settings_pieces[] = {
    hex("change=0x", AT(rts_sysconf_msg, change)), hex(" flags=0x", AT(rts_sysconf_msg, flags)),
    dec(" gen=", AT(rts_sysconf_msg, gen)), mac(" mac=", AT(rts_sysconf_msg, base_mac.octet)),
    dec(" macs=", AT(rts_sysconf_msg, mac_count)), items(" items=", AT(rts_sysconf_msg, items), &setting_line),
    string(" hostname=", AT(rts_sysconf_msg, hostname)),
};
constexpr format_line settings_line = line_of(settings_pieces, sizeof(struct rts_sysconf_msg));

constexpr format_piece commit_pieces[] = {
    dec("phase=", AT(rts_commit_msg, phase)), dec(" lrid=", AT(rts_commit_msg, lrid)),
    uns(" commit=", AT(rts_commit_msg, commit_seq)), hex(" flags=0x", AT(rts_commit_msg, flags)),
    uns(" timeout=", AT(rts_commit_msg, timeout_s)), uns(" error=", AT(rts_commit_msg, error)),
    uns(" proposal=", AT(rts_commit_msg, proposal)), words(" senders=", AT(rts_commit_msg, sender_ids)),
    string(" comment=", AT(rts_commit_msg, comment)),
};
constexpr format_line commit_line = line_of(commit_pieces, sizeof(struct rts_commit_msg));

constexpr format_piece marker_pieces[] = {
    uns("id=", AT(rts_marker_msg, marker_id)), hex(" cookie=0x", AT(rts_marker_msg, cookie)),
    dec(" phase=", AT(rts_marker_msg, phase)), hex(" flags=0x", AT(rts_marker_msg, flags)),
    string(" name=", AT(rts_marker_msg, name)),
};
constexpr format_line marker_line = line_of(marker_pieces, sizeof(struct rts_marker_msg));

/* --- cards and their state ------------------------------------------------------------------------------------- */

constexpr format_piece card_pieces[] = {
    dec("fpc=", AT(pic_msg, fpc_slot)), dec(" pic=", AT(pic_msg, pic_slot)), hex(" type=0x", AT(pic_msg, pic_type)),
    dec(" state=", AT(pic_msg, state)), hex(" flags=0x", AT(pic_msg, flags)), dec(" ports=", AT(pic_msg, port_count)),
    dec(" ifds=", AT(pic_msg, ifd_count)), dec(" gen=", AT(pic_msg, gen)),
    uns(" online=", AT(pic_msg, online_since.tv_sec)), string(" name=", AT(pic_msg, name)),
};
constexpr format_line card_line = line_of(card_pieces, sizeof(struct pic_msg));

constexpr format_piece sync_pieces[] = {
    named("state=", AT(ksync_msg, state), rtslib_format_hwmgr_issu_state),
    named(" peer=", AT(ksync_msg, peer_state), rtslib_format_hwmgr_issu_state),
    dec(" slot=", AT(ksync_msg, peer_slot)), uns(" version=", AT(ksync_msg, version)),
    uns("/", AT(ksync_msg, peer_version)), hex(" flags=0x", AT(ksync_msg, flags)), uns(" sent=", AT(ksync_msg, sent)),
    uns(" acked=", AT(ksync_msg, acknowledged)), uns(" error=", AT(ksync_msg, error)),
    uns(" changed=", AT(ksync_msg, changed_at.tv_sec)), string(" ", AT(ksync_msg, text)),
};
constexpr format_line sync_line = line_of(sync_pieces, sizeof(struct ksync_msg));

constexpr format_piece engine_pieces[] = {
    dec("fpc=", AT(pfe_dwn_map_entry, fpc_slot)), dec(" pfe=", AT(pfe_dwn_map_entry, pfe)),
    dec(" down=", AT(pfe_dwn_map_entry, down)),
};
constexpr format_line engine_line = line_of(engine_pieces, sizeof(struct pfe_dwn_map_entry));
constexpr format_piece engines_pieces[] = {
    hex("flags=0x", AT(pfe_dwn_map_msg_idl, flags)), dec(" gen=", AT(pfe_dwn_map_msg_idl, gen)),
    items(" pfes=", AT(pfe_dwn_map_msg_idl, entries), &engine_line),
};
constexpr format_line engines_line = line_of(engines_pieces, sizeof(struct pfe_dwn_map_msg_idl));

/* --- packets, protection, notices, statistics ------------------------------------------------------------------- */

constexpr format_piece inject_pieces[] = {
    named("", AT(pktinject_msg, af), rtslib_format_af), dec(" dir=", AT(pktinject_msg, direction)),
    dec(" tid=", AT(pktinject_msg, tid)), uns(" ifl=", AT(pktinject_msg, ifl_idx)),
    dec(" nhidx=", AT(pktinject_msg, nhidx)), hex(" flags=0x", AT(pktinject_msg, flags)),
    dec(" queue=", AT(pktinject_msg, queue)), dec(" loss-priority=", AT(pktinject_msg, loss_priority)),
    octets(" dest=", AT(pktinject_msg, destination)), uns(" packet=", AT(pktinject_msg, packet_len)),
};
constexpr format_line inject_line = line_of(inject_pieces, sizeof(struct pktinject_msg));

constexpr format_piece ddos_pieces[] = {
    dec("proto=", AT(ddos_msg, protocol)), dec(" kind=", AT(ddos_msg, packet_type)),
    uns(" bandwidth=", AT(ddos_msg, bandwidth)), uns(" burst=", AT(ddos_msg, burst)),
    dec(" priority=", AT(ddos_msg, priority)), dec(" state=", AT(ddos_msg, state)),
    hex(" flags=0x", AT(ddos_msg, flags)), dec(" fpc=", AT(ddos_msg, fpc_slot)),
    uns(" recover=", AT(ddos_msg, recover_s)), uns(" violations=", AT(ddos_msg, violations)),
    uns(" first=", AT(ddos_msg, first_violation.tv_sec)), uns(" last=", AT(ddos_msg, last_violation.tv_sec)),
    uns(" received=", AT(ddos_msg, counters.received.packets)),
    uns(" dropped=", AT(ddos_msg, counters.dropped.packets)), uns(" rate=", AT(ddos_msg, counters.arrival_rate)),
    uns(" peak=", AT(ddos_msg, counters.peak_rate)), string(" name=", AT(ddos_msg, name)),
};
constexpr format_line ddos_line = line_of(ddos_pieces, sizeof(struct ddos_msg));

constexpr format_piece notice_pieces[] = {
    uns("kind=", AT(notify_msg, kind)), uns(" code=", AT(notify_msg, code)), hex(" flags=0x", AT(notify_msg, flags)),
    named(" subject=", AT(notify_msg, subject_type), rtslib_format_rtm_type), uns(" idx=", AT(notify_msg, subject_idx)),
    uns(" at=", AT(notify_msg, happened_at.tv_sec)), words(" args=", AT(notify_msg, arguments)),
    string(" ", AT(notify_msg, text)),
};
constexpr format_line notice_line = line_of(notice_pieces, sizeof(struct notify_msg));

constexpr format_piece statistic_pieces[] = {
    uns("", AT(sysstats_entry, id)), uns("=", AT(sysstats_entry, value)), string(" ", AT(sysstats_entry, name)),
};
constexpr format_line statistic_line = line_of(statistic_pieces, sizeof(struct sysstats_entry));
constexpr format_piece statistics_pieces[] = {
    uns("kind=", AT(sysstats_msg, kind)), hex(" flags=0x", AT(sysstats_msg, flags)),
    uns(" at=", AT(sysstats_msg, taken_at.tv_sec)), uns(" booted=", AT(sysstats_msg, booted_at.tv_sec)),
    items(" ", AT(sysstats_msg, entries), &statistic_line),
};
constexpr format_line statistics_line = line_of(statistics_pieces, sizeof(struct sysstats_msg));

constexpr format_message messages[] = {
    { 41, &association_line, true }, { 48, &settings_line, false }, { 49, &commit_line, false },
    { 68, &card_line, false },       { 69, &sync_line, false },     { 72, &format_gencfg_line, false },
    { 81, &engines_line, false },    { 96, &inject_line, false },   { 97, &ddos_line, false },
    { 98, &notice_line, false },     { 101, &statistics_line, false }, { 102, &marker_line, false },
    { 109, &error_line, true },
};

}   // namespace

std::span<const format_message> format_system_messages(void)
{
    return messages;
}
