/*
 * Listing of compiled filters: one line an instruction, in the order in which they stand.
 *
 * It takes programs of any origin. The walk checks that instructions stand one behind the other; here the payload is
 * compared with what its code wants before it is shown. Offsets count from the start of the block, as jumps do between
 * them, and are multiples of 16.
 */
#include "tools/rtsfilter/listing.h"

#include "lib/librtsock/filter/rts_filter.h"

#include <arpa/inet.h>
#include <string.h>

#include <iterator>
#include <string>

namespace {

/* Up to the terminator. What cannot be printed is escaped: a program may come from anywhere. */
std::string name_text(const uint8_t *payload, size_t length)
{
    std::string text;
    for (size_t i = 0; i < length && payload[i] != '\0'; i++) {
        char shown[8];
        snprintf(shown, sizeof shown, payload[i] < ' ' || payload[i] > '~' ? "\\x%02x" : "%c", payload[i]);
        text += shown;
    }
    return text;
}

std::string string_text(const uint8_t *payload, size_t length)
{
    return '"' + name_text(payload, length) + '"';
}

std::string integer_text(const uint8_t *payload, size_t)
{
    int32_t value;
    memcpy(&value, payload, sizeof value);
    return std::to_string(value);
}

std::string operator_text(const uint8_t *payload, size_t)
{
    static constexpr const char *names[] = {
        "==", ">", "<", ">=", "<=", "!=", "+", "-", nullptr, nullptr, "== ipv4", "!= ipv4", "== ipv6", "!= ipv6",
        "&&", "||", "step", "last step", "~", "&",
    };
    static_assert(std::size(names) == RTS_FILTER_BIT_AND + 1);
    uint32_t operation;
    memcpy(&operation, payload, sizeof operation);
    if (operation < std::size(names) && names[operation]) return names[operation];
    return "unknown " + std::to_string(operation);
}

std::string address_text(const uint8_t *payload, size_t length)
{
    char text[INET6_ADDRSTRLEN];
    inet_ntop(length == sizeof(struct in_addr) ? AF_INET : AF_INET6, payload, text, sizeof text);
    return text;
}

constexpr struct code_row {
    uint16_t code;
    const char *name;
    size_t least, most;   // octets of payload
    std::string (*operand)(const uint8_t *payload, size_t length);
} codes[] = {
    { RTS_FILTER_FIELD, "field", 4, UINT16_MAX, name_text },
    { RTS_FILTER_FIELD_NEXT, "next field", 4, UINT16_MAX, name_text },
    { RTS_FILTER_INTEGER, "integer", 4, 4, integer_text },
    { RTS_FILTER_OPERATOR, "operator", 4, 4, operator_text },
    { RTS_FILTER_STRING, "string", 1, UINT16_MAX, string_text },
    { RTS_FILTER_CONTEXT, "context", 4, UINT16_MAX, name_text },
    { RTS_FILTER_ADDRESS_4, "ipv4", 4, 4, address_text },
    { RTS_FILTER_ADDRESS_6, "ipv6", 16, 16, address_text },
};

const struct code_row *row_of(const struct rts_filter_instr &instr)
{
    size_t length = instr.length - sizeof instr;
    for (const auto &row : codes)
        if (row.code == instr.code && length >= row.least && length <= row.most) return &row;
    return nullptr;
}

}   // namespace

bool listing_print(FILE *out, const void *block, size_t size)
{
    size_t at = 0, here = sizeof(struct rts_filter_head);
    struct rts_filter_instr instr;
    const uint8_t *payload;
    int more = 0;
    while ((more = rts_filter_next(block, size, &at, &instr, &payload)) == 1) {
        const struct code_row *row = row_of(instr);
        if (!row) return false;
        std::string text = row->operand(payload, instr.length - sizeof instr);
        if (instr.words != 0) text += ", words " + std::to_string(instr.words);
        fprintf(out, "%6zu  %2u  %-10s  %s", here, instr.code, row->name, text.c_str());
        if (instr.jump != 0) fprintf(out, ", if %u to %zu", instr.sense, here + instr.jump);
        fputc('\n', out);
        here = at;
    }
    return more == 0;
}

bool listing_print_octets(FILE *out, const void *block, size_t size)
{
    size_t at = 0;
    struct rts_filter_instr instr;
    const uint8_t *payload;
    int more = 0;
    while ((more = rts_filter_next(block, size, &at, &instr, &payload)) == 1) {}
    if (more != 0) return false;
    const auto *octets = static_cast<const uint8_t *>(block);
    for (size_t i = 0; i < at; i++) fprintf(out, "%02x%c", octets[i], i % RTS_FILTER_ALIGN == 15 ? '\n' : ' ');
    return true;
}
