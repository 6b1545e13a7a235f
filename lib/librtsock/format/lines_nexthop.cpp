/*
 * Lines of next hops: their statistics, and composites, which print what they share and then each of their forms by
 * its name.
 */
#include "lib/librtsock/format/line.h"
#include "lib/librtsock/format/rtslib_format.h"
#include "lib/librtsock/format/value_names.h"

#include <iterator>

namespace {

constexpr format_piece counter_pieces[] = {
    uns("nhidx=", AT(rnhs_counter, nhidx)), uns(" ifidx=", AT(rnhs_counter, ifidx)),
    uns(" pkts=", AT(rnhs_counter, packets)), uns(" octets=", AT(rnhs_counter, octets)),
};
constexpr format_line counter_line = line_of(counter_pieces, sizeof(struct rnhs_counter));
constexpr format_piece stats_pieces[] = {
    named("", AT(rnhs_msg, af), rtslib_format_af),
    named(" nh=", AT(rnhs_msg, key_type), rtslib_format_nexthop_type),
    uns(" key=", AT(rnhs_msg, key_word1)), uns(":", AT(rnhs_msg, key_word2)),
    sockaddr_at(" addr=", AT(rnhs_msg, addr)), words(" labels=", AT(rnhs_msg, labels)),
    items(" counters=", AT(rnhs_msg, counters), &counter_line),
};
constexpr format_line stats_line = line_of(stats_pieces, sizeof(struct rnhs_msg));

/* --- forms of composites --------------------------------------------------------------------------------------- */

constexpr format_piece flood_pieces[] = {
    uns("bd=", AT(nh_flood, bd_idx)), dec(" mesh=", AT(nh_flood, mesh_group)), hex(" flags=0x", AT(nh_flood, flags)),
    words(" ifidx=", AT(nh_flood, ifidx_list)),
};
constexpr format_piece chain_pieces[] = {
    uns("nhidx=", AT(nh_chain, nhidx)), uns(" label=", AT(nh_chain, label)),
    dec(" op=", AT(nh_chain, label_operation)), dec(" ttl=", AT(nh_chain, ttl_action)),
};
constexpr format_piece multicast_pieces[] = {
    uns("iif=", AT(nh_multicast, iif_ifidx)), hex(" flags=0x", AT(nh_multicast, flags)),
    words(" oif=", AT(nh_multicast, oif_ifidx_list)),
};
constexpr format_piece flabel_pieces[] = {
    uns("flabel=", AT(nh_dcf_flabel, flabel)), uns(" destination=", AT(nh_dcf_flabel, destination)),
};
constexpr format_piece protection_pieces[] = {
    uns("primary=", AT(nh_protection, primary_nhidx)), uns(" backup=", AT(nh_protection, backup_nhidx)),
    uns(" session=", AT(nh_protection, session_id)), dec(" active=", AT(nh_protection, active)),
};
constexpr format_piece p2mp_pieces[] = {
    uns("tunnel=", AT(nh_p2mp, tunnel_id)), hex(" root=0x", AT(nh_p2mp, root)),
    words(" branches=", AT(nh_p2mp, branch_nhidx_list)),
};
constexpr format_piece balance_pieces[] = {
    named("", AT(nh_load_balance, lb_attr), rtslib_format_lb_attr),
    hex(" seed=0x", AT(nh_load_balance, hash_seed)), words(" weights=", AT(nh_load_balance, weights)),
};
constexpr format_piece rewrite_pieces[] = {
    hex("ethertype=0x", AT(nh_packet_rewrite, ethertype)), dec(" offset=", AT(nh_packet_rewrite, offset)),
    octets(" header=", AT(nh_packet_rewrite, header)),
};
constexpr format_piece anchor_pieces[] = {
    uns("fpc=", AT(nh_anchor, fpc)), uns(" pfe=", AT(nh_anchor, pfe)), uns(" nhidx=", AT(nh_anchor, nhidx)),
};

const char *tunnel_name(int kind)
{
    static constexpr const char *names[] = {
        "tunnel", "GRE-V4", "GRE-V6", "VXLAN", "SR-V6", "IPv4-over-IPv6", "UDP-V4", "IP-over-IPv4", "BIER",
        "SR-V6-PLUS", "SR-V6-SID", "tunnel",
    };
    return format_name_of(names, kind);
}

constexpr format_piece segment_pieces[] = {
    hex("", AT(in6_addr_idl, s6_word_0)), hex(".", AT(in6_addr_idl, s6_word_1)),
    hex(".", AT(in6_addr_idl, s6_word_2)), hex(".", AT(in6_addr_idl, s6_word_3)),
};
constexpr format_line segment_line = line_of(segment_pieces, sizeof(struct in6_addr_idl));
constexpr format_piece tunnel_pieces[] = {
    named("", AT(nh_tunnel, kind), tunnel_name), named(" af=", AT(nh_tunnel, af), rtslib_format_af),
    dec(" ttl=", AT(nh_tunnel, ttl)), dec(" tos=", AT(nh_tunnel, tos)), dec(" tid=", AT(nh_tunnel, tid)),
    dec(" port=", AT(nh_tunnel, port)), uns(" key=", AT(nh_tunnel, key)), octets(" source=", AT(nh_tunnel, source)),
    octets(" destination=", AT(nh_tunnel, destination)),
    items(" segments=", AT(nh_tunnel, segments), &segment_line),
};

constexpr format_line flood_line = line_of(flood_pieces, sizeof(struct nh_flood));
constexpr format_line chain_line = line_of(chain_pieces, sizeof(struct nh_chain));
constexpr format_line multicast_line = line_of(multicast_pieces, sizeof(struct nh_multicast));
constexpr format_line flabel_line = line_of(flabel_pieces, sizeof(struct nh_dcf_flabel));
constexpr format_line protection_line = line_of(protection_pieces, sizeof(struct nh_protection));
constexpr format_line p2mp_line = line_of(p2mp_pieces, sizeof(struct nh_p2mp));
constexpr format_line balance_line = line_of(balance_pieces, sizeof(struct nh_load_balance));
constexpr format_line rewrite_line = line_of(rewrite_pieces, sizeof(struct nh_packet_rewrite));
constexpr format_line anchor_line = line_of(anchor_pieces, sizeof(struct nh_anchor));
constexpr format_line tunnel_line = line_of(tunnel_pieces, sizeof(struct nh_tunnel));

/* A tunnel has a name of its own for each kind. */
constexpr struct {
    const char *name;
    const struct format_line *line;
} forms[] = {
    { "Flood ", &flood_line },         { "D-fdist ", &flood_line },       { "D-SH ", &flood_line },
    { "Chain ", &chain_line },         { "multicast ", &multicast_line }, { "DCF Flabel ", &flabel_line },
    { "Protection ", &protection_line }, { "P2MP ", &p2mp_line },         { "Load Balance ", &balance_line },
    { "Packet Rewrite ", &rewrite_line }, { "Anchor ", &anchor_line },    { "", &tunnel_line },
};

/* Members are numbered from 1. */
void put_form(struct format_out *out, const struct rnhc_form *form)
{
    format_put(out, "[", 1);
    if (form->tag >= 1 && form->tag <= std::size(forms)) {
        format_put_string(out, forms[form->tag - 1].name);
        format_put_line(out, forms[form->tag - 1].line, &form->u);
    } else {
        format_put_string(out, "form ");
        format_put_unsigned(out, form->tag);
    }
    format_put_string(out, "] ");
}

void put_forms(struct format_out *out, const void *record)
{
    const auto *composite = static_cast<const struct rnhc_msg *>(record);
    uint32_t count = composite->forms != nullptr ? composite->forms_len : 0;
    for (uint32_t i = 0; i < count && out->at != nullptr; i++)
        put_form(out, &composite->forms[i]);
}

constexpr format_piece composite_pieces[] = {
    named("nh=", AT(rnhc_msg, nh), rtslib_format_nexthop_type), dec(" idx=", AT(rnhc_msg, idx)),
    uns(" refcnt=", AT(rnhc_msg, refcnt)), named(", af=", AT(rnhc_msg, af), rtslib_format_af),
    uns(", tid=", AT(rnhc_msg, tid)), uns(" hw_token=", AT(rnhc_msg, hw_token)),
    uns(" subnh=", AT(rnhc_msg, subnh)), literal(" "),
};
constexpr format_line composite_line = line_in_own_order(composite_pieces, sizeof(struct rnhc_msg), put_forms);

constexpr format_message messages[] = {
    { 21, &stats_line, false },
    { 83, &composite_line, false },
};

}   // namespace

std::span<const format_message> format_nexthop_messages(void)
{
    return messages;
}
