/*
 * Lines to values. A line is a statement's word, the words that stand at its places, and clauses in any order, each a
 * keyword and its value, none twice. Everything is judged before anything is added.
 */
#include "platform/rtsock/model/load_parse.h"

#include "platform/target.h"

#include <arpa/inet.h>
#include <ctype.h>
#include <errno.h>
#include <stdarg.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>

#include <iterator>

namespace {

enum value_kind { VALUE_NUMBER, VALUE_FAMILY, VALUE_MAC, VALUE_NONE, VALUE_ADDRESS, VALUE_TYPE };

struct clause {
    const char *word;
    enum value_kind kind;
    uint32_t most;
};

/* In the order of enum rm_clause. */
constexpr struct clause clauses[] = {
    { "index", VALUE_NUMBER, UINT32_MAX },     { "family", VALUE_FAMILY, 0 },
    { "tenant", VALUE_NUMBER, UINT16_MAX },    { "snmp", VALUE_NUMBER, UINT32_MAX },
    { "mtu", VALUE_NUMBER, UINT32_MAX },       { "mac", VALUE_MAC, 0 },
    { "down", VALUE_NONE, 0 },                 { "lr", VALUE_NUMBER, UINT8_MAX },
    { "parent", VALUE_NUMBER, UINT32_MAX },    { "donor", VALUE_NUMBER, UINT32_MAX },
    { "destination", VALUE_ADDRESS, 0 },       { "type", VALUE_TYPE, 0 },
    { "interface", VALUE_NUMBER, UINT32_MAX }, { "address", VALUE_ADDRESS, 0 },
    { "nexthop", VALUE_NUMBER, UINT32_MAX },
};
static_assert(std::size(clauses) == RM_CLAUSES);

constexpr struct family {
    const char *word;
    uint8_t number;
    int host;        // -1: its addresses are not written
    uint16_t bits;
} families[] = {
    { "inet", TARGET_AF_INET, AF_INET, 32 },
    { "inet6", TARGET_AF_INET6, AF_INET6, 128 },
    { "iso", TARGET_AF_ISO, -1, 0 },
};

/* Where a line is read, and where its fault goes. */
struct reader {
    char *rest;
    const struct rm_statement *statement;
    struct rm_line *line;
    char *error;
    size_t size;
    char *late[RM_CLAUSES];   // addresses that wait for the family, by clause
};

[[gnu::format(printf, 2, 3)]] int fault(const struct reader *r, const char *format, ...)
{
    va_list args;
    va_start(args, format);
    if (r->size != 0)
        vsnprintf(r->error, r->size, format, args);
    va_end(args);
    return TARGET_EINVAL;
}

/* The next word, or null at the line's end. */
char *next_word(struct reader *r)
{
    static constexpr char blanks[] = " \t\r\n";
    char *word = r->rest + strspn(r->rest, blanks);
    if (*word == '\0' || *word == '#')
        return nullptr;
    char *end = word + strcspn(word, blanks);
    r->rest = end + (*end != '\0' ? 1 : 0);
    *end = '\0';
    return word;
}

int read_number(const struct reader *r, const char *word, uint32_t least, uint32_t most, uint32_t *number)
{
    char *end;
    errno = 0;
    unsigned long value = strtoul(word, &end, 10);
    if (!isdigit(static_cast<unsigned char>(*word)) || *end != '\0' || errno != 0 || value < least || value > most)
        return fault(r, "found '%s', expected a number from %u to %u", word, least, most);
    *number = uint32_t(value);
    return 0;
}

int read_index(const struct reader *r, const char *word)
{
    return read_number(r, word, r->statement->index_min, r->statement->index_max, &r->line->number[0]);
}

int read_family(const struct reader *r, const char *word)
{
    for (const struct family &row : families) {
        if (strcmp(row.word, word) == 0) {
            r->line->family = row.number;
            return 0;
        }
    }
    return fault(r, "found '%s', expected inet, inet6 or iso", word);
}

/* With a length behind it only where that may stand. */
int read_prefix(const struct reader *r, char *word, bool with_bits, struct rm_prefix *prefix)
{
    char *slash = with_bits ? strchr(word, '/') : nullptr;
    if (slash != nullptr)
        *slash = '\0';
    for (const struct family &row : families) {
        if (row.number != r->line->family || row.host < 0 || inet_pton(row.host, word, prefix->octets) != 1)
            continue;
        uint32_t bits = row.bits;
        int error = slash != nullptr ? read_number(r, slash + 1, 0, row.bits, &bits) : 0;
        prefix->bits = uint16_t(bits);
        prefix->most = row.bits;
        return error;
    }
    return fault(r, "found '%s', expected an address of the family", word);
}

int read_mac(const struct reader *r, const char *word)
{
    int end = 0;
    uint8_t *m = r->line->mac;
    int count = sscanf(word, "%2hhx:%2hhx:%2hhx:%2hhx:%2hhx:%2hhx%n", &m[0], &m[1], &m[2], &m[3], &m[4], &m[5], &end);
    if (count != 6 || word[end] != '\0')
        return fault(r, "found '%s', expected a MAC address", word);
    return 0;
}

int read_type(const struct reader *r, const char *word, uint32_t *number)
{
    for (int i = 0; i < r->statement->types; i++) {
        if (*word != '\0' && strcmp(r->statement->type(i), word) == 0) {
            *number = uint32_t(i);
            return 0;
        }
    }
    return fault(r, "found '%s', expected a type", word);
}

int read_value(struct reader *r, uint32_t at)
{
    if (clauses[at].kind == VALUE_NONE)
        return 0;
    char *word = next_word(r);
    if (word == nullptr)
        return fault(r, "a value is missing behind '%s'", clauses[at].word);
    uint32_t *number = &r->line->number[at];
    switch (clauses[at].kind) {
    case VALUE_NUMBER:
        return at == 0 ? read_index(r, word) : read_number(r, word, 0, clauses[at].most, number);
    case VALUE_FAMILY:
        return read_family(r, word);
    case VALUE_MAC:
        return read_mac(r, word);
    case VALUE_TYPE:
        return read_type(r, word, number);
    default:
        r->late[at] = word;
        return 0;
    }
}

int read_clause(struct reader *r, const char *word)
{
    for (uint32_t at = 0; at < RM_CLAUSES; at++) {
        if (strcmp(clauses[at].word, word) != 0 || (r->statement->allowed & 1U << at) == 0)
            continue;
        if ((r->line->seen & 1U << at) != 0)
            return fault(r, "'%s' stands twice", word);
        r->line->seen |= 1U << at;
        return read_value(r, at);
    }
    return fault(r, "found '%s', which does not belong to '%s'", word, r->statement->word);
}

int read_place(struct reader *r, char place)
{
    char *word = next_word(r);
    if (word == nullptr)
        return fault(r, "'%s' ends too early", r->statement->word);
    switch (place) {
    case 'N':
        return read_index(r, word);
    case 'F':
        return read_family(r, word);
    case 'P':
        return read_prefix(r, word, true, &r->line->prefix);
    default:
        r->line->name = word;
        return 0;
    }
}

int check_required(const struct reader *r)
{
    uint32_t missing = r->statement->required & ~r->line->seen;
    for (uint32_t at = 0; at < RM_CLAUSES; at++) {
        if ((missing & 1U << at) != 0)
            return fault(r, "'%s' is missing", clauses[at].word);
    }
    return 0;
}

/* Addresses, once the family is known, which may stand behind them. */
int read_late(struct reader *r)
{
    int error = 0;
    for (uint32_t at = 0; at < RM_CLAUSES && error == 0; at++) {
        if (r->late[at] != nullptr)
            error = read_prefix(r, r->late[at], false,
                                1U << at == RM_ADDRESS ? &r->line->address : &r->line->destination);
    }
    return error;
}

int read_line(struct reader *r)
{
    int error = 0;
    for (const char *place = r->statement->places; *place != '\0' && error == 0; place++)
        error = read_place(r, *place);
    const char *word;
    while (error == 0 && (word = next_word(r)) != nullptr)
        error = read_clause(r, word);
    if (error == 0)
        error = check_required(r);
    return error != 0 ? error : read_late(r);
}

/* Why a line whose words are good was not added. */
int refusal(const struct reader *r, int error)
{
    const char *word = r->statement->word;
    if (error == TARGET_ENOENT && r->statement->base != nullptr)
        fault(r, "%s: %s is not there", word, r->statement->base);
    else if (error == TARGET_EEXIST)
        fault(r, "%s: it is there already", word);
    else if (error == TARGET_ENOMEM)
        fault(r, "%s: out of memory", word);
    else
        fault(r, "%s: %s", word, r->line->wrong != nullptr ? r->line->wrong : "its values do not go together");
    return error;
}

}   // namespace

int rm_line_run(const struct rm_statement *statements, size_t count, char *text, char *error, size_t size)
{
    struct rm_line line = {};
    struct reader r = { text, nullptr, &line, error, size, {} };
    const char *word = next_word(&r);
    if (word == nullptr)
        return 0;
    for (size_t i = 0; i < count; i++) {
        if (strcmp(statements[i].word, word) != 0)
            continue;
        r.statement = &statements[i];
        int result = read_line(&r);
        if (result != 0)
            return result;
        result = r.statement->add(&line);
        return result != 0 ? refusal(&r, result) : 0;
    }
    return fault(&r, "found '%s', expected table, device, unit, family, address, nexthop or route", word);
}
