/*
 * Scanner of configuration text.
 *
 *   - White space and comments separate tokens: from # to the end of the line, and between the marks of C, not nested.
 *     A # inside a word belongs to the word, so that nothing is cut off a name or a secret in silence.
 *   - A word ends at white space, at one of { } ; " and where a comment of C begins.
 *   - A string stands between double quotes on one line. In it \" and \\ stand for the second of the two; any other
 *     backslash is itself. Control characters other than the line end are let through: the value's rule refuses them,
 *     and its message can say which value it was.
 *   - A zero octet is refused outside comments, since values are handed out as zero-terminated texts; so is every other
 *     control character outside strings and comments.
 *
 * True at all times: cs_at never passes cs_end, and every call but the last consumes at least one octet.
 */
#include "platform/confdb/scan.h"

#include "platform/confdb/schema.h"
#include "platform/text/text.h"

using std::string_view;

void conf_scan_start(struct conf_scanner *scanner, const char *text, size_t length)
{
    *scanner = { text, text + length, 1, 1 };
}

static bool at_end(const struct conf_scanner *scanner)
{
    return scanner->cs_at == scanner->cs_end;
}

static bool looking_at(const struct conf_scanner *scanner, string_view text)
{
    size_t left = static_cast<size_t>(scanner->cs_end - scanner->cs_at);
    return string_view(scanner->cs_at, left).starts_with(text);
}

static void advance(struct conf_scanner *scanner, size_t octets)
{
    for (; octets > 0; octets--) {
        bool line_end = *scanner->cs_at++ == '\n';
        scanner->cs_line += line_end ? 1 : 0;
        scanner->cs_column = line_end ? 1 : scanner->cs_column + 1;
    }
}

static bool is_space(char c)
{
    return c == ' ' || (c >= '\t' && c <= '\r');
}

static bool is_word_octet(char c)
{
    bool control = (c >= 0 && c < ' ') || c == 0x7f;
    return !control && c != ' ' && c != '{' && c != '}' && c != ';' && c != '"';
}

/* Skips a comment that begins here. False if it does not end; the scanner is then where it was. */
static bool skip_comment(struct conf_scanner *scanner)
{
    static constexpr string_view open = "/*", close = "*/";
    string_view rest(scanner->cs_at, static_cast<size_t>(scanner->cs_end - scanner->cs_at));
    if (rest.starts_with(open)) {
        size_t end = rest.find(close, open.size());
        if (end == string_view::npos) return false;
        advance(scanner, end + close.size());
        return true;
    }
    size_t end = rest.find('\n');
    advance(scanner, end == string_view::npos ? rest.size() : end);
    return true;
}

/* True at the next token or the end; false at a comment that does not end. */
static bool skip_blank(struct conf_scanner *scanner)
{
    while (!at_end(scanner)) {
        if (is_space(*scanner->cs_at))
            advance(scanner, 1);
        else if (!looking_at(scanner, "#") && !looking_at(scanner, "/*"))
            return true;
        else if (!skip_comment(scanner))
            return false;
    }
    return true;
}

static struct conf_token token_here(const struct conf_scanner *scanner, enum conf_token_kind kind, string_view text)
{
    return { kind, scanner->cs_line, scanner->cs_column, text };
}

static struct conf_token scan_string(struct conf_scanner *scanner)
{
    const char *end = scanner->cs_at + 1;
    while (end != scanner->cs_end && *end != '"' && *end != '\n' && *end != '\0') {
        bool escape = *end == '\\' && end + 1 != scanner->cs_end && (end[1] == '"' || end[1] == '\\');
        end += escape ? 2 : 1;
    }
    if (end != scanner->cs_end && *end == '\0')
        return token_here(scanner, CONF_TOKEN_BAD, "found a zero octet in a string, expected text");
    if (end == scanner->cs_end || *end == '\n')
        return token_here(scanner, CONF_TOKEN_BAD, "found a string without its end, expected \" on the same line");
    string_view text(scanner->cs_at + 1, static_cast<size_t>(end - scanner->cs_at - 1));
    struct conf_token token = token_here(scanner, CONF_TOKEN_STRING, text);
    advance(scanner, text.size() + 2);
    return token;
}

static struct conf_token scan_word(struct conf_scanner *scanner)
{
    struct conf_token token = token_here(scanner, CONF_TOKEN_WORD, {});
    const char *start = scanner->cs_at;
    while (!at_end(scanner) && is_word_octet(*scanner->cs_at) && !looking_at(scanner, "/*")) advance(scanner, 1);
    token.ct_text = { start, static_cast<size_t>(scanner->cs_at - start) };
    if (token.ct_text.empty()) {
        token.ct_kind = CONF_TOKEN_BAD;
        token.ct_text = "found a control character, expected text";
    }
    return token;
}

static struct conf_token scan_mark(struct conf_scanner *scanner, enum conf_token_kind kind)
{
    struct conf_token token = token_here(scanner, kind, { scanner->cs_at, 1 });
    advance(scanner, 1);
    return token;
}

struct conf_token conf_scan(struct conf_scanner *scanner)
{
    if (!skip_blank(scanner))
        return token_here(scanner, CONF_TOKEN_BAD, "found a comment without its end, expected */");
    if (at_end(scanner)) return token_here(scanner, CONF_TOKEN_EOF, {});
    switch (*scanner->cs_at) {
    case '{': return scan_mark(scanner, CONF_TOKEN_OPEN);
    case '}': return scan_mark(scanner, CONF_TOKEN_CLOSE);
    case ';': return scan_mark(scanner, CONF_TOKEN_SEMICOLON);
    case '"': return scan_string(scanner);
    default:  return scan_word(scanner);
    }
}

size_t conf_token_copy(const struct conf_token *token, char *out)
{
    size_t length = 0;
    string_view text = token->ct_text;
    for (size_t i = 0; i < text.size(); i++) {
        bool escape = token->ct_kind == CONF_TOKEN_STRING && text[i] == '\\' && i + 1 < text.size() &&
                      (text[i + 1] == '"' || text[i + 1] == '\\');
        if (escape) i++;
        out[length++] = text[i];
    }
    out[length] = '\0';
    return length;
}

void conf_token_name(const struct conf_token *token, char *out, size_t size)
{
    if (token->ct_kind == CONF_TOKEN_EOF)
        (void)snprintf_safe(out, size, "end of file");
    else
        conf_quote(token->ct_text, out, size);
}
