/*
 * Parser: configuration text to tree, by the schema.
 *
 *   block     = statement...                                   up to } or, at the top, the end of the file
 *   statement = STANZA { block } | LIST element | LIST { element... } | LEAF value ; | PRESENCE ;
 *   element   = name { block } | name ;
 *   An inline stanza may also be followed by one statement of its block.
 *
 * Keywords are words; names and values are words or strings. Every function parses one rule of these and is entered
 * with its first token current. False means that the fault has been told and parsing is over: the first fault is the
 * only one.
 *
 * Messages name the token that they found, but none that stands behind a secret on its line: it may be the rest of one
 * that lacks its quotes.
 *
 * The recursion follows the schema: a block is entered only through a keyword that the schema has at this place, so its
 * depth is that of the table, whatever the text holds.
 */
#include "platform/confdb/tree.h"

#include "platform/confdb/scan.h"
#include "platform/text/text.h"

struct parser {
    struct conf_scanner pa_scanner;
    struct conf_token pa_token;    // the current one
    struct conf_tree *pa_tree;     // owned until conf_parse returns it
    char *pa_error;                // the caller's; empty while there is no fault
    size_t pa_error_size;
    uint32_t pa_secret_line;       // of the last secret's value; 0 if there was none
};

static bool parse_block(struct parser *parser, struct ddl_object *object);
static bool parse_statement(struct parser *parser, struct ddl_object *object);

static void next_token(struct parser *parser)
{
    parser->pa_token = conf_scan(&parser->pa_scanner);
}

static bool is_text(const struct conf_token *token)
{
    return token->ct_kind == CONF_TOKEN_WORD || token->ct_kind == CONF_TOKEN_STRING;
}

/* The fault that the current token is not what was expected. Always false. */
static bool fault(struct parser *parser, const char *expected)
{
    const struct conf_token *token = &parser->pa_token;
    char found[CONF_REASON_MAX];
    size_t at = snprintf_safe(parser->pa_error, parser->pa_error_size, "%s:%u:%u: ", conf_tree_file(parser->pa_tree),
                              token->ct_line, token->ct_column);
    char *rest = parser->pa_error + at;
    size_t rest_size = parser->pa_error_size - at;
    if (is_text(token) && token->ct_line == parser->pa_secret_line)
        (void)snprintf_safe(found, sizeof found, "text behind a secret");
    else
        conf_token_name(token, found, sizeof found);
    if (token->ct_kind == CONF_TOKEN_BAD)
        (void)snprintf_safe(rest, rest_size, "%.*s", static_cast<int>(token->ct_text.size()), token->ct_text.data());
    else
        (void)snprintf_safe(rest, rest_size, "found %s, expected %s", found, expected);
    return false;
}

static bool fault_memory(struct parser *parser)
{
    (void)snprintf_safe(parser->pa_error, parser->pa_error_size, "%s: out of memory", conf_tree_file(parser->pa_tree));
    return false;
}

static bool fault_keyword(struct parser *parser, const struct ddl_object *object)
{
    char expected[CONF_REASON_MAX];
    conf_expected_keywords(object->do_row, expected, sizeof expected);
    return fault(parser, expected);
}

static bool take(struct parser *parser, enum conf_token_kind kind, const char *expected)
{
    if (parser->pa_token.ct_kind != kind) return fault(parser, expected);
    next_token(parser);
    return true;
}

/* The current name or value, kept in the tree; null if memory is out. */
static const char *keep_text(struct parser *parser)
{
    char *text = conf_tree_room(parser->pa_tree, parser->pa_token.ct_text.size() + 1);
    if (text) (void)conf_token_copy(&parser->pa_token, text);
    return text;
}

/* The object of row below parent, made at the current token's place if it is not there. Null if memory is out. */
static struct ddl_object *object_here(struct parser *parser, struct ddl_object *parent, const struct conf_row *row,
                                      const char *name)
{
    struct ddl_object *object = conf_tree_add(parser->pa_tree, parent, row, name);
    if (object && object->do_line == 0) {
        object->do_line = parser->pa_token.ct_line;
        object->do_column = parser->pa_token.ct_column;
    }
    return object;
}

static bool parse_braces(struct parser *parser, struct ddl_object *object)
{
    return take(parser, CONF_TOKEN_OPEN, "{") && parse_block(parser, object) && take(parser, CONF_TOKEN_CLOSE, "}");
}

