/*
 * Schema of the configuration: which keyword stands where, what it takes, and what its value must obey.
 *
 * One table holds it all. A row is a keyword below one place; a place is a stanza or an element of a list. Parser,
 * value checks and readers ask the table and know no keyword of their own.
 */
#pragma once

#include <stddef.h>
#include <stdint.h>

#include <string_view>

/* What may have keywords below it. */
enum conf_place : uint8_t {
    CONF_NOWHERE,   // a row that has nothing below it; also the parent of the root alone
    CONF_TOP,
    CONF_SYSTEM,
    CONF_SERVICES,
    CONF_DEPLOYMENT,
    CONF_DEPLOYMENT_SERVER,
    CONF_SECURITY_OPTIONS,
    CONF_TRACE,
    CONF_OUTBOUND,
    CONF_CLIENT,
    CONF_KEEP_ALIVE,
    CONF_CLIENT_SERVER,
    CONF_SECURITY,
    CONF_CERTIFICATES,
    CONF_AUTHORITY,
    CONF_INTERFACE,
    CONF_UNIT,
    CONF_FAMILY,
    CONF_INET,
    CONF_INET6,
    CONF_CHASSIS,
    CONF_NAME_ONLY,   // elements that have nothing below their names
    CONF_PLACES
};

enum conf_shape : uint8_t {
    CONF_STANZA,        // keyword { ... }
    CONF_INLINE,        // the same, or one statement of it on the keyword's line: keyword statement
    CONF_LIST,          // keyword { name { ... } ... }, keyword name { ... }, keyword name;
    CONF_LEAF,          // keyword value;
    CONF_PRESENCE,      // keyword;
};

/* What a leaf's value or an element's name must be. */
enum conf_value : uint8_t {
    CONF_NONE,
    CONF_TEXT,          // UTF-8 without control characters
    CONF_SECRET,        // the same, shown in no message
    CONF_FILE_NAME,     // the same, of a file in a folder that is given
    CONF_PATH,          // the same, from the root folder on
    CONF_FILE_SUFFIX,   // becomes part of a file name: letters, digits, : . _ -
    CONF_PLAIN_NAME,    // becomes part of an XML text as it is: the same and /
    CONF_UNIT_NAME,     // stands behind such a name and a dot, and may hold none itself
    CONF_IPV4,
    CONF_NUMBER,
    CONF_WORD,          // one of the row's enumerators
    CONF_PREFIX4,
    CONF_PREFIX6,
    CONF_VALUES
};

struct conf_word {
    const char *cw_text;
    uint32_t cw_number;   // what a reader gets for it
};

struct conf_row {
    enum conf_place cr_parent;
    const char *cr_keyword;
    enum conf_shape cr_shape;
    enum conf_place cr_place;      // place that the stanza or the list's elements open
    int8_t cr_attribute;           // number by which readers ask; below 0: by name only
    enum conf_value cr_value;      // of the leaf, or of the names of the list's elements
    uint32_t cr_min, cr_max;       // of a number; of the length of a text in octets
    const char *cr_key;            // lists: the attribute's name under which an element's name is read
    const struct conf_word *cr_words;   // CONF_WORD: enumerators, ended by a null text
};

enum {
    CONF_KEY_ATTRIBUTE = 0,   // attribute number of an element's name
    CONF_BY_NAME = -1,
    CONF_REASON_MAX = 512,    // room for every text made here
};

/* The row above all: the file itself. */
const struct conf_row *conf_row_top(void);
/* The row of keyword, or of an attribute number of 0 and above, below parent's place; null if there is none. */
const struct conf_row *conf_row_child(const struct conf_row *parent, std::string_view keyword);
const struct conf_row *conf_row_by_attribute(const struct conf_row *parent, int attribute);
/* The number of the row's enumerator text in *number; false if it is none of them. */
bool conf_row_word(const struct conf_row *row, const char *text, uint32_t *number);

/* True if text may be the name of an element of the list: not empty, and of the characters that are safe where such
 * names end up. What breaks this is left out by readers. */
bool conf_name_is_safe(const struct conf_row *list, const char *text);
/* True if text is UTF-8 and has no control characters, those from U+0080 to U+009F included. */
bool conf_text_is_safe(const char *text);
/* True if text is of the row's kind and within its limits. */
bool conf_value_is_good(const struct conf_row *row, const char *text);
/* True with *number if text is a decimal number within the row's limits. */
bool conf_value_number(const struct conf_row *row, const char *text, uint32_t *number);

/* The texts of messages; all are terminated, and cut if size is too small. */
/* "found 'TEXT', expected WHAT" for a value or name that the row does not take; of a secret the length only. */
void conf_value_reason(const struct conf_row *row, const char *text, char *out, size_t size);
/* "one of A, B, }" for what may stand below parent. */
void conf_expected_keywords(const struct conf_row *parent, char *out, size_t size);
/* 'TEXT' for people: cut to some 40 octets, what is not printable ASCII as \xNN. */
void conf_quote(std::string_view text, char *out, size_t size);
