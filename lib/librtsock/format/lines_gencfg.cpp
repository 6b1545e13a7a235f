/*
 * The line of a configuration blob: what the kernel knows of it, and behind that the contents, by the printer of its
 * class.
 *
 * A printer is a row of class, kind, the type that the blob is encoded as, and a line over its record. A blob of
 * another class, and one that is compressed, tells its length alone.
 */
#include "lib/librtsock/format/gencfg_line.h"
#include "lib/librtsock/format/rtslib_format.h"
#include "lib/librtsock/rtslib_gencfg.h"

namespace {

/* --- class of service ------------------------------------------------------------------------------------------ */

constexpr format_piece class_pieces[] = {
    dec("id=", AT(cos_forwarding_class, id)), dec(" queue=", AT(cos_forwarding_class, queue)),
    dec(" fabric=", AT(cos_forwarding_class, fabric_priority)),
    dec(" policing=", AT(cos_forwarding_class, policing_priority)), dec(" no-loss=", AT(cos_forwarding_class, no_loss)),
    string(" name=", AT(cos_forwarding_class, name)),
};
constexpr format_line class_line = line_of(class_pieces, sizeof(struct cos_forwarding_class));
constexpr format_piece class_table_pieces[] = {
    dec("version=", AT(cos_forwarding_class_table, version)),
    items(" classes=", AT(cos_forwarding_class_table, classes), &class_line),
};
constexpr format_line class_table_line = line_of(class_table_pieces, sizeof(struct cos_forwarding_class_table));

constexpr format_piece scheduler_pieces[] = {
    uns("id=", AT(cos_scheduler, id)), uns(" rate=", AT(cos_scheduler, transmit_rate)),
    uns(" shaping=", AT(cos_scheduler, shaping_rate)), uns(" buffer=", AT(cos_scheduler, buffer_us)),
    dec("us ", AT(cos_scheduler, buffer_percent)), dec("% excess=", AT(cos_scheduler, excess_percent)),
    dec("% priority=", AT(cos_scheduler, priority)), dec("/", AT(cos_scheduler, excess_priority)),
    hex(" flags=0x", AT(cos_scheduler, flags)), words(" drop=", AT(cos_scheduler, drop_profiles)),
    string(" name=", AT(cos_scheduler, name)),
};
constexpr format_line scheduler_line = line_of(scheduler_pieces, sizeof(struct cos_scheduler));

constexpr format_piece map_entry_pieces[] = {
    dec("class=", AT(cos_scheduler_map_entry, forwarding_class)),
    uns(" scheduler=", AT(cos_scheduler_map_entry, scheduler)),
};
constexpr format_line map_entry_line = line_of(map_entry_pieces, sizeof(struct cos_scheduler_map_entry));
constexpr format_piece map_pieces[] = {
    uns("id=", AT(cos_scheduler_map, id)), items(" entries=", AT(cos_scheduler_map, entries), &map_entry_line),
    string(" name=", AT(cos_scheduler_map, name)),
};
constexpr format_line map_line = line_of(map_pieces, sizeof(struct cos_scheduler_map));

constexpr format_piece point_pieces[] = {
    dec("", AT(cos_drop_point, fill_percent)), dec("%:", AT(cos_drop_point, drop_percent)), literal("%"),
};
constexpr format_line point_line = line_of(point_pieces, sizeof(struct cos_drop_point));
constexpr format_piece drop_pieces[] = {
    uns("id=", AT(cos_drop_profile, id)), dec(" interpolate=", AT(cos_drop_profile, interpolate)),
    items(" points=", AT(cos_drop_profile, points), &point_line), string(" name=", AT(cos_drop_profile, name)),
};
constexpr format_line drop_line = line_of(drop_pieces, sizeof(struct cos_drop_profile));

constexpr format_piece profile_pieces[] = {
    uns("id=", AT(cos_traffic_control_profile, id)), uns(" shaping=", AT(cos_traffic_control_profile, shaping_rate)),
    uns(" guaranteed=", AT(cos_traffic_control_profile, guaranteed_rate)),
    uns(" excess=", AT(cos_traffic_control_profile, excess_rate)),
    uns(" burst=", AT(cos_traffic_control_profile, burst)),
    uns(" scheduler-map=", AT(cos_traffic_control_profile, scheduler_map)),
    hex(" flags=0x", AT(cos_traffic_control_profile, flags)), string(" name=", AT(cos_traffic_control_profile, name)),
};
constexpr format_line profile_line = line_of(profile_pieces, sizeof(struct cos_traffic_control_profile));

constexpr format_piece set_pieces[] = {
    dec("iflsetidx=", AT(cos_iflset_tc_profile_map, iflset_idx)),
    uns(" profile=", AT(cos_iflset_tc_profile_map, profile)),
    uns(" remaining=", AT(cos_iflset_tc_profile_map, remaining_profile)),
    words(" ifls=", AT(cos_iflset_tc_profile_map, ifl_idx_list)),
};
constexpr format_line set_line = line_of(set_pieces, sizeof(struct cos_iflset_tc_profile_map));

constexpr format_piece classifier_pieces[] = {
    uns("ifl=", AT(cos_ifl_classifier_map, ifl_idx)), dec(" type=", AT(cos_ifl_classifier_map, type)),
    named(" af=", AT(cos_ifl_classifier_map, af), rtslib_format_af),
    words(" classifiers=", AT(cos_ifl_classifier_map, classifiers)),
};
constexpr format_line classifier_line = line_of(classifier_pieces, sizeof(struct cos_ifl_classifier_map));

/* --- filters --------------------------------------------------------------------------------------------------- */

constexpr format_piece program_pieces[] = {
    dec("version=", AT(_dfw_filter_head, version)), named(" af=", AT(_dfw_filter_head, af), rtslib_format_af),
    dec(" kind=", AT(_dfw_filter_head, kind)), uns(" idx=", AT(_dfw_filter_head, idx)),
    uns(" length=", AT(_dfw_filter_head, length)), dec(" terms=", AT(_dfw_filter_head, terms)),
    dec(" counters=", AT(_dfw_filter_head, counters)), dec(" policers=", AT(_dfw_filter_head, policers)),
    hex(" flags=0x", AT(_dfw_filter_head, flags)),
};
constexpr format_line program_line = line_of(program_pieces, sizeof(struct _dfw_filter_head));

constexpr format_piece term_pieces[] = {
    dec("term=", AT(_dfw_term_head, number)), dec(" matches=", AT(_dfw_term_head, matches)),
    dec(" actions=", AT(_dfw_term_head, actions)), uns(" length=", AT(_dfw_term_head, length)),
    hex(" flags=0x", AT(_dfw_term_head, flags)),
};
constexpr format_line term_line = line_of(term_pieces, sizeof(struct _dfw_term_head));

constexpr format_piece counter_pieces[] = {
    uns("idx=", AT(_dfw_counter_head, idx)), dec(" kind=", AT(_dfw_counter_head, kind)),
};
constexpr format_line counter_line = line_of(counter_pieces, sizeof(struct _dfw_counter_head));

constexpr format_piece policer_pieces[] = {
    uns("idx=", AT(_dfw_policer_head, idx)), uns(" bandwidth=", AT(_dfw_policer_head, bandwidth)),
    uns(" burst=", AT(_dfw_policer_head, burst)), dec(" action=", AT(_dfw_policer_head, action)),
    hex(" flags=0x", AT(_dfw_policer_head, flags)),
};
constexpr format_line policer_line = line_of(policer_pieces, sizeof(struct _dfw_policer_head));

constexpr format_piece prefix_pieces[] = {
    named("", AT(_dfw_prefix, af), rtslib_format_af),
    prefix(" ", AT(_dfw_prefix, prefix), AT(_dfw_prefix, bits), AT(_dfw_prefix, af)),
};
constexpr format_line prefix_line = line_of(prefix_pieces, sizeof(struct _dfw_prefix));

constexpr format_piece key_pieces[] = {
    uns("idx=", AT(mcf_filter_key, idx)), named(" af=", AT(mcf_filter_key, af), rtslib_format_af),
    dec(" dir=", AT(mcf_filter_key, direction)), dec(" instance=", AT(mcf_filter_key, instance)),
};
constexpr format_line key_line = line_of(key_pieces, sizeof(struct mcf_filter_key));

constexpr format_piece data_pieces[] = {
    hex("flags=0x", AT(mcf_filter_data, flags)), uns(" priority=", AT(mcf_filter_data, priority)),
    uns(" program=", AT(mcf_filter_data, program_len)),
};
constexpr format_line data_line = line_of(data_pieces, sizeof(struct mcf_filter_data));

/* --- layer 2 and access ---------------------------------------------------------------------------------------- */

constexpr format_piece mac_pieces[] = {
    mac("", AT(l2al_mac_entry, mac)), dec(" vlan=", AT(l2al_mac_entry, vlan)), uns(" bd=", AT(l2al_mac_entry, bd_idx)),
    uns(" ifl=", AT(l2al_mac_entry, ifl_idx)), hex(" flags=0x", AT(l2al_mac_entry, flags)),
    uns(" age=", AT(l2al_mac_entry, age_s)),
};
constexpr format_line mac_line = line_of(mac_pieces, sizeof(struct l2al_mac_entry));
constexpr format_piece mac_table_pieces[] = {
    uns("bd=", AT(l2al_mac_table, bd_idx)), uns(" seq=", AT(l2al_mac_table, sequence)),
    items(" entries=", AT(l2al_mac_table, entries), &mac_line),
};
constexpr format_line mac_table_line = line_of(mac_table_pieces, sizeof(struct l2al_mac_table));

constexpr format_piece link_pieces[] = {
    dec("mru=", AT(uppp_link_options, mru)), hex(" auth=0x", AT(uppp_link_options, auth_protocol)),
    hex(" magic=0x", AT(uppp_link_options, magic)), dec(" pfc=", AT(uppp_link_options, protocol_compression)),
    dec(" acfc=", AT(uppp_link_options, address_compression)),
};
constexpr format_line link_line = line_of(link_pieces, sizeof(struct uppp_link_options));
constexpr format_piece session_pieces[] = {
    uns("ifl=", AT(uppp_session, ifl_idx)), dec(" session=", AT(uppp_session, session_id)),
    dec(" state=", AT(uppp_session, state)), record(" local=[", AT(uppp_session, local), &link_line),
    record("] peer=[", AT(uppp_session, peer), &link_line), string("] user=", AT(uppp_session, user)),
};
constexpr format_line session_line = line_of(session_pieces, sizeof(struct uppp_session));

constexpr format_piece global_pieces[] = {
    hex("flags=0x", AT(ancp_msg_global_cfg, flags)), uns(" keepalive=", AT(ancp_msg_global_cfg, keepalive_ms)),
    dec(" retries=", AT(ancp_msg_global_cfg, retries)), dec(" port=", AT(ancp_msg_global_cfg, port)),
    uns(" max=", AT(ancp_msg_global_cfg, max_subscribers)),
};
constexpr format_line global_line = line_of(global_pieces, sizeof(struct ancp_msg_global_cfg));
constexpr format_piece access_pieces[] = {
    uns("ifl=", AT(ancp_config_intf, ifl_idx)), hex(" flags=0x", AT(ancp_config_intf, flags)),
    dec(" vlan=", AT(ancp_config_intf, outer_vlan)), dec(".", AT(ancp_config_intf, inner_vlan)),
    string(" circuit=", AT(ancp_config_intf, circuit_id)),
};
constexpr format_line access_line = line_of(access_pieces, sizeof(struct ancp_config_intf));
constexpr format_piece subscriber_pieces[] = {
    uns("ifl=", AT(ancp_subscriber_info, ifl_idx)), dec(" state=", AT(ancp_subscriber_info, line_state)),
    dec(" type=", AT(ancp_subscriber_info, line_type)), uns(" up=", AT(ancp_subscriber_info, actual_up)),
    uns(" down=", AT(ancp_subscriber_info, actual_down)), uns(" max-up=", AT(ancp_subscriber_info, attainable_up)),
    uns(" max-down=", AT(ancp_subscriber_info, attainable_down)), hex(" flags=0x", AT(ancp_subscriber_info, flags)),
    string(" circuit=", AT(ancp_subscriber_info, circuit_id)), string(" remote=", AT(ancp_subscriber_info, remote_id)),
};
constexpr format_line subscriber_line = line_of(subscriber_pieces, sizeof(struct ancp_subscriber_info));

/* --- printers -------------------------------------------------------------------------------------------------- */

constexpr struct {
    uint16_t major, minor;
    const struct idl_type *type;
    const struct format_line *line;
} printers[] = {
    { 10, 0, &idl_type_cos_forwarding_class_table, &class_table_line },
    { 10, 1, &idl_type_cos_forwarding_class, &class_line },
    { 11, 1, &idl_type_cos_scheduler, &scheduler_line },
    { 12, 0, &idl_type_cos_scheduler_map, &map_line },
    { 13, 0, &idl_type_cos_drop_profile, &drop_line },
    { 14, 0, &idl_type_cos_traffic_control_profile, &profile_line },
    { 15, 2, &idl_type_cos_iflset_tc_profile_map, &set_line },
    { 16, 2, &idl_type_cos_ifl_classifier_map, &classifier_line },
    { 18, 3, &idl_type__dfw_policer_head, &policer_line },
    { 20, 0, &idl_type__dfw_filter_head, &program_line },
    { 20, 1, &idl_type__dfw_term_head, &term_line },
    { 20, 2, &idl_type__dfw_counter_head, &counter_line },
    { 23, 4, &idl_type_mcf_filter_key, &key_line },
    { 23, 5, &idl_type_mcf_filter_data, &data_line },
    { 24, 0, &idl_type__dfw_prefix, &prefix_line },
    { 43, 0, &idl_type_l2al_mac_table, &mac_table_line },
    { 43, 1, &idl_type_l2al_mac_entry, &mac_line },
    { 70, 0, &idl_type_ancp_msg_global_cfg, &global_line },
    { 70, 1, &idl_type_ancp_config_intf, &access_line },
    { 70, 2, &idl_type_ancp_subscriber_info, &subscriber_line },
    { 71, 2, &idl_type_uppp_session, &session_line },
    { 71, 3, &idl_type_uppp_link_options, &link_line },
};

void put_contents(struct format_out *out, const struct gencfg_msg *message)
{
    if ((message->flags & GENCFG_FLAG_COMPRESSED) != 0 || message->blob == nullptr || message->blob_len == 0)
        return;
    for (const auto &printer : printers) {
        if (printer.major != message->major || printer.minor != message->minor)
            continue;
        format_put(out, " ", 1);
        format_put_blob(out, printer.type, printer.line, message->blob, message->blob_len);
        return;
    }
}

void put_rest(struct format_out *out, const void *record)
{
    const auto *message = static_cast<const struct gencfg_msg *>(record);
    format_put_string(out, rtslib_gencfg_format_minortype(message->major, message->minor));
    format_put(out, "(", 1);
    format_put_unsigned(out, message->minor);
    format_put(out, ")", 1);
    static constexpr format_piece pieces[] = {
        dec(" aux=", AT(gencfg_msg, aux)), hex(" flags=0x", AT(gencfg_msg, flags)),
        uns(" id=", AT(gencfg_msg, object_id)), uns(" peers=", AT(gencfg_msg, peers_len)),
        octets(" key=", AT(gencfg_msg, key)), uns(" deps=", AT(gencfg_msg, dep_len)),
        uns(" blob=", AT(gencfg_msg, blob_len)),
    };
    static constexpr format_line line = line_of(pieces, sizeof(struct gencfg_msg));
    format_put_line(out, &line, message);
    put_contents(out, message);
}

constexpr format_piece pieces_in_front[] = {
    named("", AT(gencfg_msg, major), rtslib_gencfg_format_majortype), dec("(", AT(gencfg_msg, major)), literal(") "),
};

}   // namespace

const struct format_line format_gencfg_line = line_of(pieces_in_front, sizeof(struct gencfg_msg), put_rest);
