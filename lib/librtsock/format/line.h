/*
 * Lines: the words of a message type as rows of text, field, and how the field is printed. Internal to the rendering.
 *
 *   constexpr format_piece pieces[] = {
 *       named("", AT(rt_msg, af), rtslib_format_af),
 *       dec(" tid=", AT(rt_msg, tid)),
 *   };
 *   constexpr format_line route_line = line_in_own_order(pieces, sizeof(struct rt_msg));
 *
 * A row whose field is of the wrong kind does not compile. Neither does a line that goes through its record in another
 * order than the record has, unless it says so, as this one does.
 */
#pragma once

#include "lib/librtsock/format/out.h"
#include "lib/librtsock/idl/idl.h"

#include <span>
#include <string_view>
#include <type_traits>

enum format_how : uint8_t {
    FORMAT_LITERAL,    // no field
    FORMAT_DEC,        // %d: as a signed integer of at least 32 bits
    FORMAT_UNSIGNED,   // %u, or %llu for 64 bits
    FORMAT_HEX,        // %x
    FORMAT_NAME,       // the name of a value
    FORMAT_STRING,     // pointer and length
    FORMAT_CHARS,      // octets in place, up to a terminator
    FORMAT_MAC,        // octets in place, in hexadecimal with colons
    FORMAT_OCTETS,     // pointer and length, in hexadecimal
    FORMAT_WORDS,      // pointer and count: [1 2 3]
    FORMAT_ITEMS,      // pointer and count of records: [line; line]
    FORMAT_RECORD,     // a record in place, by its line
    FORMAT_PREFIX,
    FORMAT_SOCKADDR,   // pointer and length
};

struct format_line;

struct format_piece {
    std::string_view text;             // in front of the value
    uint16_t at;                       // offset of the field
    uint16_t size;                     // its octets
    format_how how;
    uint16_t bits, af;                 // of prefixes: offsets of the length and of the family
    const char *(*name)(int value);
    const struct format_line *line;    // of items and records
};

struct format_line {
    const struct format_piece *pieces;
    size_t count;
    size_t size;                                                  // of the record
    void (*more)(struct format_out *out, const void *record);     // what rows cannot tell, behind them; or null
};

/* --- rows ------------------------------------------------------------------------------------------------------ */

enum class format_kind : uint8_t { integer, pointer, array, record };

struct format_place {
    uint16_t at, size;
    format_kind kind;
};

template <typename T> constexpr format_kind format_kind_of()
{
    if (std::is_integral_v<T>)
        return format_kind::integer;
    if (std::is_pointer_v<T>)
        return format_kind::pointer;
    return std::is_array_v<T> ? format_kind::array : format_kind::record;
}

/* Whatever a record points to has its 32-bit count behind the pointer. */
#define AT(T, FIELD)                                                           \
    format_place                                                               \
    {                                                                          \
        offsetof(struct T, FIELD), sizeof(T::FIELD), format_kind_of<decltype(T::FIELD)>() \
    }

void field_of_another_kind(void);   // not constant, so that naming it in a row does not compile

consteval format_piece format_row(const char *text, format_place place, format_how how, format_kind kind)
{
    if (place.kind != kind)
        field_of_another_kind();
    return { text, place.at, place.size, how, 0, 0, nullptr, nullptr };
}

consteval format_piece literal(const char *text)
{
    return { text, 0, 0, FORMAT_LITERAL, 0, 0, nullptr, nullptr };
}

consteval format_piece dec(const char *text, format_place place)
{
    return format_row(text, place, FORMAT_DEC, format_kind::integer);
}

consteval format_piece uns(const char *text, format_place place)
{
    return format_row(text, place, FORMAT_UNSIGNED, format_kind::integer);
}

consteval format_piece hex(const char *text, format_place place)
{
    return format_row(text, place, FORMAT_HEX, format_kind::integer);
}

consteval format_piece named(const char *text, format_place place, const char *(*name)(int value))
{
    format_piece piece = format_row(text, place, FORMAT_NAME, format_kind::integer);
    piece.name = name;
    return piece;
}

consteval format_piece string(const char *text, format_place place)
{
    return format_row(text, place, FORMAT_STRING, format_kind::pointer);
}

consteval format_piece chars(const char *text, format_place place)
{
    return format_row(text, place, FORMAT_CHARS, format_kind::array);
}

