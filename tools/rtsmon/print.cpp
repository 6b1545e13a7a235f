/*
 * Lines: a walk over the record's table with two ways to write what is met.
 */
#include "tools/rtsmon/rtsmon.h"

#include "platform/target.h"

#include <arpa/inet.h>
#include <string.h>

#include <algorithm>

namespace {

enum { WORD = 4, ADDRESS_MAX = 16 };

template <typename type> type read_at(const void *record, uint32_t offset)
{
    type out;
    memcpy(&out, static_cast<const uint8_t *>(record) + offset, sizeof out);
    return out;
}

uint64_t integer(const void *record, const struct idl_field &field)
{
    switch (field.if_width) {
    case 1:
        return read_at<uint8_t>(record, field.if_offset);
    case 2:
        return read_at<uint16_t>(record, field.if_offset);
    case 4:
        return read_at<uint32_t>(record, field.if_offset);
    default:
        return read_at<uint64_t>(record, field.if_offset);
    }
}

std::string hex(const uint8_t *octets, size_t length)
{
    static const char digits[] = "0123456789abcdef";
    std::string text;
    for (size_t i = 0; i < length; i++) {
        text += digits[octets[i] >> 4];
        text += digits[octets[i] & 0xf];
    }
    return text;
}

bool is_text(const uint8_t *octets, size_t length)
{
    if (length > 1 && octets[length - 1] == '\0')
        length--;
    return length != 0 && std::all_of(octets, octets + length, [](uint8_t c) { return c >= ' ' && c < 0x7f; });
}

/* A quoted text of JSON. What is there is ASCII. */
std::string quoted(const std::string &text)
{
    std::string out = "\"";
    for (char c : text) {
        if (c == '"' || c == '\\')
            out += '\\';
        out += c;
    }
    return out + "\"";
}

/* Octets as a text if they are one, else in hexadecimal. */
std::string octets_text(const uint8_t *octets, size_t length)
{
    if (!is_text(octets, length))
        return hex(octets, length);
    return { reinterpret_cast<const char *>(octets), strnlen(reinterpret_cast<const char *>(octets), length) };
}

struct writer {
    bool json;
    std::string out;