static bool parse_element(struct parser *parser, struct ddl_object *list)
{
    if (!is_text(&parser->pa_token)) return fault(parser, "a name");
    const char *name = keep_text(parser);
    struct ddl_object *element = name ? object_here(parser, list, list->do_row, name) : nullptr;
    if (!element) return fault_memory(parser);
    next_token(parser);
    if (parser->pa_token.ct_kind == CONF_TOKEN_OPEN) return parse_braces(parser, element);
    return take(parser, CONF_TOKEN_SEMICOLON, "{ or ;");
}

static bool parse_list(struct parser *parser, struct ddl_object *list)
{
    if (parser->pa_token.ct_kind != CONF_TOKEN_OPEN)
        return is_text(&parser->pa_token) ? parse_element(parser, list) : fault(parser, "a name or {");
    next_token(parser);
    while (parser->pa_token.ct_kind != CONF_TOKEN_CLOSE) {
        if (!is_text(&parser->pa_token)) return fault(parser, "a name or }");
        if (!parse_element(parser, list)) return false;
    }
    next_token(parser);
    return true;
}

static bool parse_leaf(struct parser *parser, struct ddl_object *leaf)
{
    if (!is_text(&parser->pa_token)) return fault(parser, "a value");
    leaf->do_text = keep_text(parser);
    if (!leaf->do_text) return fault_memory(parser);
    leaf->do_line = parser->pa_token.ct_line;
    if (leaf->do_row->cr_value == CONF_SECRET) parser->pa_secret_line = leaf->do_line;
    leaf->do_column = parser->pa_token.ct_column;
    next_token(parser);
    return take(parser, CONF_TOKEN_SEMICOLON, ";");
}

static bool parse_inline(struct parser *parser, struct ddl_object *stanza)
{
    if (parser->pa_token.ct_kind == CONF_TOKEN_OPEN) return parse_braces(parser, stanza);
    return parse_statement(parser, stanza);
}

static bool parse_statement(struct parser *parser, struct ddl_object *object)
{
    const struct conf_token *token = &parser->pa_token;
    const struct conf_row *row = nullptr;
    if (token->ct_kind == CONF_TOKEN_WORD) row = conf_row_child(object->do_row, token->ct_text);
    if (!row) return fault_keyword(parser, object);
    struct ddl_object *child = object_here(parser, object, row, nullptr);
    if (!child) return fault_memory(parser);
    next_token(parser);
    switch (row->cr_shape) {
    case CONF_STANZA:   return parse_braces(parser, child);
    case CONF_INLINE:   return parse_inline(parser, child);
    case CONF_LIST:     return parse_list(parser, child);
    case CONF_LEAF:     return parse_leaf(parser, child);
    case CONF_PRESENCE: return take(parser, CONF_TOKEN_SEMICOLON, ";");
    }
    return false;
}

static bool parse_block(struct parser *parser, struct ddl_object *object)
{
    enum conf_token_kind end = object->do_parent ? CONF_TOKEN_CLOSE : CONF_TOKEN_EOF;
    while (parser->pa_token.ct_kind != end)
        if (!parse_statement(parser, object)) return false;
    return true;
}

/* The last component of a path: what messages name. */
static const char *base_name(const char *path)
{
    const char *base = path;
    for (const char *at = path; *at != '\0'; at++)
        if (*at == '/' && at[1] != '\0') base = at + 1;
    return base;
}

struct conf_tree *conf_parse(const char *file, const char *text, size_t length, char *error, size_t size)
{
    file = base_name(file);
    if (length > DDL_ACCESS_TEXT_MAX) {
        (void)snprintf_safe(error, size, "%s: longer than %d octets", file, DDL_ACCESS_TEXT_MAX);
        return nullptr;
    }
    struct parser parser = {};
    parser.pa_error = error;
    parser.pa_error_size = size;
    parser.pa_tree = conf_tree_new(file);
    if (!parser.pa_tree) {
        (void)snprintf_safe(error, size, "%s: out of memory", file);
        return nullptr;
    }
    conf_scan_start(&parser.pa_scanner, text, length);
    next_token(&parser);
    if (parse_block(&parser, conf_tree_top(parser.pa_tree))) return parser.pa_tree;
    conf_tree_free(parser.pa_tree);
    return nullptr;
}
