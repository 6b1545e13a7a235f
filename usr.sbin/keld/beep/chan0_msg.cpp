/*
 * Channel 0 messages as records, and as text written.
 *
 * A record owns all that hangs on it; copies are deep. The formatters write what a <greeting> and its kin look like
 * on the wire, into a buffer of fixed size, and escape nothing: what they are given must be fit for XML.
 */
#include "platform/text/text.h"
#include "usr.sbin/keld/beep/beep_private.h"

#include <inttypes.h>
#include <stdlib.h>
#include <string.h>

extern "C" {

/* --- records ---------------------------------------------------------------------------------------------------- */

struct beep_diagnostic *beep_diagnostic_new(int32_t code, const char *text)
{
    auto *diagnostic = static_cast<struct beep_diagnostic *>(calloc(1, sizeof(struct beep_diagnostic)));
    if (!diagnostic) return nullptr;

    diagnostic->code = code;
    if (text) {
        diagnostic->message = strdup(text);
        if (!diagnostic->message) {
            free(diagnostic);
            return nullptr;
        }
    }
    return diagnostic;
}

void beep_diagnostic_delete(struct beep_diagnostic *diagnostic)
{
    if (!diagnostic) return;
    free(diagnostic->message);
    free(diagnostic);
}

static void profiles_delete(struct chan0_profile *profile)
{
    while (profile) {
        struct chan0_profile *next = profile->next;
        free(profile->uri);
        free(profile->data);
        free(profile);
        profile = next;
    }
}

static struct chan0_profile *profile_copy(const struct chan0_profile *from)
{
    auto *copy = static_cast<struct chan0_profile *>(calloc(1, sizeof(struct chan0_profile)));
    if (!copy) return nullptr;

    bool has_data = from->data && from->length > 0;
    copy->encoded = from->encoded;
    copy->uri = strdup(from->uri);
    if (has_data) copy->data = static_cast<char *>(malloc(static_cast<size_t>(from->length)));
    if (!copy->uri || (has_data && !copy->data)) {
        profiles_delete(copy);
        return nullptr;
    }
    if (has_data) {
        memcpy(copy->data, from->data, static_cast<size_t>(from->length));
        copy->length = from->length;
    }
    return copy;
}

/* Appends copies of the list to *to. False if memory ran out; what was copied then hangs on *to. */
static bool profiles_copy(const struct chan0_profile *from, struct chan0_profile **to)
{
    for (; from; from = from->next) {
        *to = profile_copy(from);
        if (!*to) return false;
        to = &(*to)->next;
    }
    return true;
}

struct chan0_msg *chan0_msg_new(uint16_t channel, int32_t msgno, char type, char op,
                                const struct beep_diagnostic *diagnostic, const struct chan0_profile *profiles)
{
    auto *msg = static_cast<struct chan0_msg *>(calloc(1, sizeof(struct chan0_msg)));
    if (!msg) return nullptr;

    msg->channel = channel;
    msg->msgno = msgno;
    msg->type = type;
    msg->op = op;
    if (diagnostic) msg->diagnostic = beep_diagnostic_new(diagnostic->code, diagnostic->message);
    if ((diagnostic && !msg->diagnostic) || !profiles_copy(profiles, &msg->profiles)) {
        chan0_msg_delete(msg);
        return nullptr;
    }
    return msg;
}

struct chan0_msg *chan0_msg_clone(const struct chan0_msg *msg)
{
    return chan0_msg_new(msg->channel, msg->msgno, msg->type, msg->op, msg->diagnostic, msg->profiles);
}

void chan0_msg_delete(struct chan0_msg *msg)
{
    if (!msg) return;
    beep_diagnostic_delete(msg->diagnostic);
    profiles_delete(msg->profiles);
    free(msg);
}

/* --- text ------------------------------------------------------------------------------------------------------- */

/* What a formatter has written so far. */
struct text_out {
    char *to_buf;
    size_t to_size, to_used;
};

/* Appends, cut at the buffer's end. */
[[gnu::format(printf, 2, 3)]] static void put(struct text_out *out, const char *format, ...)
{
    va_list args;
    va_start(args, format);
    out->to_used += vsnprintf_safe(out->to_buf + out->to_used, out->to_size - out->to_used, format, args);
    va_end(args);
}

static void put_profile(struct text_out *out, const struct beep_profile *profile, const char *piggyback)
{
    put(out, "<profile uri='%s' ", profile->pro_uri);
    if (piggyback)
        put(out, "><![CDATA[%s]]></profile>", piggyback);
    else
        put(out, "/>");
}

/* Ends an element whose opening tag is open: with text as its content, or empty. */
static void put_end(struct text_out *out, const char *element, const char *text)
{
    if (text)
        put(out, ">%s</%s>", text, element);
    else
        put(out, "/>");
}

size_t chan0_fmt_greeting(char *buf, size_t size, const struct beep_profile *profiles, int count)
{
    struct text_out out = { buf, size, 0 };
    put(&out, "%s<greeting>\n", BEEP_MIME_HEADER);
    for (int row = 0; row < count; row++) put_profile(&out, &profiles[row], nullptr);
    put(&out, "</greeting>");
    return out.to_used;
}

size_t chan0_fmt_start(char *buf, size_t size, uint16_t channel, const struct beep_profile *profiles, int count,
                       const char *const *piggybacks)
{
    struct text_out out = { buf, size, 0 };
    put(&out, "%s<start number='%hd'>\n", BEEP_MIME_HEADER, static_cast<int16_t>(channel));
    for (int row = 0; row < count; row++) put_profile(&out, &profiles[row], piggybacks ? piggybacks[row] : nullptr);
    put(&out, "</start>");
    return out.to_used;
}

size_t chan0_fmt_profile(char *buf, size_t size, const struct beep_profile *profile, const char *piggyback,
                         int with_mime)
{
    struct text_out out = { buf, size, 0 };
    if (with_mime) put(&out, "%s", BEEP_MIME_HEADER);
    put_profile(&out, profile, piggyback);
    return out.to_used;
}

size_t chan0_fmt_error(char *buf, size_t size, int32_t code, const char *text)
{
    struct text_out out = { buf, size, 0 };
    put(&out, "%s<error code='%3" PRId32 "' ", BEEP_MIME_HEADER, code);
    put_end(&out, "error", text);
    return out.to_used;
}

size_t chan0_fmt_close(char *buf, size_t size, uint16_t channel, int32_t code, const char *text)
{
    struct text_out out = { buf, size, 0 };
    put(&out, "%s<close number='%d' code='%3" PRId32 "' ", BEEP_MIME_HEADER, channel, code);
    put_end(&out, "close", text);
    return out.to_used;
}

}   // extern "C"