consteval format_piece mac(const char *text, format_place place)
{
    return format_row(text, place, FORMAT_MAC, format_kind::array);
}

consteval format_piece octets(const char *text, format_place place)
{
    return format_row(text, place, FORMAT_OCTETS, format_kind::pointer);
}

consteval format_piece words(const char *text, format_place place)
{
    return format_row(text, place, FORMAT_WORDS, format_kind::pointer);
}

consteval format_piece sockaddr_at(const char *text, format_place place)
{
    return format_row(text, place, FORMAT_SOCKADDR, format_kind::pointer);
}

consteval format_piece prefix(const char *text, format_place place, format_place bits, format_place af)
{
    format_piece piece = format_row(text, place, FORMAT_PREFIX, format_kind::pointer);
    if (bits.size != sizeof(uint16_t) || af.size != sizeof(uint8_t))
        field_of_another_kind();
    piece.bits = bits.at;
    piece.af = af.at;
    return piece;
}

consteval format_piece items(const char *text, format_place place, const struct format_line *line)
{
    format_piece piece = format_row(text, place, FORMAT_ITEMS, format_kind::pointer);
    piece.line = line;
    return piece;
}

consteval format_piece record(const char *text, format_place place, const struct format_line *line)
{
    format_piece piece = format_row(text, place, FORMAT_RECORD, format_kind::record);
    piece.line = line;
    return piece;
}

/* A line whose words have an order of their own, which readers of traces know. */
template <size_t COUNT>
consteval format_line line_in_own_order(const format_piece (&pieces)[COUNT], size_t size,
                                        void (*more)(struct format_out *out, const void *record) = nullptr)
{
    return { pieces, COUNT, size, more };
}

void field_out_of_order(void);   // not constant either

/* A line that goes through its record from front to back. */
template <size_t COUNT>
consteval format_line line_of(const format_piece (&pieces)[COUNT], size_t size,
                              void (*more)(struct format_out *out, const void *record) = nullptr)
{
    uint16_t last = 0;
    for (size_t i = 0; i < COUNT; i++) {
        if (pieces[i].how == FORMAT_LITERAL)
            continue;
        if (pieces[i].at < last)
            field_out_of_order();
        last = pieces[i].at;
    }
    return line_in_own_order(pieces, size, more);
}

/* --- printing -------------------------------------------------------------------------------------------------- */

/* The record's words. Stops where the output is full. */
void format_put_line(struct format_out *out, const struct format_line *line, const void *record);
/* "L2", "L3" or "default", of the bits that a family's or a logical interface's type has. */
const char *format_layer(int type);
/* "1 2 ]" or "none]": the first four filters of a list. */
void format_put_filters(struct format_out *out, const uint32_t *filters, uint32_t count);

/* Optional items of a message, each kind with its line, which is over the item's member. */
struct format_item {
    uint32_t tag;
    const struct format_line *line;
    bool last;   // the scan ends behind it
};
/* Prints those items of a header that have a row, in their own order. False: the scan was ended. */
bool format_put_items(struct format_out *out, const struct rts_hdr *header, std::span<const format_item> rows);
/* The same for one item. */
bool format_put_item(struct format_out *out, uint32_t tag, const void *member, std::span<const format_item> rows);

/* Decodes a record of type out of a blob, with scratch of its own, and prints its line. A blob that is none leaves
 * "Error CODE decoding TYPE.\n" instead, and one that needs more than the scratch
 * "Too large to be shown: TYPE of LENGTH octets.\n". */
void format_put_blob(struct format_out *out, const struct idl_type *type, const struct format_line *line,
                     const uint8_t *blob, size_t length);

/* What a message type prints, or null. */
struct format_message {
    uint8_t type;
    const struct format_line *line;
    bool raw;   // the type has no record: the line is over a layout of that size
};
const struct format_message *format_find_message(uint8_t type);

/* The full form of a device. */
extern const struct format_line format_device_full_line;

/* The lines, by the part of the system that the messages are about. */
std::span<const format_message> format_route_messages(void);
std::span<const format_message> format_nexthop_messages(void);
std::span<const format_message> format_interface_messages(void);
std::span<const format_message> format_layer2_messages(void);
std::span<const format_message> format_cos_messages(void);
std::span<const format_message> format_system_messages(void);
