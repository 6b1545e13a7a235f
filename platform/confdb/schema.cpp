/*
 * Schema: look-ups in the table of rows, and the rules of values.
 *
 * A place finds its rows by one scan: there are some sixty rows in all, and the rows of a place stand together. The
 * kinds of values are a table too: how a text is judged, and how a message names what was expected.
 *
 * What the compiler checks: each row's parent is opened by some row (or is the top), no two rows of a place have one
 * keyword or one attribute number, every word row has enumerators, and every list a name for its key.
 */
#include "platform/confdb/schema.h"

#include "platform/confdb/schema_rows.h"
#include "platform/text/text.h"

#include <arpa/inet.h>
#include <string.h>

#include <iterator>

using std::string_view;

static constexpr bool same_place_clash(const struct conf_row &a, const struct conf_row &b)
{
    return a.cr_parent == b.cr_parent && (string_view(a.cr_keyword) == b.cr_keyword ||
                                          (a.cr_attribute >= 0 && a.cr_attribute == b.cr_attribute));
}

static constexpr bool row_is_sound(const struct conf_row &row)
{
    bool opened = row.cr_parent == CONF_TOP;
    for (const struct conf_row &other : rows) {
        opened = opened || other.cr_place == row.cr_parent;
        if (&other != &row && same_place_clash(other, row)) return false;
    }
    bool opens = row.cr_shape != CONF_LEAF && row.cr_shape != CONF_PRESENCE;
    return opened && row.cr_attribute != CONF_KEY_ATTRIBUTE && opens == (row.cr_place != CONF_NOWHERE) &&
           (row.cr_shape == CONF_LIST) == (row.cr_key != nullptr) &&
           (row.cr_value == CONF_WORD) == (row.cr_words != nullptr) && row.cr_min <= row.cr_max;
}

static constexpr bool rows_are_sound()
{
    for (const struct conf_row &row : rows)
        if (!row_is_sound(row)) return false;
    return true;
}
static_assert(rows_are_sound());

const struct conf_row *conf_row_top(void)
{
    return &top_row;
}

/* The first row below parent that fits; null if none does. */
template <typename Fits> static const struct conf_row *row_below(const struct conf_row *parent, Fits fits)
{
    if (parent->cr_place == CONF_NOWHERE) return nullptr;
    for (const struct conf_row &row : rows)
        if (row.cr_parent == parent->cr_place && fits(row)) return &row;
    return nullptr;
}

const struct conf_row *conf_row_child(const struct conf_row *parent, string_view keyword)
{
    return row_below(parent, [&](const struct conf_row &row) { return keyword == row.cr_keyword; });
}

const struct conf_row *conf_row_by_attribute(const struct conf_row *parent, int attribute)
{
    if (attribute < 0) return nullptr;
    return row_below(parent, [&](const struct conf_row &row) { return row.cr_attribute == attribute; });
}

bool conf_row_word(const struct conf_row *row, const char *text, uint32_t *number)
{
    for (const struct conf_word *word = row->cr_words; word && word->cw_text; word++) {
        if (strcmp(word->cw_text, text) != 0) continue;
        *number = word->cw_number;
        return true;
    }
    return false;
}

/* --- characters ------------------------------------------------------------------------------------------------ */

static constexpr char del_octet = 0x7f;

/* The forms of a character in UTF-8 (RFC 3629): the ranges of its first two octets; further ones are 0x80 to 0xbf. What
 * no row has is malformed or a control character: U+0080 to U+009F would begin with 0xc2. */
static constexpr struct utf8_form {
    unsigned char uf_first_min, uf_first_max, uf_second_min, uf_second_max;
    size_t uf_octets;
} utf8_forms[] = {
    { 0x20, 0x7e, 0, 0, 1 },       { 0xc2, 0xc2, 0xa0, 0xbf, 2 }, { 0xc3, 0xdf, 0x80, 0xbf, 2 },
    { 0xe0, 0xe0, 0xa0, 0xbf, 3 }, { 0xe1, 0xec, 0x80, 0xbf, 3 }, { 0xed, 0xed, 0x80, 0x9f, 3 },
    { 0xee, 0xef, 0x80, 0xbf, 3 }, { 0xf0, 0xf0, 0x90, 0xbf, 4 }, { 0xf1, 0xf3, 0x80, 0xbf, 4 },
    { 0xf4, 0xf4, 0x80, 0x8f, 4 },
};

