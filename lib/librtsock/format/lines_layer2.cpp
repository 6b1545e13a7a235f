/*
 * Lines of layer 2: spanning tree, VLANs, mesh groups, bridge domains, fabrics, analyzers.
 */
#include "lib/librtsock/format/line.h"

namespace {

constexpr format_piece stp_port_pieces[] = {
    uns("ifl=", AT(stp_port, ifl_idx)), dec(" state=", AT(stp_port, state)), dec(" role=", AT(stp_port, role)),
    hex(" flags=0x", AT(stp_port, flags)),
};
constexpr format_line stp_port_line = line_of(stp_port_pieces, sizeof(struct stp_port));
constexpr format_piece stp_pieces[] = {
    uns("idx=", AT(stp_msg, idx)), dec(" tid=", AT(stp_msg, tid)), dec(" msti=", AT(stp_msg, msti)),
    dec(" proto=", AT(stp_msg, protocol)), hex(" flags=0x", AT(stp_msg, flags)), dec(" gen=", AT(stp_msg, gen)),
    words(" vlans=", AT(stp_msg, vlans)), items(" ports=", AT(stp_msg, ports), &stp_port_line),
    string(" name=", AT(stp_msg, name)),
};
constexpr format_line stp_line = line_of(stp_pieces, sizeof(struct stp_msg));

constexpr format_piece member_pieces[] = {
    uns("ifl=", AT(vlan_member, ifl_idx)), dec(" tagged=", AT(vlan_member, tagged)),
    dec(" native=", AT(vlan_member, native)), hex(" flags=0x", AT(vlan_member, flags)),
};
constexpr format_line member_line = line_of(member_pieces, sizeof(struct vlan_member));
constexpr format_piece vlan_pieces[] = {
    uns("idx=", AT(vlan_msg, idx)), dec(" vlan=", AT(vlan_msg, vlan_id)), dec(" tid=", AT(vlan_msg, tid)),
    hex(" flags=0x", AT(vlan_msg, flags)), dec(" gen=", AT(vlan_msg, gen)), uns(" l3-ifl=", AT(vlan_msg, l3_ifl_idx)),
    uns(" stp=", AT(vlan_msg, stp_idx)), dec(" i-ftf=", AT(vlan_msg, input_filter)),
    dec(" o-ftf=", AT(vlan_msg, output_filter)), uns(" mac-limit=", AT(vlan_msg, mac_limit)),
    uns(" aging=", AT(vlan_msg, aging_s)), uns(" flood-nh=", AT(vlan_msg, flood_nhidx)),
    items(" members=", AT(vlan_msg, members), &member_line), string(" name=", AT(vlan_msg, name)),
};
constexpr format_line vlan_line = line_of(vlan_pieces, sizeof(struct vlan_msg));

constexpr format_piece mesh_pieces[] = {
    uns("idx=", AT(mesh_group_msg, idx)), uns(" bd=", AT(mesh_group_msg, bd_idx)),
    dec(" tid=", AT(mesh_group_msg, tid)), dec(" kind=", AT(mesh_group_msg, kind)),
    hex(" flags=0x", AT(mesh_group_msg, flags)), dec(" gen=", AT(mesh_group_msg, gen)),
    uns(" flood-nh=", AT(mesh_group_msg, flood_nhidx)), words(" ifidx=", AT(mesh_group_msg, ifidx_list)),
    string(" name=", AT(mesh_group_msg, name)),
};
constexpr format_line mesh_line = line_of(mesh_pieces, sizeof(struct mesh_group_msg));

constexpr format_piece bridge_pieces[] = {
    uns("bd=", AT(bd_msg, bd_idx)), dec(" tid=", AT(bd_msg, tid)), dec(" vlan=", AT(bd_msg, vlan)),
    dec(" inner=", AT(bd_msg, inner_vlan)), dec(" kind=", AT(bd_msg, kind)), hex(" flags=0x", AT(bd_msg, flags)),
    dec(" gen=", AT(bd_msg, gen)), uns(" stp=", AT(bd_msg, stp_idx)), uns(" irb=", AT(bd_msg, irb_ifl_idx)),
    dec(" i-ftf=", AT(bd_msg, input_filter)), dec(" o-ftf=", AT(bd_msg, output_filter)),
    uns(" mac-limit=", AT(bd_msg, mac_limit)), uns(" aging=", AT(bd_msg, aging_s)),
    uns(" flood-nh=", AT(bd_msg, flood_nhidx)), uns(" vni=", AT(bd_msg, vni)), mac(" mac=", AT(bd_msg, mac.octet)),
    words(" vlans=", AT(bd_msg, vlans)), string(" name=", AT(bd_msg, name)),
};
constexpr format_line bridge_line = line_of(bridge_pieces, sizeof(struct bd_msg));

constexpr format_piece bridge_port_pieces[] = {
    uns("ifl=", AT(ifbd_msg, ifl_idx)), uns(" bd=", AT(ifbd_msg, bd_idx)), hex(" flags=0x", AT(ifbd_msg, flags)),
    dec(" gen=", AT(ifbd_msg, gen)), dec(" vlan=", AT(ifbd_msg, vlan)), dec(" inner=", AT(ifbd_msg, inner_vlan)),
    dec(" mesh=", AT(ifbd_msg, mesh_group)), dec(" stp-state=", AT(ifbd_msg, stp_state)),
    dec(" learning=", AT(ifbd_msg, learning)), uns(" mac-limit=", AT(ifbd_msg, mac_limit)),
    uns(" stp=", AT(ifbd_msg, stp_idx)), dec(" nhidx=", AT(ifbd_msg, nhidx)), words(" vlans=", AT(ifbd_msg, vlans)),
};
constexpr format_line bridge_port_line = line_of(bridge_port_pieces, sizeof(struct ifbd_msg));

constexpr format_piece fabric_group_pieces[] = {
    uns("idx=", AT(fmgrp_msg, idx)), uns(" group=", AT(fmgrp_msg, group)), dec(" kind=", AT(fmgrp_msg, kind)),
    hex(" flags=0x", AT(fmgrp_msg, flags)), uns(" refcnt=", AT(fmgrp_msg, refcnt)),
    words(" mask=", AT(fmgrp_msg, destination_mask)),
};
constexpr format_line fabric_group_line = line_of(fabric_group_pieces, sizeof(struct fmgrp_msg));

constexpr format_piece fibre_pieces[] = {
    uns("idx=", AT(fc_fabric_msg, idx)), dec(" fabric=", AT(fc_fabric_msg, fabric_id)),
    dec(" vlan=", AT(fc_fabric_msg, vlan)),
    dec(" kind=", AT(fc_fabric_msg, kind)), hex(" flags=0x", AT(fc_fabric_msg, flags)),
    dec(" gen=", AT(fc_fabric_msg, gen)), mac(" fc-map=", AT(fc_fabric_msg, fc_map)),
    dec(" priority=", AT(fc_fabric_msg, priority)), uns(" keepalive=", AT(fc_fabric_msg, keepalive_ms)),
    words(" ifidx=", AT(fc_fabric_msg, ifidx_list)), string(" name=", AT(fc_fabric_msg, name)),
};
constexpr format_line fibre_line = line_of(fibre_pieces, sizeof(struct fc_fabric_msg));

constexpr format_piece analyzer_pieces[] = {
    uns("idx=", AT(analyzer_msg, idx)), uns(" ratio=", AT(analyzer_msg, ratio)),
    dec(" loss-priority=", AT(analyzer_msg, loss_priority)), hex(" flags=0x", AT(analyzer_msg, flags)),
    uns(" o-ifl=", AT(analyzer_msg, output_ifl_idx)), uns(" o-vlan=", AT(analyzer_msg, output_vlan_idx)),
    uns(" o-nh=", AT(analyzer_msg, output_nhidx)), words(" ingress=", AT(analyzer_msg, ingress_ifidx_list)),
    words(" egress=", AT(analyzer_msg, egress_ifidx_list)), words(" vlans=", AT(analyzer_msg, vlan_idx_list)),
    string(" name=", AT(analyzer_msg, name)),
};
constexpr format_line analyzer_line = line_of(analyzer_pieces, sizeof(struct analyzer_msg));

constexpr format_message messages[] = {
    { 82, &stp_line, false },         { 84, &vlan_line, false },         { 87, &mesh_line, false },
    { 88, &analyzer_line, false },    { 89, &bridge_line, false },       { 90, &bridge_port_line, false },
    { 93, &fabric_group_line, false }, { 94, &fibre_line, false },
};

}   // namespace

std::span<const format_message> format_layer2_messages(void)
{
    return messages;
}
