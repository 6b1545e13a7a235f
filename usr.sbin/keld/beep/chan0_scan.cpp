/*
 * Scanner of channel 0 messages: one pass over the payload, a stack of states, no allocation but a record for each
 * profile.
 *
 * It knows <greeting>, <start>, <profile>, <close>, <ok> and <error> and their attributes, and nothing else of XML.
 * Each octet goes to the state on top of the stack. A state may replace itself, or push states that run first and pop
 * themselves. The three targets say what becomes of the next value: where its octets are counted, where its offset in
 * the payload goes, and where its address goes. Values are made into strings in place, by a zero over the octet
 * behind them.
 *
 * After a fault the top state is FAILED and stays so; a message is good if the last octet leaves EPILOG on top.
 *
 * True during a scan:
 *   - the stack holds no more than a handful of states, since an element may stand only in the root element and only a
 *     <profile> there; SCAN_DEPTH is never reached;
 *   - every counted octet was scanned, so data + length of a profile stays within the payload;
 *   - no store goes outside the payload: one that would is left out (scan_store_zero).
 */
#include "usr.sbin/keld/beep/chan0_scan.h"

#include "usr.sbin/keld/beep/beep_private.h"

#include <stddef.h>
#include <stdlib.h>

extern "C" {

static constexpr char ERR_NOT_WELL_FORMED[] = "Invalid message: XML not well formed";
static constexpr char ERR_ELEMENT[] = "Invalid message: unexpected element.";
static constexpr char ERR_PARSE[] = "Invalid message: XML parse error";

enum scan_state : uint8_t {
    SCAN_START, SCAN_PROLOG, SCAN_EPILOG, SCAN_TAG, SCAN_BANG,
    SCAN_GREETING_ATTRS, SCAN_START_ATTRS, SCAN_CLOSE_ATTRS, SCAN_ERROR_ATTRS, SCAN_PROFILE_NEW, SCAN_PROFILE_ATTRS,
    SCAN_OK_BODY, SCAN_EMPTY_END, SCAN_CLOSE_END, SCAN_CONTENT_FIRST, SCAN_CONTENT, SCAN_CDATA,
    SCAN_ATTR_EQ, SCAN_ATTR_QUOTE, SCAN_ATTR_SINGLE, SCAN_ATTR_DOUBLE, SCAN_MATCH, SCAN_FAILED,
    SCAN_STATES
};

const uint16_t XML_UTF8_charset[256] = {
    // 0 to 31: forbidden, but for tab, line feed and carriage return
    0x8000, 0x8000, 0x8000, 0x8000, 0x8000, 0x8000, 0x8000, 0x8000, 0x8000, 2, 2, 0x8000, 0x8000, 2, 0x8000, 0x8000,
    0x8000, 0x8000, 0x8000, 0x8000, 0x8000, 0x8000, 0x8000, 0x8000,
    0x8000, 0x8000, 0x8000, 0x8000, 0x8000, 0x8000, 0x8000, 0x8000,
    2,   // space; the rest have no class
};

static bool is_space(unsigned char octet)
{
    return (XML_UTF8_charset[octet] & XML_CLASS_SPACE) != 0;
}

/* --- the stack -------------------------------------------------------------------------------------------------- */

static void replace(struct scan *s, enum scan_state state)
{
    s->states[s->top] = state;
}

static void push(struct scan *s, enum scan_state state)
{
    s->states[++s->top] = state;
}

static void pop(struct scan *s)
{
    s->top--;
}

static void fail(struct scan *s, const char *text)
{
    dbgpr("%s\n", text);
    replace(s, SCAN_FAILED);
}

static void push_match(struct scan *s, const char *rest, const char *error)
{
    s->match = rest;
    s->error = error;
    push(s, SCAN_MATCH);
}

/* --- values ----------------------------------------------------------------------------------------------------- */

static void count_octets(struct scan *s, int32_t octets)
{
    if (s->count_target) *s->count_target += octets;
}

/* The pending value begins at the octet at pos. */
static void begin_value(struct scan *s, int32_t pos)
{
    if (s->address_target) *s->address_target = s->payload + pos;
    if (s->offset_target) *s->offset_target = pos;
    s->address_target = nullptr;
    s->offset_target = nullptr;
}

void scan_store_zero(struct scan *s, int64_t at)
{
    if (at >= 0 && at <= s->size) s->payload[at] = '\0';
}

static void target_value(struct scan *s, struct scan_value *value)
{
    s->count_target = &value->length;
    s->offset_target = &value->offset;
}

/* --- attributes ------------------------------------------------------------------------------------------------- */

struct attr_row {
    enum scan_state ar_state;
    const char *ar_name;   // its first letter selects it
    size_t ar_value;       // where the scan_value stands in struct scan
};

static constexpr struct attr_row attr_rows[] = {
    { SCAN_GREETING_ATTRS, "features", offsetof(struct scan, features) },
    { SCAN_GREETING_ATTRS, "localize", offsetof(struct scan, localize) },
    { SCAN_START_ATTRS, "number", offsetof(struct scan, number) },
    { SCAN_START_ATTRS, "serverName", offsetof(struct scan, server_name) },
    { SCAN_CLOSE_ATTRS, "code", offsetof(struct scan, code) },
    { SCAN_CLOSE_ATTRS, "xml:lang", offsetof(struct scan, xml_lang) },
    { SCAN_CLOSE_ATTRS, "number", offsetof(struct scan, number) },
    { SCAN_ERROR_ATTRS, "code", offsetof(struct scan, code) },
    { SCAN_ERROR_ATTRS, "xml:lang", offsetof(struct scan, xml_lang) },
    { SCAN_PROFILE_ATTRS, "encoding", offsetof(struct scan, encoding) },
    { SCAN_PROFILE_ATTRS, "uri", offsetof(struct scan, uri) },
};

static constexpr struct {
    enum scan_state ae_state;
    const char *ae_error;
} attr_errors[] = {
    { SCAN_GREETING_ATTRS, "Invalid message: greeting, invalid attribute." },
    { SCAN_START_ATTRS, "Invalid message: start, invalid attribute." },
    { SCAN_CLOSE_ATTRS, "Invalid message: close, invalid attribute." },
    { SCAN_ERROR_ATTRS, "Invalid message: error, invalid attribute." },
    { SCAN_PROFILE_ATTRS, "Invalid message: profile, invalid attribute." },
};

static const char *attr_error(uint8_t state)
{
    for (const auto &row : attr_errors)
        if (row.ae_state == state) return row.ae_error;
    return ERR_PARSE;
}

/* Begins to read the attribute of the top state that octet selects, or fails. */
static void read_attribute(struct scan *s, unsigned char octet)
{
    uint8_t state = s->states[s->top];
    for (const auto &row : attr_rows) {
        if (row.ar_state != state || static_cast<unsigned char>(row.ar_name[0]) != octet) continue;

        auto *value = reinterpret_cast<struct scan_value *>(reinterpret_cast<char *>(s) + row.ar_value);
        target_value(s, value);
        if (value == &s->uri && s->current) s->address_target = &s->current->uri;
        push(s, SCAN_ATTR_QUOTE);
        push(s, SCAN_ATTR_EQ);
        push_match(s, row.ar_name + 1, attr_error(state));
        return;
    }
    // An <error> that is given a number is refused in the words of whatever was read before it.
    fail(s, state == SCAN_ERROR_ATTRS && octet == 'n' ? s->error : attr_error(state));
}

/* The states that read attributes differ only in what the element's content is counted for. */
static void scan_attrs(struct scan *s, unsigned char octet)
{
    uint8_t state = s->states[s->top];
    bool has_text = state == SCAN_CLOSE_ATTRS || state == SCAN_ERROR_ATTRS;

    if (is_space(octet)) return;
    if (octet == '/') {
        replace(s, SCAN_EMPTY_END);
        if (has_text) target_value(s, &s->text);
    } else if (octet == '>') {
        push(s, SCAN_CONTENT_FIRST);
        if (has_text) target_value(s, &s->text);
        if (state == SCAN_PROFILE_ATTRS && s->current) {
            s->count_target = &s->current->length;
            s->offset_target = &s->content.offset;
            s->address_target = &s->current->data;
        }
    } else {
        read_attribute(s, octet);
    }
}

static void scan_attr_eq(struct scan *s, unsigned char octet)
{
    if (is_space(octet)) return;
    if (octet == '=')
        pop(s);
    else
        fail(s, s->error);
}

static void scan_attr_quote(struct scan *s, unsigned char octet)
{
    if (is_space(octet)) return;
    if (octet != '\'' && octet != '"') {
        fail(s, s->error);
        return;
    }
    replace(s, octet == '\'' ? SCAN_ATTR_SINGLE : SCAN_ATTR_DOUBLE);
    begin_value(s, s->pos + 1);
}

/* True if octet ended the value. */
static bool scan_attr_value(struct scan *s, unsigned char octet, unsigned char quote)
{
    if (octet != quote) {
        count_octets(s, 1);
        return false;
    }
    s->count_target = nullptr;
    pop(s);
    return true;
}

static void scan_attr_single(struct scan *s, unsigned char octet)
{
    if (scan_attr_value(s, octet, '\'')) scan_store_zero(s, s->pos);
}

static void scan_attr_double(struct scan *s, unsigned char octet)
{
    // Kept on purpose: the closing double quote stays, so a uri so quoted on a self-closed <profile/> runs on to the
    // next zero in the payload. Only the store at a closing tag ends it.
    (void)scan_attr_value(s, octet, '"');
}

/* --- tags ------------------------------------------------------------------------------------------------------- */

static constexpr struct element_row {
    const char *er_name;   // its first letter selects it
    char er_op;            // the message's, if the element is its root; 0 leaves it
    enum scan_state er_state;
} element_rows[] = {
    { "close", 'c', SCAN_CLOSE_ATTRS }, { "error", 'e', SCAN_ERROR_ATTRS }, { "greeting", 'g', SCAN_GREETING_ATTRS },
    // Kept on purpose: <ok/> has the op of <close> but cannot have its code, so no <ok/> is ever made a message.
    { "ok", 'c', SCAN_OK_BODY },
    { "profile", 0, SCAN_PROFILE_NEW }, { "start", 's', SCAN_START_ATTRS },
};

static const struct element_row *find_element(unsigned char octet)
{
    for (const auto &row : element_rows)
        if (static_cast<unsigned char>(row.er_name[0]) == octet) return &row;
    return nullptr;
}

static void scan_open_tag(struct scan *s, unsigned char octet)
{
    if (s->level != 0 && s->level != 1) {
        dbgpr("Programmer error: invalid parse level %d\n", s->level);
        replace(s, SCAN_FAILED);
        return;
    }
    const struct element_row *element = find_element(octet);
    if (!element || (s->level == 1 && element->er_state != SCAN_PROFILE_NEW)) {
        fail(s, ERR_ELEMENT);
        return;
    }

    if (element->er_state == SCAN_PROFILE_NEW) {
        if (s->op == 0 && s->frame_type != BEEP_MSGTYPE_RPY) {
            dbgpr("Invalid first element 'p' in '%c' frame\n", s->frame_type);
            replace(s, SCAN_FAILED);
            return;
        }
        if (s->op == 0) s->op = 's';
        s->profile_count++;
    } else {
        s->op = element->er_op;
    }
    s->names[s->top] = element->er_name;
    replace(s, element->er_state);
    push_match(s, element->er_name + 1, ERR_ELEMENT);
}

/* </profile>: makes strings of what the profile holds. False if it has no uri. */
static bool finish_profile(struct scan *s)
{
    struct chan0_profile *profile = s->current;
    if (!profile->uri) {
        fail(s, "chan0_parse: profile element missing required uri");
        return false;
    }
    // Kept on purpose: uri lengths of a message add up, so behind a second profile's uri the zero lands further on:
    // in its piggyback, which it cuts, or on octets still to be scanned, where it is a forbidden octet.
    scan_store_zero(s, profile->uri - s->payload + s->uri.length);
    if (profile->data) {
        // Kept on purpose: the last octet is taken for the ']' of a CDATA end; content without CDATA loses one.
        profile->length--;
        scan_store_zero(s, profile->data - s->payload + profile->length);
    }
    // Kept on purpose: one encoding holds for all profiles of the message that come after it.
    if (s->encoding.offset != 0) {
        char first = s->payload[s->encoding.offset];
        profile->encoded = first == 'N' || first == 'n' || first == '\0' ? '\0' : 'Y';
    }
    s->current = nullptr;
    return true;
}

static void scan_close_tag(struct scan *s)
{
    static constexpr char mismatch[] = "Invalid message: Unexpected XML close tag";
    int element = s->top - 2;   // below the content that this tag ends
    if (s->level == 0 || element < 0 || !s->names[element]) {
        fail(s, mismatch);   // a closing tag where nothing is open
        return;
    }

    const char *name = s->names[element];
    s->level--;
    s->states[element] = SCAN_CLOSE_END;
    pop(s);
    replace(s, SCAN_MATCH);
    s->match = name;
    s->error = mismatch;
    // Kept on purpose: the count of the profile's octets is not ended, so what follows it in the root element goes on
    // counting.
    if (name[0] == 'p' && s->current) (void)finish_profile(s);   // it has failed the scan itself
}

static void scan_tag(struct scan *s, unsigned char octet)
{
    if (octet == '!')
        replace(s, SCAN_BANG);
    else if (octet == '/')
        scan_close_tag(s);
    else
        scan_open_tag(s, octet);
}

static void scan_bang(struct scan *s, unsigned char octet)
{
    enum { CDATA_COUNTED = 7 };   // and "]]>" counts three, and the closing tag takes one off: the nine of "<![CDATA["

    if (octet != '[') {
        // Kept on purpose: the state does not fail; a comment prints this for each octet up to the next '['.
        dbgpr("%s\n", ERR_NOT_WELL_FORMED);
        return;
    }
    count_octets(s, CDATA_COUNTED);
    replace(s, SCAN_CDATA);
    push_match(s, "CDATA[", ERR_NOT_WELL_FORMED);
}

/* --- the other states ------------------------------------------------------------------------------------------- */

static void scan_prolog(struct scan *s, unsigned char octet)
{
    if (is_space(octet)) return;
    if (octet != '<') {
        fail(s, "Invalid message: does not start with XML tag.");
        return;
    }
    replace(s, SCAN_EPILOG);
    push(s, SCAN_TAG);
}

static void scan_start(struct scan *s, unsigned char octet)
{
    if (octet == 'C') {
        replace(s, SCAN_PROLOG);
        push_match(s, &BEEP_MIME_HEADER[1], "Invalid message: MIME header not correct.");
    } else {
        scan_prolog(s, octet);   // which white space leaves in START
    }
}

static void scan_epilog(struct scan *s, unsigned char octet)
{
    if (!is_space(octet)) fail(s, "Invalid message: trailing garbage");
}

static void scan_profile_new(struct scan *s, unsigned char octet)
{
    auto *profile = static_cast<struct chan0_profile *>(calloc(1, sizeof(struct chan0_profile)));
    if (!profile) {
        fail(s, "Memory allocation failed.");
        return;
    }
    *s->profiles_end = profile;
    s->profiles_end = &profile->next;
    s->current = profile;
    replace(s, SCAN_PROFILE_ATTRS);
    scan_attrs(s, octet);
}

static void scan_ok_body(struct scan *s, unsigned char octet)
{
    if (is_space(octet)) return;
    if (octet == '/')
        replace(s, SCAN_EMPTY_END);
    else
        fail(s, "Invalid message: ok, must be empty tag.");
}

static void scan_empty_end(struct scan *s, unsigned char octet)
{
    if (octet == '>')
        pop(s);
    else
        fail(s, ERR_PARSE);
}

static void scan_close_end(struct scan *s, unsigned char octet)
{
    if (!is_space(octet)) scan_empty_end(s, octet);
}

static void scan_content(struct scan *s, unsigned char octet)
{
    if (octet == '<')
        push(s, SCAN_TAG);
    else
        count_octets(s, 1);
}

static void scan_content_first(struct scan *s, unsigned char octet)
{
    s->level++;
    replace(s, SCAN_CONTENT);
    begin_value(s, s->pos);
    scan_content(s, octet);
}

static void scan_cdata(struct scan *s, unsigned char octet)
{
    count_octets(s, 1);
    if (octet == '>' && s->brackets >= 2)
        pop(s);   // Kept on purpose: brackets stays, so a '>' that opens the next CDATA section ends it
    else if (octet == ']')
        s->brackets++;
    else
        s->brackets = 0;
}

static void scan_match(struct scan *s, unsigned char octet)
{
    if (static_cast<unsigned char>(*s->match) != octet)
        fail(s, s->error);
    else if (*++s->match == '\0')
        pop(s);
}

static void scan_failed(struct scan *, unsigned char) {}

static constexpr struct {
    enum scan_state sr_state;
    void (*sr_scan)(struct scan *s, unsigned char octet);
} scan_rows[] = {
    { SCAN_START, scan_start },
    { SCAN_PROLOG, scan_prolog },
    { SCAN_EPILOG, scan_epilog },
    { SCAN_TAG, scan_tag },
    { SCAN_BANG, scan_bang },
    { SCAN_GREETING_ATTRS, scan_attrs },
    { SCAN_START_ATTRS, scan_attrs },
    { SCAN_CLOSE_ATTRS, scan_attrs },
    { SCAN_ERROR_ATTRS, scan_attrs },
    { SCAN_PROFILE_NEW, scan_profile_new },
    { SCAN_PROFILE_ATTRS, scan_attrs },
    { SCAN_OK_BODY, scan_ok_body },
    { SCAN_EMPTY_END, scan_empty_end },
    { SCAN_CLOSE_END, scan_close_end },
    { SCAN_CONTENT_FIRST, scan_content_first },
    { SCAN_CONTENT, scan_content },
    { SCAN_CDATA, scan_cdata },
    { SCAN_ATTR_EQ, scan_attr_eq },
    { SCAN_ATTR_QUOTE, scan_attr_quote },
    { SCAN_ATTR_SINGLE, scan_attr_single },
    { SCAN_ATTR_DOUBLE, scan_attr_double },
    { SCAN_MATCH, scan_match },
    { SCAN_FAILED, scan_failed },
};

static constexpr bool rows_stand_in_order()
{
    for (size_t row = 0; row < SCAN_STATES; row++)
        if (scan_rows[row].sr_state != row) return false;
    return true;
}
static_assert(sizeof scan_rows / sizeof *scan_rows == SCAN_STATES && rows_stand_in_order());

bool scan_payload(struct scan *s)
{
    for (s->pos = 0; s->pos < s->size; s->pos++) {
        unsigned char octet = static_cast<unsigned char>(s->payload[s->pos]);
        if (XML_UTF8_charset[octet] & XML_CLASS_FORBIDDEN) {
            dbgpr("Invalid message: non-XML supported character %2x\n", octet);
            replace(s, SCAN_FAILED);
        }
        scan_rows[s->states[s->top]].sr_scan(s, octet);
    }
    if (s->states[s->top] == SCAN_EPILOG) return true;
    dbgpr("%s\n", ERR_NOT_WELL_FORMED);
    return false;
}

}   // extern "C"
