/*
 * Prints lines: for each row its text, and the field as the row says.
 *
 * A record is believed as far as its counts go; a raw layout has no pointers. Lists end where the output is full, so
 * that the work is bounded by the buffer and not by the message.
 */
#include "lib/librtsock/format/line.h"
#include "lib/librtsock/format/address.h"
#include "lib/librtsock/format/rtslib_format.h"

#include <string.h>

#include <algorithm>

namespace {

template <typename T> T load(const void *record, size_t offset)
{
    T value;
    memcpy(&value, static_cast<const uint8_t *>(record) + offset, sizeof value);
    return value;
}

uint64_t load_integer(const void *record, const struct format_piece &piece)
{
    switch (piece.size) {
    case sizeof(uint8_t):
        return load<uint8_t>(record, piece.at);
    case sizeof(uint16_t):
        return load<uint16_t>(record, piece.at);
    case sizeof(uint32_t):
        return load<uint32_t>(record, piece.at);
    default:
        return load<uint64_t>(record, piece.at);
    }
}

/* What a pointer and its count lead to. */
struct list {
    const uint8_t *at;
    uint32_t count;
};

list load_list(const void *record, const struct format_piece &piece)
{
    list l = { load<const uint8_t *>(record, piece.at), load<uint32_t>(record, piece.at + sizeof(void *)) };
    if (l.at == nullptr)
        l.count = 0;
    return l;
}

void put_signed(struct format_out *out, const struct format_piece &piece, uint64_t value)
{
    format_put_dec(out, piece.size == sizeof(uint32_t) ? int32_t(uint32_t(value)) : int64_t(value));
}

void put_words(struct format_out *out, const list &l)
{
    format_put(out, "[", 1);
    for (uint32_t i = 0; i < l.count && out->at != nullptr; i++) {
        if (i > 0)
            format_put(out, " ", 1);
        format_put_unsigned(out, load<uint32_t>(l.at, i * sizeof(uint32_t)));
    }
    format_put(out, "]", 1);
}

void put_items(struct format_out *out, const list &l, const struct format_line *line)
{
    format_put(out, "[", 1);
    for (uint32_t i = 0; i < l.count && out->at != nullptr; i++) {
        if (i > 0)
            format_put_string(out, "; ");
        format_put_line(out, line, l.at + i * line->size);
    }
    format_put(out, "]", 1);
}

void put_prefix(struct format_out *out, const void *record, const struct format_piece &piece, const list &l)
{
    format_put_prefix(out, l.at, l.count, load<uint16_t>(record, piece.bits), load<uint8_t>(record, piece.af),
                      RTSLIB_FORM_FAMILY);
}

void put_field(struct format_out *out, const void *record, const struct format_piece &piece)
{
    const auto *at = static_cast<const uint8_t *>(record) + piece.at;
    switch (piece.how) {
    case FORMAT_LITERAL:
        return;
    case FORMAT_DEC:
        return put_signed(out, piece, load_integer(record, piece));
    case FORMAT_UNSIGNED:
        return format_put_unsigned(out, load_integer(record, piece));
    case FORMAT_HEX:
        return format_put_hex(out, load_integer(record, piece));
    case FORMAT_NAME:
        return format_put_string(out, piece.name(int(std::min<uint64_t>(load_integer(record, piece), INT32_MAX))));
    case FORMAT_CHARS:
        return format_put_foreign(out, reinterpret_cast<const char *>(at), piece.size);
    case FORMAT_MAC:
        return format_put_octets(out, at, piece.size, ":");
    case FORMAT_RECORD:
        return format_put_line(out, piece.line, at);
    default:
        break;
    }
    const list l = load_list(record, piece);
    if (piece.how == FORMAT_STRING)
        format_put_foreign(out, reinterpret_cast<const char *>(l.at), l.count);
    else if (piece.how == FORMAT_OCTETS)
        format_put_octets(out, l.at, l.count, "");
    else if (piece.how == FORMAT_WORDS)
        put_words(out, l);
    else if (piece.how == FORMAT_ITEMS)
        put_items(out, l, piece.line);
    else if (piece.how == FORMAT_PREFIX)
        put_prefix(out, record, piece, l);
    else
        format_put_sockaddr(out, l.at, l.count, false);
}

}   // namespace

void format_put_line(struct format_out *out, const struct format_line *line, const void *record)
{
    for (size_t i = 0; i < line->count && out->at != nullptr; i++) {
        const struct format_piece &piece = line->pieces[i];
        format_put(out, piece.text.data(), piece.text.size());
        put_field(out, record, piece);
    }
    if (line->more != nullptr && out->at != nullptr)
        line->more(out, record);
}

const char *format_layer(int type)
{
    if ((type & 1) != 0)
        return "L2";
    return (type & 2) != 0 ? "L3" : "default";
}

void format_put_filters(struct format_out *out, const uint32_t *filters, uint32_t count)
{
    const uint32_t most = 4;
    count = filters != nullptr ? std::min(count, most) : 0;
    for (uint32_t i = 0; i < count; i++) {
        format_put_unsigned(out, filters[i]);
        format_put(out, " ", 1);
    }
    format_put_string(out, count == 0 ? "none]" : "]");
}

bool format_put_item(struct format_out *out, uint32_t tag, const void *member, std::span<const format_item> rows)
{
    for (const format_item &row : rows) {
        if (row.tag != tag)
            continue;
        format_put_line(out, row.line, member);
        return !row.last;
    }
    return true;
}

bool format_put_items(struct format_out *out, const struct rts_hdr *header, std::span<const format_item> rows)
{
    bool more = true;
    uint32_t count = header->rtsh_info != nullptr ? header->rtsh_info_len : 0;
    for (uint32_t i = 0; i < count && more && out->at != nullptr; i++) {
        const struct rts_msg_info *item = header->rtsh_info[i];
        if (item != nullptr)
            more = format_put_item(out, item->tag, &item->u, rows);
    }
    return more;
}
