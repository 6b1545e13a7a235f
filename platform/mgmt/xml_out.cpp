/*
 * XML output: one line is put together here and handed to the send method when it is complete.
 *
 * The line's room is that of the longest one that can be made: an opening tag with its attributes, a text of
 * XML_TEXT_MAX octets all of which are markup, a closing tag. A piece that does not fit, as when content is added to
 * one leaf again and again, is left out whole, and tags are kept room for, so that a document stays well-formed.
 */
#include "platform/mgmt/xml_out.h"

#include "platform/process/process.h"
#include "platform/text/text.h"

#include <errno.h>
#include <stdarg.h>
#include <string.h>

enum {
    ESCAPED_MAX = 6 * XML_TEXT_MAX,   // "&quot;" for an octet
    TAG_MAX = 1024,                   // a tag with its attributes
    LINE_SIZE = TAG_MAX + ESCAPED_MAX + TAG_MAX + 1,
    URI_MAX = 255,
    ATTRIBUTE_SIZE = sizeof " xmlns=\"\"" + 6 * URI_MAX,
};

static struct {
    char ln_text[LINE_SIZE];
    size_t ln_length;
} line;

static xml_send_method send_method;
static xml_get_method get_method;
static xml_eof_method eof_method;

/* --- methods ---------------------------------------------------------------------------------------------------- */

void xml_set_send_method(xml_send_method method)
{
    send_method = method;
}

void xml_set_get_method(xml_get_method method)
{
    get_method = method;
}

void xml_set_eof_method(xml_eof_method method)
{
    eof_method = method;
}

char *xml_get_line(struct mgmt_sock *msp)
{
    if (get_method) return get_method(msp, MGMT_INPUT_LINE);
    errno = EINVAL;
    return nullptr;
}

bool xml_at_end(struct mgmt_sock *msp)
{
    return !eof_method || eof_method(msp) != 0;
}

int xml_send_line(struct mgmt_sock *msp, const char *text)
{
    return send_method ? send_method(msp, text) : -1;
}

/* --- the line --------------------------------------------------------------------------------------------------- */

/* keep octets of room are left for what must still fit. */
static void add(const char *text, size_t length, size_t keep)
{
    if (length + keep >= sizeof line.ln_text - line.ln_length) return;
    memcpy(line.ln_text + line.ln_length, text, length);
    line.ln_length += length;
}

/* The entity for a character of markup, or null. */
static const char *entity_of(char character)
{
    static constexpr struct {
        char en_character;
        const char *en_entity;
    } entities[] = { { '&', "&amp;" }, { '<', "&lt;" }, { '>', "&gt;" }, { '"', "&quot;" } };
    for (const auto &row : entities)
        if (row.en_character == character) return row.en_entity;
    return nullptr;
}

/* Writes text escaped to out, which is long enough for six octets each. The octets written; a terminator stands
 * behind. */
static size_t escape(const char *text, char *out)
{
    char *start = out;
    for (; *text; text++) {
        if (const char *entity = entity_of(*text)) out = stpcpy(out, entity);
        else *out++ = *text >= ' ' && *text <= '~' ? *text : '?';
    }
    *out = '\0';
    return static_cast<size_t>(out - start);
}

[[gnu::format(printf, 2, 0)]] static void add_text(int flags, const char *format, va_list args)
{
    char text[XML_TEXT_MAX + 1], escaped[ESCAPED_MAX + 1];
    size_t length = vsnprintf_safe(text, sizeof text, format, args);
    if (flags & XML_ESCAPE) add(escaped, escape(text, escaped), TAG_MAX);
    else add(text, length, TAG_MAX);
}

/* Hands the line over if flags say that it ends here. */
static int end_line(struct mgmt_sock *msp, int flags)
{
    if (!(flags & XML_NEWLINE)) return 0;
    line.ln_text[line.ln_length] = '\0';
    line.ln_length = 0;
    return xml_send_line(msp, line.ln_text);
}

/* --- elements --------------------------------------------------------------------------------------------------- */

int xml_send_open(struct mgmt_sock *msp, const struct odl_tag *tag, int flags, const char *attributes, int)
{
    char text[TAG_MAX];
    const char *end = flags & XML_EMPTY ? "/>" : ">";
    size_t length = snprintf_safe(text, sizeof text, "<%s%s%s", tag->ot_name, attributes ? attributes : "", end);
    add(text, length, 0);
    return end_line(msp, flags);
}

int xml_send_close(struct mgmt_sock *msp, const struct odl_tag *tag, int flags)
{
    char text[TAG_MAX];
    add(text, snprintf_safe(text, sizeof text, "</%s>", tag->ot_name), 0);
    return end_line(msp, flags);
}

int xml_jxo_data(struct mgmt_sock *, int flags, const char *format, ...)
{
    va_list args;
    va_start(args, format);
    add_text(flags, format, args);
    va_end(args);
    return 0;
}

int xml_send_all(struct mgmt_sock *msp, const struct odl_tag *tag, int flags, const char *format, ...)
{
    (void)xml_send_open(msp, tag, 0, nullptr, 0);
    va_list args;
    va_start(args, format);
    add_text(flags, format, args);
    va_end(args);
    return xml_send_close(msp, tag, XML_NEWLINE);
}

const char *xml_attr_seconds(time_t seconds)
{
    static char text[ATTRIBUTE_SIZE];
    (void)snprintf_safe(text, sizeof text, " seconds=\"%lld\"", static_cast<long long>(seconds));
    return text;
}

const char *xml_attr_xmlns(const char *uri)
{
    static char text[ATTRIBUTE_SIZE];
    char cut[URI_MAX + 1], escaped[6 * URI_MAX + 1];
    (void)snprintf_safe(cut, sizeof cut, "%s", uri);
    (void)escape(cut, escaped);
    (void)snprintf_safe(text, sizeof text, " xmlns=\"%s\"", escaped);
    return text;
}

/* --- version ---------------------------------------------------------------------------------------------------- */

enum { TAG_VERSION_INFORMATION = 1, TAG_NAME, TAG_RELEASE, TAG_HOST_NAME, TAG_FACTS };

static const struct odl_tag version_tags[] = {
    { "NONE", 0 },
    { "version-information", ODL_CONTAINER },
    { "name", ODL_TEXT },
    { "release", ODL_TEXT },
    { "host-name", ODL_TEXT },
    { "compiler", ODL_TEXT },      // from here on in the order of enum version_fact
    { "build", ODL_TEXT },
    { "tls-library", ODL_TEXT },
    { "c-library", ODL_TEXT },
    { nullptr, 0 },
};

int xml_show_version(struct mgmt_sock *msp, const char *name, int detail)
{
    const char *shown = name ? name : program_invocation_short_name;
    (void)xml_send_open(msp, &version_tags[TAG_VERSION_INFORMATION], XML_NEWLINE, nullptr, 0);
    (void)xml_send_all(msp, &version_tags[TAG_NAME], XML_ESCAPE, "%s", shown);
    (void)xml_send_all(msp, &version_tags[TAG_RELEASE], XML_ESCAPE, "%s", KELD_RELEASE);
    (void)xml_send_all(msp, &version_tags[TAG_HOST_NAME], XML_ESCAPE, "%s", system_name());
    for (int fact = 0; detail && fact < VERSION_FACTS; fact++)
        (void)xml_send_all(msp, &version_tags[TAG_FACTS + fact], XML_ESCAPE, "%s", version_fact(fact));
    return xml_send_close(msp, &version_tags[TAG_VERSION_INFORMATION], XML_NEWLINE);
}
