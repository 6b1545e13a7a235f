/*
 * Lines of routing tables, routes and what is asked about them, and of filters and the tables of their names.
 *
 * The numbers of the types are those that lines have always been printed under; where the record of a type lacks what
 * the line says, 0 or nothing stands there.
 */
#include "lib/librtsock/format/line.h"
#include "lib/librtsock/format/rtslib_format.h"
#include "lib/librtsock/rtslib_raw.h"

namespace {

/* --- routing tables -------------------------------------------------------------------------------------------- */

constexpr format_piece ext_pr_flags_pieces[] = { hex(" ext_pr_flags=0x", AT(rtb_ext_pr_flags, ext_pr_flags)) };
constexpr format_piece fwd_inst_pieces[] = {
    uns(" fwd_inst_tbl_id=", AT(rtb_fwd_inst, fwd_inst_tbl_id)),
    uns(" fwd_inst_cfg_id=", AT(rtb_fwd_inst, fwd_inst_cfg_id)),
};
constexpr format_piece service_type_pieces[] = { uns(" service_type=", AT(rtb_service_type, service_type)) };
constexpr format_piece rpf_pieces[] = {
    uns(" RPF:[rpf_chk ", AT(rttable_rpf, rpf_chk)), uns(" mode ", AT(rttable_rpf, mode)),
    uns(" fltrid ", AT(rttable_rpf, fltrid)), literal("]"),
};
constexpr format_line ext_pr_flags_line = line_of(ext_pr_flags_pieces, sizeof(struct rtb_ext_pr_flags));
constexpr format_line fwd_inst_line = line_of(fwd_inst_pieces, sizeof(struct rtb_fwd_inst));
constexpr format_line service_type_line = line_of(service_type_pieces, sizeof(struct rtb_service_type));
constexpr format_line rpf_line = line_of(rpf_pieces, sizeof(struct rttable_rpf));
constexpr format_item table_items[] = {
    { 101, &ext_pr_flags_line, false },
    { 102, &fwd_inst_line, false },
    { 103, &service_type_line, false },
    { 30, &rpf_line, true },
};

/* Filters and items. A kernel may put the items into the header or into the body. */
void put_table_rest(struct format_out *out, const void *record)
{
    const auto *table = static_cast<const struct rtb_msg *>(record);
    format_put_filters(out, table->implicit_filters, table->implicit_filters_len);
    bool more = format_put_items(out, &table->rts_hdr, table_items);
    uint32_t count = table->tlvs != nullptr ? table->tlvs_len : 0;
    for (uint32_t i = 0; i < count && more && out->at != nullptr; i++)
        more = format_put_item(out, table->tlvs[i].tag, &table->tlvs[i].u, table_items);
}

constexpr format_piece table_pieces[] = {
    named("", AT(rtb_msg, af), rtslib_format_af),
    string(" name=", AT(rtb_msg, name)),
    dec(" tid=", AT(rtb_msg, tid)),
    string(" lrname=", AT(rtb_msg, lrname)),
    dec(" lrid=", AT(rtb_msg, lrid)),
    dec(" tenant=", AT(rtb_msg, tenant)),
    hex(" prflags 0x", AT(rtb_msg, prflags)),
    dec(" i-ftf [", AT(rtb_msg, aux_word2)),
    dec(",", AT(rtb_msg, input_filter2)),
    dec("] o-ftf [", AT(rtb_msg, output_filter)),
    dec(",", AT(rtb_msg, output_filter2)),
    literal("] impl-i-ftf ["),
};
constexpr format_line table_line = line_in_own_order(table_pieces, sizeof(struct rtb_msg), put_table_rest);

/* --- routes ---------------------------------------------------------------------------------------------------- */

enum {
    FLAG_REQ_ACK = 2,             // of the header
    OPAQUE_INFO = 9,              // opaque_marker: opaque is an rt_opaque_info
    ITEM_OAM = 0x1000001,
    ITEM_SERVICE_GROUP = 0x1000002,
};

constexpr format_piece opaque_pieces[] = {
    uns("opaque=", AT(rt_opaque_info, opaque_type)), uns(":", AT(rt_opaque_info, opaque_word)),
};
constexpr format_line opaque_line = line_of(opaque_pieces, sizeof(struct rt_opaque_info));
constexpr format_piece oam_pieces[] = { uns(" oam-id ", AT(rt_oam, oam_id)), literal("\n") };
constexpr format_line oam_line = line_of(oam_pieces, sizeof(struct rt_oam));
constexpr format_piece group_pieces[] = { uns(" sgid = ", AT(rt_service_group, sgid)), literal("\n") };
constexpr format_line group_line = line_of(group_pieces, sizeof(struct rt_service_group));
constexpr format_item oam_items[] = { { ITEM_OAM, &oam_line, true } };
constexpr format_item group_items[] = { { ITEM_SERVICE_GROUP, &group_line, true } };

constexpr format_piece route_tail_pieces[] = {
    dec(" rt_mcast_nhiflist=", AT(rt_msg, rt_mcast_nhiflist)),
    hex(" dflags 0x", AT(rt_msg, dflags)),
};
constexpr format_line route_tail = line_in_own_order(route_tail_pieces, sizeof(struct rt_msg));

/* A route tells of the two in fields of its own or, from a kernel that has none, in items. */
void put_route_rest(struct format_out *out, const void *record)
{
    const auto *route = static_cast<const struct rt_msg *>(record);
    if (route->opaque_marker == OPAQUE_INFO && route->opaque != nullptr)
        format_put_blob(out, &idl_type_rt_opaque_info, &opaque_line, route->opaque, route->opaque_len);
    format_put_line(out, &route_tail, route);
    if ((route->rts_hdr.rtsh_flag & FLAG_REQ_ACK) != 0)
        format_put_string(out, " req_ack");
    const struct rt_oam oam = { route->oam_id };
    const struct rt_service_group group = { route->sgid };
    if (oam.oam_id != 0)
        format_put_line(out, &oam_line, &oam);
    else
        format_put_items(out, &route->rts_hdr, oam_items);
    if (group.sgid != 0)
        format_put_line(out, &group_line, &group);
    else
        format_put_items(out, &route->rts_hdr, group_items);
}

constexpr format_piece route_pieces[] = {
    named("", AT(rt_msg, af), rtslib_format_af),
    prefix(" ", AT(rt_msg, prefix), AT(rt_msg, prefix_bits), AT(rt_msg, af)),
    dec(" tid=", AT(rt_msg, tid)),
    dec(" plen=", AT(rt_msg, prefix_bits)),
    named(" type=", AT(rt_msg, rt_type), rtslib_format_route_type),
    hex(" flags=0x", AT(rt_msg, rt_flags)),
    named(" nh=", AT(rt_msg, nh_type), rtslib_format_nexthop_type),
    hex(" nhflags=0x", AT(rt_msg, nh_flags)),
    dec(" nhidx=", AT(rt_msg, nhidx)),
    dec(" rt_nhiflist = ", AT(rt_msg, rt_nhiflist)),
    dec(" altfwdnhidx=", AT(rt_msg, altfwdnhidx)),
    dec(" filtidx=", AT(rt_msg, filtidx)),
    dec(" lr_id = ", AT(rt_msg, lr_id)),
    dec(" featureid=", AT(rt_msg, featureid)),
    string(" ", AT(rt_msg, ifname)),
    literal(" "),
};
constexpr format_line route_line = line_in_own_order(route_pieces, sizeof(struct rt_msg), put_route_rest);

constexpr format_piece route_stats_pieces[] = {
    dec("tid=", AT(rtstats_raw, tid)),
    named(" af=", AT(rtstats_raw, af), rtslib_format_af),
    dec(" plen=", AT(rtstats_raw, prefix_bits)),
};
constexpr format_line route_stats_line = line_of(route_stats_pieces, sizeof(struct rtstats_raw));

/* --- matches and groups ---------------------------------------------------------------------------------------- */

constexpr format_piece nexthop_match_pieces[] = {
    dec("af ", AT(rnh_msg, af)), dec(" tid ", AT(rnh_msg, tid)), string(" group ", AT(rnh_msg, group)),
    dec(" nhidx ", AT(rnh_msg, idx)),
};
constexpr format_line nexthop_match_line = line_in_own_order(nexthop_match_pieces, sizeof(struct rnh_msg));

constexpr format_piece group_match_pieces[] = {
    dec("af ", AT(mgr_msg, af)), dec(" tid ", AT(mgr_msg, tid)),
    prefix(" group ", AT(mgr_msg, prefix), AT(mgr_msg, prefix_bits), AT(mgr_msg, af)),
    dec(" nhidx ", AT(mgr_msg, nhidx)),
};
constexpr format_line group_match_line = line_in_own_order(group_match_pieces, sizeof(struct mgr_msg));

constexpr format_piece match_pieces[] = {
    dec("tid=", AT(rtm_msg, tid)), named(" af=", AT(rtm_msg, af), rtslib_format_af),
    named(" type=", AT(rtm_msg, rt_type), rtslib_format_route_type),
    named(" nh=", AT(rtm_msg, nh_type), rtslib_format_nexthop_type), hex(" flags=0x", AT(rtm_msg, rt_flags)),
    dec(" nhidx=", AT(rtm_msg, nhidx)), dec(" ifidx=", AT(rtm_msg, ifidx)),
    prefix(" prefix=", AT(rtm_msg, prefix), AT(rtm_msg, prefix_bits), AT(rtm_msg, af)),
};
constexpr format_line match_line = line_of(match_pieces, sizeof(struct rtm_msg));

constexpr format_piece resolve_pieces[] = {
    dec("tid=", AT(res_msg_evo, tid)), named(" af=", AT(res_msg_evo, af), rtslib_format_af),
    dec(" reason=", AT(res_msg_evo, reason)), uns(" ifidx=", AT(res_msg_evo, ifidx)),
    dec(" nhidx=", AT(res_msg_evo, nhidx)), uns(" expected=", AT(res_msg_evo, expected_ifidx)),
    uns(" bd=", AT(res_msg_evo, bd_idx)),
    prefix(" prefix=", AT(res_msg_evo, prefix), AT(res_msg_evo, prefix_bits), AT(res_msg_evo, af)),
    octets(" source=", AT(res_msg_evo, source)), octets(" destination=", AT(res_msg_evo, destination)),
    uns(" packet=", AT(res_msg_evo, packet_len)),
};
constexpr format_line resolve_line = line_of(resolve_pieces, sizeof(struct res_msg_evo));

constexpr format_piece segment_pieces[] = {
    dec("kind=", AT(rr_aspath_segment, kind)), words(" as=", AT(rr_aspath_segment, as_numbers)),
};
constexpr format_line segment_line = line_of(segment_pieces, sizeof(struct rr_aspath_segment));
constexpr format_piece aspath_pieces[] = {
    uns("idx=", AT(rr_aspath_msg, idx)), uns(" refcnt=", AT(rr_aspath_msg, refcnt)),
    dec(" origin=", AT(rr_aspath_msg, origin)), hex(" flags=0x", AT(rr_aspath_msg, flags)),
    uns(" peer_as=", AT(rr_aspath_msg, peer_as)), items(" path=", AT(rr_aspath_msg, segments), &segment_line),
    words(" communities=", AT(rr_aspath_msg, communities)),
};
constexpr format_line aspath_line = line_of(aspath_pieces, sizeof(struct rr_aspath_msg));

/* --- filters --------------------------------------------------------------------------------------------------- */

constexpr format_piece filter_pieces[] = {
    string("name=", AT(dfw_msg, name)), dec(" af=", AT(dfw_msg, af)), dec(" idx=", AT(dfw_msg, idx)),
    dec(" fulllen=", AT(dfw_msg, fulllen)),
};
constexpr format_line filter_line = line_in_own_order(filter_pieces, sizeof(struct dfw_msg));

constexpr format_piece name_pieces[] = { uns("", AT(ntbl_entry, id)), string("=", AT(ntbl_entry, name)) };
constexpr format_line name_line = line_of(name_pieces, sizeof(struct ntbl_entry));
constexpr format_piece name_table_pieces[] = {
    dec("af=", AT(ntbl_msg, af)), dec(" idx=", AT(ntbl_msg, idx)), dec(" fulllen=", AT(ntbl_msg, fulllen)),
    dec(" offset=", AT(ntbl_msg, offset)), hex(" flags=0x", AT(ntbl_msg, flags)), string(" name=", AT(ntbl_msg, name)),
    items(" entries=", AT(ntbl_msg, entries), &name_line),
};
constexpr format_line name_table_line = line_of(name_table_pieces, sizeof(struct ntbl_msg));

constexpr format_piece sample_pieces[] = {
    named("", AT(sample_msg, af), rtslib_format_af), dec(" instance=", AT(sample_msg, instance)),
    uns(" rate=", AT(sample_msg, rate)), uns(" run=", AT(sample_msg, run_length)),
    uns(" max_pps=", AT(sample_msg, max_packets_s)), uns(" max_octets=", AT(sample_msg, max_octets)),
    hex(" flags=0x", AT(sample_msg, flags)), uns(" ifidx=", AT(sample_msg, ifidx)),
    string(" name=", AT(sample_msg, name)),
};
constexpr format_line sample_line = line_of(sample_pieces, sizeof(struct sample_msg));

constexpr format_message messages[] = {
    { 1, &table_line, false },       { 2, &route_line, false },      { 4, &route_stats_line, true },
    { 10, &nexthop_match_line, false }, { 11, &resolve_line, false }, { 12, &match_line, false },
    { 13, &group_match_line, false }, { 14, &filter_line, false },   { 19, &resolve_line, false },
    { 28, &name_table_line, false }, { 40, &sample_line, false },    { 108, &aspath_line, false },
};

}   // namespace

std::span<const format_message> format_route_messages(void)
{
    return messages;
}
