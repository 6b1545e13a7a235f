/*
 * Scanner of configuration text: octets in, tokens out, one at a time, with line and column.
 */
#pragma once

#include <stddef.h>
#include <stdint.h>

#include <string_view>

enum conf_token_kind : uint8_t {
    CONF_TOKEN_WORD,     // unquoted: a keyword, name or value
    CONF_TOKEN_STRING,   // ct_text is what stands between the quotes, escapes included
    CONF_TOKEN_OPEN,     // {
    CONF_TOKEN_CLOSE,    // }
    CONF_TOKEN_SEMICOLON,
    CONF_TOKEN_EOF,
    CONF_TOKEN_BAD,      // ct_text tells what is wrong: "found ..., expected ..."
};

struct conf_token {
    enum conf_token_kind ct_kind;
    uint32_t ct_line, ct_column;   // of its first octet, from 1; a tab counts as one column
    std::string_view ct_text;      // into the scanned text, or a constant
};

struct conf_scanner {
    const char *cs_at, *cs_end;    // lent by the caller for as long as tokens are used
    uint32_t cs_line, cs_column;   // of cs_at
};

void conf_scan_start(struct conf_scanner *scanner, const char *text, size_t length);
/* The next token. After EOF and BAD comes the same again. */
struct conf_token conf_scan(struct conf_scanner *scanner);
/* Copies a WORD or STRING token's text to out, escapes resolved, and terminates it; out has room for the text and one
 * octet more. The length. */
size_t conf_token_copy(const struct conf_token *token, char *out);
/* The token as a message names it: 'word', "end of file", ... */
void conf_token_name(const struct conf_token *token, char *out, size_t size);