    void name(const char *field)
    {
        if (!out.empty() && out.back() != '{' && out.back() != '[')
            out += json ? ',' : ' ';
        out += json ? quoted(field) + ":" : std::string(field) + " ";
    }
    void number(uint64_t value) { out += std::to_string(value); }
    void text(const std::string &value) { out += json ? quoted(value) : value; }
};

void write_record(writer &w, const struct idl_type *type, const void *record);

void write_items(writer &w, const struct idl_field &field, const uint8_t *items, uint32_t count)
{
    w.out += '[';
    for (uint32_t i = 0; i < count; i++) {
        const uint8_t *item = field.if_kind == IDL_KIND_LIST_PTR
                                  ? read_at<const uint8_t *>(items, uint32_t(i * sizeof(void *)))
                                  : items + size_t(i) * field.if_size;
        if (i != 0)
            w.out += w.json ? "," : "; ";
        w.out += w.json ? "{" : "";
        write_record(w, field.if_type, item);
        w.out += w.json ? "}" : "";
    }
    w.out += ']';
}

void write_words(writer &w, const uint8_t *words, uint32_t count)
{
    w.out += '[';
    for (uint32_t i = 0; i < count; i++) {
        if (i != 0)
            w.out += ',';
        w.number(read_at<uint32_t>(words, i * WORD));
    }
    w.out += ']';
}

bool is_zero(const void *octets, size_t length)
{
    const auto *at = static_cast<const uint8_t *>(octets);
    return std::all_of(at, at + length, [](uint8_t octet) { return octet == 0; });
}

/* Fields behind a pointer. */
void write_pointed(writer &w, const void *record, const struct idl_field &field)
{
    auto count = read_at<uint32_t>(record, field.if_len_offset);
    const auto *at = read_at<const uint8_t *>(record, field.if_offset);
    if (count == 0 || at == nullptr)
        return;
    w.name(field.if_name);
    if (field.if_kind == IDL_KIND_OPAQUE)
        w.text(octets_text(at, count));
    else if (field.if_kind == IDL_KIND_WORD_LIST)
        write_words(w, at, count);
    else
        write_items(w, field, at, count);
}

void write_nested(writer &w, const struct idl_field &field, const void *record)
{
    if (is_zero(record, field.if_type->it_size))
        return;
    w.name(field.if_name);
    w.out += '{';
    write_record(w, field.if_type, record);
    w.out += '}';
}

void write_field(writer &w, const void *record, const struct idl_field &field)
{
    const auto *at = static_cast<const uint8_t *>(record) + field.if_offset;
    switch (field.if_kind) {
    case IDL_KIND_INT:
    case IDL_KIND_FLEX:
    case IDL_KIND_AF:
        if (integer(record, field) == 0)
            return;
        w.name(field.if_name);
        w.number(integer(record, field));
        return;
    case IDL_KIND_BYTES:
        if (is_zero(at, field.if_size))
            return;
        w.name(field.if_name);
        w.text(octets_text(at, field.if_size));
        return;
    case IDL_KIND_RECORD:
    case IDL_KIND_MEMBER:
        write_nested(w, field, at);
        return;
    case IDL_KIND_MEMBER_PTR:
        if (read_at<const void *>(record, field.if_offset) != nullptr)
            write_nested(w, field, read_at<const void *>(record, field.if_offset));
        return;
    default:
        write_pointed(w, record, field);
        return;
    }
}

/* Of a choice the member that its tag names. */
void write_choice(writer &w, const struct idl_type *type, const void *record)
{
    auto tag = read_at<uint32_t>(record, 0);
    w.name("tag");
    w.number(tag);
    for (uint32_t i = 0; i < type->it_count; i++) {
        if (type->it_fields[i].if_tag == tag)
            write_field(w, record, type->it_fields[i]);
    }
}

/* "10.1.0.0/16" for the prefix of that family and length. */
std::string prefix_text(uint8_t family, const uint8_t *octets, uint32_t length, unsigned bits)
{
    uint8_t address[ADDRESS_MAX] = {};
    char text[INET6_ADDRSTRLEN];
    int host = family == TARGET_AF_INET6 ? AF_INET6 : AF_INET;
    if (family != TARGET_AF_INET && family != TARGET_AF_INET6)
        return hex(octets, length) + "/" + std::to_string(bits);
    if (length != 0)
        memcpy(address, octets, std::min<size_t>(length, sizeof address));
    return std::string(inet_ntop(host, address, text, sizeof text)) + "/" + std::to_string(bits);
}

const struct idl_field *field_named(const struct idl_type *type, const std::string &name)
{
    for (uint32_t i = 0; i < type->it_count; i++) {
        if (name == type->it_fields[i].if_name)
            return &type->it_fields[i];
    }
    return nullptr;
}

/* Octets X with a count X_bits beside them are an address or prefix of the record's family; both make one text. True if
 * the field is one of the two. */
bool write_prefix(writer &w, const struct idl_type *type, const void *record, const struct idl_field &field)
{
    static const std::string suffix = "_bits";
    std::string name = field.if_name;
    const struct idl_field *family = field_named(type, "af"), *bits = field_named(type, name + suffix);
    if (name.size() > suffix.size() && name.compare(name.size() - suffix.size(), suffix.size(), suffix) == 0)
        return family != nullptr && field_named(type, name.substr(0, name.size() - suffix.size())) != nullptr;
    if (family == nullptr || bits == nullptr || field.if_kind != IDL_KIND_OPAQUE)
        return false;
    auto length = read_at<uint32_t>(record, field.if_len_offset);
    auto count = unsigned(integer(record, *bits));
    if (length == 0 && (count != 0 || strcmp(type->it_name, "rt_msg") != 0))
        return true;
    w.name(field.if_name);
    w.text(prefix_text(uint8_t(integer(record, *family)), read_at<const uint8_t *>(record, field.if_offset), length,
                       count));
    return true;
}

void write_record(writer &w, const struct idl_type *type, const void *record)
{
    if (type->it_choice) {
        write_choice(w, type, record);
        return;
    }
    for (uint32_t i = 0; i < type->it_count; i++) {
        const struct idl_field &field = type->it_fields[i];
        if (strcmp(field.if_name, "rts_hdr") != 0 && !write_prefix(w, type, record, field))
            write_field(w, record, field);
    }
}

/* The items of the header, which belong to the message. */
void write_header_items(writer &w, const struct rts_hdr *header)
{
    const struct idl_type *type = idl_type_by_name("rts_hdr");
    for (uint32_t i = 0; type != nullptr && i < type->it_count; i++) {
        if (type->it_fields[i].if_kind == IDL_KIND_LIST_PTR)
            write_field(w, header, type->it_fields[i]);
    }
}

/* What a line begins with. */
std::string head(unsigned type_number, unsigned op_number, uint32_t seq, bool json)
{
    const char *type = rtm_types[std::min<unsigned>(type_number, RTSLIB_TYPES)];
    const char *op = rtm_ops[std::min<unsigned>(op_number, RTSLIB_OPS)];
    if (json)
        return "{\"type\":" + quoted(type) + ",\"op\":" + quoted(op) + ",\"seq\":" + std::to_string(seq);
    return std::string(op) + " " + type;
}

std::string line(const struct rts_hdr *message, bool json)
{
    writer w{ json, head(message->rtsh_type, message->rtsh_op, message->rtsh_seq, json) };
    const struct idl_type *record = idl_message_type(message->rtsh_type);
    if (record != nullptr) {
        write_record(w, record, message);
        write_header_items(w, message);
    }
    return w.out + (json ? "}" : "");
}

}   // namespace

std::string rtsmon_text(const struct rts_hdr *message)
{
    return line(message, false);
}

std::string rtsmon_json(const struct rts_hdr *message)
{
    return line(message, true);
}

std::string rtsmon_raw(const struct rts_raw_hdr *message, bool json)
{
    std::string length = std::to_string(message->msglen);
    return head(message->type, message->op, message->seq, json) +
           (json ? ",\"raw\":" + length + "}" : " raw " + length + " octets");
}
