/*
 * Whole messages: the head that all but the socket's statistics have, the line of the type, and a line end.
 *
 * The line of a type is found by its number. A type that has a record is printed from that; the layout of another is
 * filled from the octets of the message first, so that a short message reads as zeroes and not as what lies behind it.
 */
#include "lib/librtsock/format/line.h"
#include "lib/librtsock/format/raw.h"
#include "lib/librtsock/format/rtslib_format.h"
#include "lib/librtsock/format/rtslib_format_raw.h"
#include "lib/librtsock/format/rtsm.h"

#include <array>

namespace {

static_assert(offsetof(struct rts_hdr, rtsh_type) == offsetof(struct rts_raw_hdr, type) &&
              offsetof(struct rts_hdr, rtsh_sender) == offsetof(struct rts_raw_hdr, sender) &&
              offsetof(struct rts_hdr, rtsh_creator) == offsetof(struct rts_raw_hdr, creator));

enum {
    TYPE_SOCKET_STATS = 26,
    TYPE_IFSTATE = 47,
    TYPE_IFSCLIM = 85,
    IFSTATE_SCRATCH = 514,
    FLAG_TEXT = 60,
    NAME_COLUMN = 10,
    FLAG_COLUMN = 4,
    OP_COLUMN = 8,
    RAW_MAX = 512,
};

/* --- the head -------------------------------------------------------------------------------------------------- */

struct flag_row {
    uint8_t bit;
    const char *text;
};
/* Of each piece the first row whose bit is set. */
constexpr flag_row scope_flags[] = { { 0x10, "ANY" }, { 0x01, "L" }, { 0x04, "CL" } };
constexpr flag_row state_flags[] = { { 0x80, "I" }, { 0x02, "V" }, { 0x20, "E" } };
constexpr flag_row hold_flags[] = { { 0x40, "H" } };

const char *flag_name(std::span<const flag_row> rows, uint8_t flag, const char *otherwise)
{
    for (const flag_row &row : rows) {
        if ((flag & row.bit) != 0)
            return row.text;
    }
    return otherwise;
}

int bounded(uint32_t value)
{
    return int(std::min<uint32_t>(value, INT32_MAX));
}

void put_head(struct format_out *out, const struct rts_raw_hdr &header)
{
    char flags[FLAG_TEXT];
    struct format_out text = format_out_open(flags, sizeof flags);
    format_put_string(&text, flag_name(scope_flags, header.flag, "P"));
    format_put_string(&text, flag_name(state_flags, header.flag, ""));
    format_put_string(&text, flag_name(hold_flags, header.flag, ""));
    format_put_column(out, rtslib_format_msg_sender_id(bounded(header.sender)), NAME_COLUMN);
    format_put(out, " ", 1);
    format_put_column(out, rtslib_format_msg_sender_id(header.creator), NAME_COLUMN);
    format_put(out, " ", 1);
    format_put_column(out, flags, FLAG_COLUMN);
    format_put(out, " ", 1);
    format_put_column(out, rtslib_format_rtm_type(header.type), NAME_COLUMN);
    format_put(out, " ", 1);
    // Kept on purpose: the line follows without a space, so behind an operation of eight letters they stand together.
    format_put_column(out, rtslib_format_op(header.op), OP_COLUMN);
}

/* --- lines ----------------------------------------------------------------------------------------------------- */

using message_table = std::array<const format_message *, RTSLIB_TYPES>;

message_table tables_by_type(void)
{
    message_table by_type = {};
    for (auto messages : { format_route_messages(), format_nexthop_messages(), format_interface_messages(),
                           format_layer2_messages(), format_cos_messages(), format_system_messages() }) {
        for (const format_message &message : messages)
            by_type[message.type] = &message;
    }
    return by_type;
}

/* What does not fit into the scratch is cut there, and the line goes on. */
void put_ifstate(struct format_out *out, const void *message, int mode)
{
    char scratch[IFSTATE_SCRATCH];
    (void)rtslib_ifsm_print(message, scratch, sizeof scratch, mode);
    format_put_string(out, scratch);
}

void put_ifsclim(struct format_out *out, const void *message)
{
    char scratch[IFSTATE_SCRATCH];
    (void)rtslib_ifsclim_print(message, scratch, sizeof scratch);
    format_put_string(out, scratch);
}

void put_raw_line(struct format_out *out, const struct format_line *line, const void *message)
{
    struct layout {
        alignas(uint64_t) uint8_t octets[RAW_MAX];
    };
    const auto whole = format_raw_of<layout>(message);
    format_put_line(out, line, &whole);
}

void put_body(struct format_out *out, uint8_t type, int mode, const void *message)
{
    const struct format_message *row = format_find_message(type);
    if (type == TYPE_IFSTATE)
        put_ifstate(out, message, mode);
    else if (type == TYPE_IFSCLIM)
        put_ifsclim(out, message);
    else if (row != nullptr && row->raw)
        put_raw_line(out, row->line, message);
    else if (row != nullptr)
        format_put_line(out, row->line, message);
}

int report(struct rtslib_cookie *cookie, const char *text)
{
    rtslib_err(cookie, RTSLIB_WARNING, "%s", text);
    return -1;
}

}   // namespace

const struct format_message *format_find_message(uint8_t type)
{
    static const message_table by_type = tables_by_type();
    return type < RTSLIB_TYPES ? by_type[type] : nullptr;
}

const char *rtslib_brief_output_header(void)
{
    return "sender   creator  flag    type       op ";
}

int rtslib_format_output(struct rtslib_cookie *cookie, char *buffer, size_t size, int mode, const void *message)
{
    struct format_out out = format_out_open(buffer, size);
    struct rts_raw_hdr header;
    memcpy(&header, message, sizeof header);
    const char *start = out.at;
    if (header.type == TYPE_SOCKET_STATS)
        format_put_socket_stats(&out, message);
    else
        put_head(&out, header);
    if (format_out_fits(&out) && header.type != TYPE_SOCKET_STATS)
        put_body(&out, header.type, mode, message);
    if (out.at != start)
        format_put(&out, "\n", 1);
    return format_out_fits(&out) ? 0 : report(cookie, "output brief buffer too small for format!\n");
}

int rtslib_format_brief_output(struct rtslib_cookie *cookie, char *buffer, const void *message)
{
    return rtslib_format_output(cookie, buffer, RTSLIB_FORMAT_BRIEF_SIZE, RTSLIB_FORMAT_MODE_BRIEF, message);
}

void rtslib_print_msg_to_file(struct rtslib_cookie *cookie, FILE *stream, int mode, const void *message)
{
    if (stream == nullptr || message == nullptr)
        return;
    char buffer[RTSLIB_FORMAT_FULL_SIZE];
    int result = rtslib_format_output(cookie, buffer, sizeof buffer, mode, message);
    if (result == 0) {
        fputs(buffer, stream);
    } else {
        char room[FLAG_TEXT];
        fprintf(stream, "rtslib_format_output error: %s\n", strerror_r(result, room, sizeof room));
    }
    fflush(stream);
}

int rtslib_ifdm_format_full_output(struct rtslib_cookie *cookie, char *buffer, const void *message)
{
    struct format_out out = format_out_open(buffer, RTSLIB_FORMAT_FULL_SIZE);
    format_put_line(&out, &format_device_full_line, message);
    return format_out_fits(&out) ? 0 : report(cookie, "output full buffer too small for format!\n");
}
