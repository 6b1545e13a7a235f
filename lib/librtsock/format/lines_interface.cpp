/*
 * Lines of interfaces: devices, logical interfaces, families, addresses, circuits, and their alarms and statistics.
 */
#include "lib/librtsock/format/line.h"
#include "lib/librtsock/format/rtslib_format.h"
#include "lib/librtsock/format/rtslib_format_raw.h"

namespace {

constexpr format_piece device_pieces[] = {
    string("", AT(ifdev_msg, name)),
    dec(" mtu=", AT(ifdev_msg, mtu)),
    hex(" dflags=0x", AT(ifdev_msg, dflags)),
    hex(" flags=0x", AT(ifdev_msg, flags)),
    hex(" sflags=0x", AT(ifdev_msg, sflags)),
    dec(" idx=", AT(ifdev_msg, idx)),
    uns(", ifm_speed=", AT(ifdev_msg, ifm_speed)),
    uns(", ifm_config_speed=", AT(ifdev_msg, ifm_config_speed)),
    dec(",  gen=", AT(ifdev_msg, gen)),
    dec(", i2c-id=", AT(ifdev_msg, i2c_id)),
    dec(", ifm-hw-qs=", AT(ifdev_msg, ifm_hw_qs)),
    dec(", ifm-use-max-qs=", AT(ifdev_msg, ifm_use_max_qs)),
    dec(", ifm-flags=", AT(ifdev_msg, ifm_flags)),
    hex(", linkflags ", AT(ifdev_msg, linkflags)),
    hex(", priv_flags ", AT(ifdev_msg, priv_flags)),
    uns("  snmpid=", AT(ifdev_msg, snmpid)),
    dec(", hier-levels=", AT(ifdev_msg, hier_levels)),
    dec(", l2-count=", AT(ifdev_msg, l2_count)),
    dec(", l3-count=", AT(ifdev_msg, l3_count)),
};
constexpr format_line device_line = line_in_own_order(device_pieces, sizeof(struct ifdev_msg));

/* The same by lines under the name, and what the one line has no room for. */
constexpr format_piece device_full_pieces[] = {
    string("", AT(ifdev_msg, name)),
    dec("\n  idx=", AT(ifdev_msg, idx)),
    uns(" snmpid=", AT(ifdev_msg, snmpid)),
    hex(" change=0x", AT(ifdev_msg, change)),
    hex("\n  flags=0x", AT(ifdev_msg, flags)),
    hex(" dflags=0x", AT(ifdev_msg, dflags)),
    hex(" sflags=0x", AT(ifdev_msg, sflags)),
    hex(" ifm-flags=0x", AT(ifdev_msg, ifm_flags)),
    hex(" linkflags=0x", AT(ifdev_msg, linkflags)),
    hex(" priv_flags=0x", AT(ifdev_msg, priv_flags)),
    dec("\n  mtu=", AT(ifdev_msg, mtu)),
    uns(" ifm_speed=", AT(ifdev_msg, ifm_speed)),
    uns(" ifm_config_speed=", AT(ifdev_msg, ifm_config_speed)),
    dec(" gen=", AT(ifdev_msg, gen)),
    dec(" i2c-id=", AT(ifdev_msg, i2c_id)),
    dec("\n  ifm-hw-qs=", AT(ifdev_msg, ifm_hw_qs)),
    dec(" ifm-use-max-qs=", AT(ifdev_msg, ifm_use_max_qs)),
    dec(" hier-levels=", AT(ifdev_msg, hier_levels)),
    dec(" l2-count=", AT(ifdev_msg, l2_count)),
    dec(" l3-count=", AT(ifdev_msg, l3_count)),
    dec(" media=", AT(ifdev_msg, media)),
    dec(" fpc=", AT(ifdev_msg, fpc_slot)),
    octets("\n  addr=", AT(ifdev_msg, addr)),
    octets(" hw-addr=", AT(ifdev_msg, hw_addr)),
    octets(" alt-addr=", AT(ifdev_msg, alt_addr)),
    literal("\n"),
};

constexpr format_piece logical_pieces[] = {
    string("", AT(ifl_msg, name)),
    uns(".", AT(ifl_msg, unit)),
    hex(" flags=0x", AT(ifl_msg, flags)),
    uns(" idx=", AT(ifl_msg, ifl_idx)),
    dec(", gen=", AT(ifl_msg, gen)),
    dec(" lr=", AT(ifl_msg, lrid)),
    uns(", pifd=", AT(ifl_msg, ifd_idx)),
    uns(", uidx=", AT(ifl_msg, parent_idx)),
    hex(", privf=0x", AT(ifl_msg, privflags)),
    uns(" snmpid=", AT(ifl_msg, snmpid)),
    dec(", iflsetidx=", AT(ifl_msg, iflsetidx)),
    named(", ifl_type=", AT(ifl_msg, ifl_type), format_layer),
    dec(" tenant=", AT(ifl_msg, tenant)),
};
constexpr format_line logical_line = line_in_own_order(logical_pieces, sizeof(struct ifl_msg));

/* --- families -------------------------------------------------------------------------------------------------- */

constexpr format_piece neighbor_pieces[] = {
    hex("nbr-id=0x", AT(ifftlv_neighbor, nbr_id)), dec(" vc-id=", AT(ifftlv_neighbor, vc_id)), literal(" "),
};
constexpr format_piece neighbor_addr_pieces[] = {
    hex("nbr-addr=0x", AT(ifftlv_neighbor_addr, nbr_addr)), literal(" "),
};
constexpr format_line neighbor_line = line_of(neighbor_pieces, sizeof(struct ifftlv_neighbor));
constexpr format_line neighbor_addr_line = line_of(neighbor_addr_pieces, sizeof(struct ifftlv_neighbor_addr));
// In this order, whatever the message's is.
constexpr format_item neighbor_items[] = { { 0x5000001, &neighbor_line, false } };
constexpr format_item neighbor_addr_items[] = { { 0x5000002, &neighbor_addr_line, false } };

constexpr format_piece family_tail_pieces[] = {
    hex("flags=0x", AT(iff_msg, flags)),
    uns(" iflidx=", AT(iff_msg, ifl_idx)),
    uns(" subunit=", AT(iff_msg, subunit)),
    dec(", gen=", AT(iff_msg, gen)),
    dec(" tbl=", AT(iff_msg, tid)),
    named(" , iff_type=", AT(iff_msg, iff_type), format_layer),
    literal(" "),
};
constexpr format_line family_tail = line_in_own_order(family_tail_pieces, sizeof(struct iff_msg));

/* Filters of one direction, in the form that tables print theirs. */
void put_filter_list(struct format_out *out, const void *record)
{
    const auto *filters = static_cast<const struct iff_filters *>(record);
    format_put_filters(out, filters->filters, filters->filters_len);
}
constexpr format_piece filters_pieces[] = {
    dec("", AT(iff_filters, primary)), dec(",", AT(iff_filters, simple)), literal("] list ["),
};
constexpr format_line filters_line = line_of(filters_pieces, sizeof(struct iff_filters), put_filter_list);
constexpr format_piece family_filters_pieces[] = {
    record("i-ftf [", AT(iff_msg, input_filters), &filters_line),
    record(" o-ftf [", AT(iff_msg, output_filters), &filters_line),
    literal(" impl-i-ftf ["),
};
constexpr format_line family_filters = line_of(family_filters_pieces, sizeof(struct iff_msg));

constexpr format_piece apply_pieces[] = {
    dec("dir=", AT(iffi_apply_info, direction)), dec(" kind=", AT(iffi_apply_info, kind)),
    dec(" prec=", AT(iffi_apply_info, precedence)), uns(" idx=", AT(iffi_apply_info, idx)),
    hex(" flags=0x", AT(iffi_apply_info, flags)),
};
constexpr format_line apply_line = line_of(apply_pieces, sizeof(struct iffi_apply_info));
constexpr format_piece apply_blob_pieces[] = { items(" apply ", AT(iffi_apply_info_blob, entries), &apply_line) };
constexpr format_line apply_blob_line = line_of(apply_blob_pieces, sizeof(struct iffi_apply_info_blob));

void put_apply_blob(struct format_out *out, const void *member)
{
    const auto *item = static_cast<const struct ifftlv_apply_info *>(member);
    format_put_blob(out, &idl_type_iffi_apply_info_blob, &apply_blob_line, item->blob, item->blob_len);
}

constexpr format_piece donor_pieces[] = { uns(" donor=", AT(ifftlv_donor, ifl_idx)) };
constexpr format_piece list_pieces[] = {
    dec(" list dir=", AT(ifftlv_filter_list, direction)), words(" ", AT(ifftlv_filter_list, filters)),
};
constexpr format_piece rpf_pieces[] = {
    uns(" RPF:[rpf_chk ", AT(ifftlv_rpf, chk)), uns(" feasible ", AT(ifftlv_rpf, feasible_paths)),
    uns(" fltrid ", AT(ifftlv_rpf, fail_filter)), literal("]"),
};
constexpr format_piece policers_pieces[] = {
    dec(" policers [", AT(ifftlv_policers, input)), dec(",", AT(ifftlv_policers, output)),
    dec(",", AT(ifftlv_policers, arp)), literal("]"),
};
constexpr format_piece limit_pieces[] = {
    uns(" mac-limit=", AT(ifftlv_mac_limit, limit)), dec(" action=", AT(ifftlv_mac_limit, action)),
};
constexpr format_piece sampling_pieces[] = {
    dec(" sampling [", AT(ifftlv_sampling, input)), dec(",", AT(ifftlv_sampling, output)),
    dec("] instance=", AT(ifftlv_sampling, instance)),
};
constexpr format_line donor_line = line_of(donor_pieces, sizeof(struct ifftlv_donor));
constexpr format_line apply_item_line = { nullptr, 0, sizeof(struct ifftlv_apply_info), put_apply_blob };
constexpr format_line list_line = line_of(list_pieces, sizeof(struct ifftlv_filter_list));
constexpr format_line rpf_line = line_of(rpf_pieces, sizeof(struct ifftlv_rpf));
constexpr format_line policers_line = line_of(policers_pieces, sizeof(struct ifftlv_policers));
constexpr format_line limit_line = line_of(limit_pieces, sizeof(struct ifftlv_mac_limit));
constexpr format_line sampling_line = line_of(sampling_pieces, sizeof(struct ifftlv_sampling));
constexpr format_item family_items[] = {
    { 183, &donor_line, false },          { 0x5000003, &apply_item_line, false }, { 0x5000004, &list_line, false },
    { 0x5000005, &rpf_line, false },      { 0x5000006, &policers_line, false },   { 0x5000007, &limit_line, false },
    { 0x5000008, &sampling_line, false },
};

void put_family_rest(struct format_out *out, const void *record)
{
    const auto *family = static_cast<const struct iff_msg *>(record);
    format_put_items(out, &family->rts_hdr, neighbor_items);
    format_put_items(out, &family->rts_hdr, neighbor_addr_items);
    format_put_line(out, &family_tail, family);
    format_put_line(out, &family_filters, family);
    format_put_filters(out, family->implicit_filters, family->implicit_filters_len);
    format_put_items(out, &family->rts_hdr, family_items);
}

constexpr format_piece family_pieces[] = {
    named("", AT(iff_msg, af), rtslib_format_af), dec(" mtu=", AT(iff_msg, mtu)), literal(" "),
};
constexpr format_line family_line = line_of(family_pieces, sizeof(struct iff_msg), put_family_rest);

/* --- addresses ------------------------------------------------------------------------------------------------- */

constexpr format_piece address_pieces[] = {
    named("", AT(ifa_msg, af), rtslib_format_af),
    prefix(" local=", AT(ifa_msg, local), AT(ifa_msg, local_bits), AT(ifa_msg, af)),
    prefix(" dest=", AT(ifa_msg, dest), AT(ifa_msg, dest_bits), AT(ifa_msg, af)),
    uns(" idx=", AT(ifa_msg, ifl_idx)),
    dec(", gen=", AT(ifa_msg, gen)),
    hex(", flag=0x", AT(ifa_msg, flag)),
};
constexpr format_line address_line = line_in_own_order(address_pieces, sizeof(struct ifa_msg));

constexpr format_piece destination_pieces[] = {
    uns("idx=", AT(ifdest_msg, ifl_idx)), named(" af=", AT(ifdest_msg, af), rtslib_format_af),
    hex(", flags=0x", AT(ifdest_msg, flags)), dec(", gen=", AT(ifdest_msg, gen)), dec(" nhidx=", AT(ifdest_msg, nhidx)),
    prefix(" dest=", AT(ifdest_msg, dest), AT(ifdest_msg, dest_bits), AT(ifdest_msg, af)),
    octets(" hw=", AT(ifdest_msg, hw_addr)),
};
constexpr format_line destination_line = line_of(destination_pieces, sizeof(struct ifdest_msg));

/* --- circuits -------------------------------------------------------------------------------------------------- */

constexpr format_piece circuit_pieces[] = {
    uns("idx=", AT(ifvc_msg, ifl_idx)), uns(" unit=", AT(ifvc_msg, unit)), dec(" vpi=", AT(ifvc_msg, vpi)),
    dec(" vci=", AT(ifvc_msg, vci)), uns(" dlci=", AT(ifvc_msg, dlci)), hex(" flags=0x", AT(ifvc_msg, flags)),
    dec(" gen=", AT(ifvc_msg, gen)), dec(" state=", AT(ifvc_msg, state)), dec(" encaps=", AT(ifvc_msg, encapsulation)),
    uns(" peak=", AT(ifvc_msg, peak_rate)), uns(" sustained=", AT(ifvc_msg, sustained_rate)),
    uns(" burst=", AT(ifvc_msg, burst)), uns(" queue=", AT(ifvc_msg, queue_length)),
    string(" name=", AT(ifvc_msg, name)),
};
constexpr format_line circuit_line = line_of(circuit_pieces, sizeof(struct ifvc_msg));

constexpr format_piece path_pieces[] = {
    dec("idx=", AT(ifvp_msg, ifd_idx)), dec(" vpi=", AT(ifvp_msg, vpi)), hex(" flags=0x", AT(ifvp_msg, flags)),
    dec(" gen=", AT(ifvp_msg, gen)), dec(" state=", AT(ifvp_msg, state)), dec(" class=", AT(ifvp_msg, traffic_class)),
    uns(" peak=", AT(ifvp_msg, peak_rate)), uns(" sustained=", AT(ifvp_msg, sustained_rate)),
    uns(" burst=", AT(ifvp_msg, burst)), dec(" max_vcs=", AT(ifvp_msg, max_vcs)),
    dec(" oam_period=", AT(ifvp_msg, oam_period_s)), string(" name=", AT(ifvp_msg, name)),
};
constexpr format_line path_line = line_of(path_pieces, sizeof(struct ifvp_msg));

/* --- statistics and alarms ------------------------------------------------------------------------------------- */

constexpr format_piece device_stats_pieces[] = {
    uns("ifdidx=", AT(ifdstats_raw, idx)), uns(", txpkts=", AT(ifdstats_raw, counters.out_packets)),
    uns(" rxpkts=", AT(ifdstats_raw, counters.in_packets)),
};
constexpr format_line device_stats_line = line_in_own_order(device_stats_pieces, sizeof(struct ifdstats_raw));

constexpr format_piece logical_stats_pieces[] = {
    uns("iflidx=", AT(iflstats_raw, idx)), uns(", txpkts=", AT(iflstats_raw, counters.out_packets)),
    uns(" rxpkts=", AT(iflstats_raw, counters.in_packets)),
};
constexpr format_line logical_stats_line = line_in_own_order(logical_stats_pieces, sizeof(struct iflstats_raw));

constexpr format_piece family_stats_pieces[] = {
    uns("iflidx=", AT(iffstats_raw, ifl_idx)), named(" af=", AT(iffstats_raw, af), rtslib_format_af),
    uns(", pkts=", AT(iffstats_raw, packets)), uns(" octets=", AT(iffstats_raw, octets)),
};
constexpr format_line family_stats_line = line_of(family_stats_pieces, sizeof(struct iffstats_raw));

constexpr format_piece alarm_pieces[] = {
    chars("name=", AT(alarm_raw, name)), dec(" idx=", AT(alarm_raw, idx)), hex(" alarms=0x", AT(alarm_raw, alarms)),
    hex(" mask=0x", AT(alarm_raw, mask)), dec(" type=", AT(alarm_raw, type)),
};
constexpr format_line alarm_line = line_of(alarm_pieces, sizeof(struct alarm_raw));

constexpr format_message messages[] = {
    { 5, &device_line, false },       { 6, &logical_line, false },      { 7, &family_line, false },
    { 8, &address_line, false },      { 15, &device_stats_line, true }, { 16, &logical_stats_line, true },
    { 18, &destination_line, false }, { 20, &alarm_line, true },        { 27, &circuit_line, false },
    { 46, &path_line, false },        { 70, &family_stats_line, true },
};

}   // namespace

const struct format_line format_device_full_line = line_in_own_order(device_full_pieces, sizeof(struct ifdev_msg));

std::span<const format_message> format_interface_messages(void)
{
    return messages;
}