static bool is_between(char c, unsigned char min, unsigned char max)
{
    unsigned char octet = static_cast<unsigned char>(c);
    return octet >= min && octet <= max;
}

/* Octets of the character that text begins with; 0 if it is none. Reads no further than the terminator. */
static size_t character_octets(const char *text)
{
    for (const struct utf8_form &form : utf8_forms) {
        if (!is_between(text[0], form.uf_first_min, form.uf_first_max)) continue;
        if (form.uf_octets > 1 && !is_between(text[1], form.uf_second_min, form.uf_second_max)) continue;
        for (size_t i = 2; i < form.uf_octets; i++)
            if (!is_between(text[i], 0x80, 0xbf)) return 0;
        return form.uf_octets;
    }
    return 0;
}

bool conf_text_is_safe(const char *text)
{
    while (size_t octets = character_octets(text)) text += octets;
    return *text == '\0';
}

static bool is_made_of(const char *text, const char *marks)
{
    static const char letters[] = "abcdefghijklmnopqrstuvwxyzABCDEFGHIJKLMNOPQRSTUVWXYZ0123456789";
    while (*text != '\0' && (strchr(letters, *text) || strchr(marks, *text))) text++;
    return *text == '\0';
}

/* --- kinds of values ------------------------------------------------------------------------------------------- */

static bool length_is_good(const struct conf_row *row, const char *text)
{
    size_t length = strlen(text);
    return length >= row->cr_min && length <= row->cr_max;
}

static bool text_is_good(const struct conf_row *row, const char *text)
{
    return conf_text_is_safe(text) && length_is_good(row, text);
}

static bool file_name_is_good(const struct conf_row *row, const char *text)
{
    return text_is_good(row, text) && !strchr(text, '/') && strcmp(text, ".") != 0 && strcmp(text, "..") != 0;
}

static bool path_is_good(const struct conf_row *row, const char *text)
{
    return text_is_good(row, text) && *text == '/';
}

static bool file_suffix_is_good(const struct conf_row *row, const char *text)
{
    return is_made_of(text, ":._-") && length_is_good(row, text);
}

static bool plain_name_is_good(const struct conf_row *row, const char *text)
{
    return is_made_of(text, "/:._-") && length_is_good(row, text);
}

static bool unit_name_is_good(const struct conf_row *row, const char *text)
{
    return is_made_of(text, "/:_-") && length_is_good(row, text);
}

static bool ipv4_is_good(const struct conf_row *, const char *text)
{
    struct in_addr address;
    return inet_pton(AF_INET, text, &address) == 1;
}

/* Digits only: no sign, no white space, no base but ten. False past 32 bits; *number is then left alone. */
static bool decimal(string_view text, uint32_t *number)
{
    if (text.empty()) return false;
    uint64_t sum = 0;
    for (char c : text) {
        if (c < '0' || c > '9') return false;
        sum = sum * 10 + static_cast<uint64_t>(c - '0');
        if (sum > UINT32_MAX) return false;
    }
    *number = static_cast<uint32_t>(sum);
    return true;
}

bool conf_value_number(const struct conf_row *row, const char *text, uint32_t *number)
{
    uint32_t value;
    if (!decimal(text, &value) || value < row->cr_min || value > row->cr_max) return false;
    *number = value;
    return true;
}

static bool number_is_good(const struct conf_row *row, const char *text)
{
    uint32_t number;
    return conf_value_number(row, text, &number);
}

static bool word_is_good(const struct conf_row *row, const char *text)
{
    uint32_t number;
    return conf_row_word(row, text, &number);
}

static bool prefix_is_good(int family, const char *text, uint32_t bits_max)
{
    const char *slash = strchr(text, '/');
    char address[INET6_ADDRSTRLEN];
    size_t length = slash ? static_cast<size_t>(slash - text) : 0;
    if (!slash || length >= sizeof address) return false;
    memcpy(address, text, length);
    address[length] = '\0';
    uint32_t bits;
    struct in6_addr binary;
    return inet_pton(family, address, &binary) == 1 && decimal(slash + 1, &bits) && bits <= bits_max;
}

static bool prefix4_is_good(const struct conf_row *, const char *text)
{
    return prefix_is_good(AF_INET, text, 32);
}

static bool prefix6_is_good(const struct conf_row *, const char *text)
{
    return prefix_is_good(AF_INET6, text, 128);
}

