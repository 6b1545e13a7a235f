/*
 * Lines of class of service: policers and shapers, queue statistics, classes, rules, interfaces.
 */
#include "lib/librtsock/format/line.h"
#include "lib/librtsock/format/rtslib_format.h"
#include "lib/librtsock/format/rtslib_format_raw.h"

namespace {

constexpr format_piece rate_pieces[] = {
    uns("ifl=", AT(cos_rate_raw, ifl)), uns(", bandwidth=", AT(cos_rate_raw, bandwidth)),
    uns(", burst=", AT(cos_rate_raw, burst)),
};
constexpr format_line rate_line = line_of(rate_pieces, sizeof(struct cos_rate_raw));

constexpr format_piece queue_pieces[] = {
    dec("queue=", AT(rt_cos_queue_stats, queue)), dec(" priority=", AT(rt_cos_queue_stats, priority)),
    uns(" queued=", AT(rt_cos_queue_stats, queued.packets)), uns(" sent=", AT(rt_cos_queue_stats, sent.packets)),
    uns(" tail-dropped=", AT(rt_cos_queue_stats, tail_dropped.packets)),
    uns(" red-dropped=", AT(rt_cos_queue_stats, red_dropped.packets)), uns(" depth=", AT(rt_cos_queue_stats, depth)),
    uns(" peak=", AT(rt_cos_queue_stats, peak_depth)),
};
constexpr format_line queue_line = line_of(queue_pieces, sizeof(struct rt_cos_queue_stats));

constexpr format_piece fabric_pieces[] = {
    dec("fpc=", AT(rt_cos_fqstats_msg, fpc_slot)), dec(" dest=", AT(rt_cos_fqstats_msg, destination_slot)),
    uns(" idx=", AT(rt_cos_fqstats_msg, idx)), hex(" flags=0x", AT(rt_cos_fqstats_msg, flags)),
    uns(" at=", AT(rt_cos_fqstats_msg, taken_at.tv_sec)),
    items(" queues=", AT(rt_cos_fqstats_msg, queues), &queue_line),
};
constexpr format_line fabric_line = line_of(fabric_pieces, sizeof(struct rt_cos_fqstats_msg));

constexpr format_piece virtual_pieces[] = {
    dec("fpc=", AT(rt_cos_voqstats_msg, source_fpc)), dec(" pfe=", AT(rt_cos_voqstats_msg, source_pfe)),
    uns(" ifd=", AT(rt_cos_voqstats_msg, ifd_idx)), uns(" ifl=", AT(rt_cos_voqstats_msg, ifl_idx)),
    hex(" flags=0x", AT(rt_cos_voqstats_msg, flags)), uns(" at=", AT(rt_cos_voqstats_msg, taken_at.tv_sec)),
    items(" queues=", AT(rt_cos_voqstats_msg, queues), &queue_line),
};
constexpr format_line virtual_line = line_of(virtual_pieces, sizeof(struct rt_cos_voqstats_msg));

constexpr format_piece class_pieces[] = {
    dec("id=", AT(rt_cos_fc, id)), dec(" queue=", AT(rt_cos_fc, queue)),
    dec(" fabric=", AT(rt_cos_fc, fabric_priority)), dec(" no-loss=", AT(rt_cos_fc, no_loss)),
    string(" name=", AT(rt_cos_fc, name)),
};
constexpr format_line class_line = line_of(class_pieces, sizeof(struct rt_cos_fc));
constexpr format_piece classes_pieces[] = {
    dec("queues=", AT(rt_cos_fc_info, queues)), hex(" flags=0x", AT(rt_cos_fc_info, flags)),
    items(" classes=", AT(rt_cos_fc_info, classes), &class_line),
};
constexpr format_line classes_line = line_of(classes_pieces, sizeof(struct rt_cos_fc_info));

constexpr format_piece rule_pieces[] = {
    dec("class=", AT(rt_cos_rule, class_id)), dec(" loss-priority=", AT(rt_cos_rule, loss_priority)),
    dec(" code-point=", AT(rt_cos_rule, code_point)), hex(" flags=0x", AT(rt_cos_rule, flags)),
};
constexpr format_line rule_line = line_of(rule_pieces, sizeof(struct rt_cos_rule));
constexpr format_piece rules_pieces[] = {
    named("type=", AT(rt_cos_misc_info, type), rtslib_format_cos_type),
    named(" af=", AT(rt_cos_misc_info, af), rtslib_format_af), uns(" idx=", AT(rt_cos_misc_info, idx)),
    hex(" flags=0x", AT(rt_cos_misc_info, flags)), items(" rules=", AT(rt_cos_misc_info, rules), &rule_line),
    string(" name=", AT(rt_cos_misc_info, name)),
};
constexpr format_line rules_line = line_of(rules_pieces, sizeof(struct rt_cos_misc_info));

constexpr format_piece interface_pieces[] = {
    uns("ifd=", AT(rt_cos_interface_info, ifd_idx)), uns(" ifl=", AT(rt_cos_interface_info, ifl_idx)),
    dec(" iflsetidx=", AT(rt_cos_interface_info, iflsetidx)),
    uns(" scheduler-map=", AT(rt_cos_interface_info, scheduler_map)),
    uns(" profile=", AT(rt_cos_interface_info, traffic_profile)),
    uns(" shaping=", AT(rt_cos_interface_info, shaping_rate)),
    uns(" guaranteed=", AT(rt_cos_interface_info, guaranteed_rate)), uns(" burst=", AT(rt_cos_interface_info, burst)),
    hex(" flags=0x", AT(rt_cos_interface_info, flags)), words(" classifiers=", AT(rt_cos_interface_info, classifiers)),
    words(" rewrite=", AT(rt_cos_interface_info, rewrite_rules)), string(" name=", AT(rt_cos_interface_info, name)),
};
constexpr format_line interface_line = line_of(interface_pieces, sizeof(struct rt_cos_interface_info));

constexpr format_message messages[] = {
    { 33, &fabric_line, false },   { 38, &rate_line, true },   { 39, &rate_line, true },
    { 95, &virtual_line, false },  { 105, &classes_line, false }, { 106, &rules_line, false },
    { 107, &interface_line, false },
};

}   // namespace

std::span<const format_message> format_cos_messages(void)
{
    return messages;
}