static constexpr struct value_kind {
    enum conf_value vk_value;
    bool (*vk_is_good)(const struct conf_row *row, const char *text);   // null: there is no value
    const char *vk_expected;   // what a message says of it
    const char *vk_unit;       // of cr_min and cr_max, which the message then names too; null if it has no limits
} value_kinds[] = {
    { CONF_NONE, nullptr, "nothing", nullptr },
    { CONF_TEXT, text_is_good, "UTF-8 text without control characters,", " octets" },
    { CONF_SECRET, text_is_good, "UTF-8 text without control characters,", " octets" },
    { CONF_FILE_NAME, file_name_is_good, "a file name in UTF-8, without / and control characters and not . or ..,",
      " octets" },
    { CONF_PATH, path_is_good, "an absolute path in UTF-8 without control characters,", " octets" },
    { CONF_FILE_SUFFIX, file_suffix_is_good, "letters, digits and : . _ -,", " octets" },
    { CONF_PLAIN_NAME, plain_name_is_good, "letters, digits and / : . _ -,", " octets" },
    { CONF_UNIT_NAME, unit_name_is_good, "letters, digits and / : _ -,", " octets" },
    { CONF_IPV4, ipv4_is_good, "an IPv4 address", nullptr },
    { CONF_NUMBER, number_is_good, "a number from", "" },
    { CONF_WORD, word_is_good, "one of", nullptr },
    { CONF_PREFIX4, prefix4_is_good, "an IPv4 address with its prefix length", nullptr },
    { CONF_PREFIX6, prefix6_is_good, "an IPv6 address with its prefix length", nullptr },
};

static constexpr bool value_kinds_are_in_order()
{
    for (size_t i = 0; i < std::size(value_kinds); i++)
        if (value_kinds[i].vk_value != i) return false;
    return std::size(value_kinds) == CONF_VALUES;
}
static_assert(value_kinds_are_in_order());

bool conf_value_is_good(const struct conf_row *row, const char *text)
{
    const struct value_kind *kind = &value_kinds[row->cr_value];
    return !kind->vk_is_good || kind->vk_is_good(row, text);
}

bool conf_name_is_safe(const struct conf_row *list, const char *text)
{
    if (*text == '\0') return false;
    if (list->cr_value == CONF_FILE_SUFFIX) return is_made_of(text, ":._-");
    if (list->cr_value == CONF_PLAIN_NAME) return is_made_of(text, "/:._-");
    if (list->cr_value == CONF_UNIT_NAME) return is_made_of(text, "/:_-");
    return conf_text_is_safe(text);
}

/* --- texts ----------------------------------------------------------------------------------------------------- */

void conf_quote(string_view text, char *out, size_t size)
{
    static constexpr size_t shown_max = 40;
    size_t at = snprintf_safe(out, size, "'");
    for (char c : text.substr(0, shown_max)) {
        bool shows = c >= ' ' && c < del_octet;   // any other might play tricks on a terminal
        at += shows ? snprintf_safe(out + at, size - at, "%c", c)
                    : snprintf_safe(out + at, size - at, "\\x%02x", static_cast<unsigned char>(c));
    }
    (void)snprintf_safe(out + at, size - at, "%s'", text.size() > shown_max ? "..." : "");
}

void conf_expected_keywords(const struct conf_row *parent, char *out, size_t size)
{
    size_t at = 0;
    for (const struct conf_row &row : rows)
        if (row.cr_parent == parent->cr_place)
            at += snprintf_safe(out + at, size - at, "%s%s, ", at == 0 ? "one of " : "", row.cr_keyword);
    (void)snprintf_safe(out + at, size - at, "%s", parent->cr_place == CONF_TOP ? "end of file" : "}");
}

void conf_value_reason(const struct conf_row *row, const char *text, char *out, size_t size)
{
    const struct value_kind *kind = &value_kinds[row->cr_value];
    char found[CONF_REASON_MAX];
    if (row->cr_value == CONF_SECRET)
        (void)snprintf_safe(found, sizeof found, "a secret of %zu octets", strlen(text));
    else
        conf_quote(text, found, sizeof found);
    size_t at = snprintf_safe(out, size, "found %s, expected %s", found, kind->vk_expected);
    if (kind->vk_unit)
        at += snprintf_safe(out + at, size - at, " %u to %u%s", row->cr_min, row->cr_max, kind->vk_unit);
    const char *separator = " ";
    for (const struct conf_word *word = row->cr_words; word && word->cw_text; word++, separator = ", ")
        at += snprintf_safe(out + at, size - at, "%s%s", separator, word->cw_text);
}
