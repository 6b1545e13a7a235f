/*
 * Notification profile: a thin layer over the engine, which does the work.
 *
 * State is one channel number and one pending redirect, for the process. The number is set when the start request has
 * been queued, so texts sent before the confirmation fail in the engine, for want of a channel. Nothing clears it when
 * a session ends: it is stale then, and harmless, since the engine knows no such channel in a session that has ended or
 * is just beginning; the next greeting overwrites it.
 *
 * Every message heard moves last_rcvd_time, answers to our own notifications included, and every MSG is answered with
 * an empty reply, whatever it holds. A redirect takes effect at the next choice of a server: the server that sent it is
 * expected to end the session. A confirmation clears a redirect that is still pending.
 *
 * What the server sends is scanned, not parsed. Numbers are read as the 32-bit C library did: white space, a sign, and
 * "0x" or "0" in front for another base.
 */
#include "usr.sbin/keld/notification-profile.h"

#include "platform/process/process.h"
#include "usr.sbin/keld/main/tags.h"
#include "usr.sbin/keld/profile_text.h"

#include <arpa/inet.h>
#include <charconv>
#include <ctype.h>
#include <iterator>
#include <regex.h>
#include <stdio.h>
#include <string.h>
#include <string_view>

enum {
    PIGGYBACK_MAX = 1024,
    REDIRECT_ADDRESS_MAX = 1024,    // room for the address of a redirect and its zero
    REDIRECT_DEFAULT_PORT = KELD_DEFAULT_PORT,
};

static const char keepalive_tag[] = "<keepalive>";
static const char port_tag[] = "<port>";

// Kept on purpose: the brackets of the fourth group do not make <port> optional. They are a set of characters, so that
// a redirect without <port> does not match and is ignored without a word.
static const char redirect_pattern[] = "(<redirect>[ \t\n]*<address>)([0-9.]+)(</address>[ \t\n]*)"
                                       "([<port>[0-9]+</port>]?)([ \t\n]*</redirect>)";
enum { MATCH_ADDRESS = 2, MATCH_PORT = 4, MATCH_END = 5, MATCHES };

static uint16_t tkel_channel;     // 0: none
static uint32_t redirect_addr;    // network order; 0: no redirect is pending
static uint16_t redirect_port;    // host order

/* Reads the number that text begins with. False if there is none, or it is beyond max in either direction. */
static bool number_read(std::string_view text, uint32_t max, int64_t *value)
{
    while (!text.empty() && isspace(static_cast<unsigned char>(text.front()))) text.remove_prefix(1);
    bool negative = text.starts_with('-');
    if (negative || text.starts_with('+')) text.remove_prefix(1);

    int base = text.starts_with('0') ? 8 : 10;
    if (text.size() > 2 && text[0] == '0' && (text[1] | 0x20) == 'x' && isxdigit(static_cast<unsigned char>(text[2]))) {
        base = 16;
        text.remove_prefix(2);
    }
    uint64_t magnitude = 0;
    std::from_chars_result result = std::from_chars(text.data(), text.data() + text.size(), magnitude, base);
    if (result.ec != std::errc() || magnitude > max) return false;
    *value = negative ? -static_cast<int64_t>(magnitude) : static_cast<int64_t>(magnitude);
    return true;
}

/* --- start of the channel --------------------------------------------------------------------------------------- */

uint16_t tkel_start(struct beep_session *session)
{
    char identity[PIGGYBACK_MAX];
    int length = snprintf(identity, sizeof identity, "<hostname>%s</hostname><os>TARNE</os><release>%s</release>",
                          system_name(), KELD_RELEASE);
    if (length >= PIGGYBACK_MAX) profile_trace("TKEL: data in <start> message truncated");

    struct beep_profile row = {};
    tkel_pro_init(&row);
    const char *piggybacks[] = { identity };
    int32_t channel = beep_channel_start(session, &row, 1, piggybacks);
    if (channel == -1) {
        profile_trace("TKEL: could not send channel start request");
        return 0;
    }
    return static_cast<uint16_t>(channel);
}

static void tkel_greeting(struct beep_session *session)
{
    tkel_channel = tkel_start(session);
}

/* The interval in seconds that the server's confirmation asks for: a third of what it states, so that two keepalives
 * may be lost before it gives us up. */
static int32_t confirmed_keepalive(std::string_view text)
{
    size_t tag_at = text.find(keepalive_tag);
    if (tag_at == text.npos) {
        profile_trace("TKEL start_confirm: missing <keepalive>, use default");
        return TKEL_DEFAULT_KEEPALIVE_S;
    }
    std::string_view number = text;
    number.remove_prefix(tag_at + strlen(keepalive_tag));
    int64_t stated_s;
    if (!number_read(number, INT32_MAX, &stated_s) || stated_s <= 0) {
        profile_trace("TKEL start_confirm: invalid keepalive '%.*s'", VIEW(number));
        return TKEL_DEFAULT_KEEPALIVE_S;
    }
    // Kept on purpose: 1 and 2 pass the check and give an interval of 0.
    return static_cast<int32_t>(stated_s / 3);
}

static uint8_t tkel_start_confirm(const char *data, int32_t length, struct beep_channel *)
{
    std::string_view text = piggyback_text(data, length, "<NULL>");   // which has no tag, either
    profile_trace("TKEL start_confirm: piggyback=\"%.*s\"", VIEW(text));
    keepalive = confirmed_keepalive(text);   // the keepalive timer takes it up at its next tick
    redirect_addr = 0;
    redirect_port = REDIRECT_DEFAULT_PORT;
    (void)time(&last_rcvd_time);
    return 1;
}

/* The server may not open this channel itself. */
static uint8_t tkel_start_indicate(const char *data, int32_t length, struct beep_channel *channel,
                                   struct beep_start_reply *)
{
    std::string_view text = piggyback_text(data, length, "");
    profile_trace("TKEL start_indicate: channel=%hd, piggyback=\"%.*s\"",
                  static_cast<short>(beep_get_channel_number(channel)), VIEW(text));
    return 0;
}

/* The session stays up, without the channel; nothing asks again. */
static void tkel_start_fail(const struct beep_diagnostic *diagnostic)
{
    tkel_channel = 0;
    const char *message = diagnostic && diagnostic->message ? diagnostic->message : "(null)";
    keld_event<KELD_CHANNEL_START_FAIL>(diagnostic ? diagnostic->code : 0, message);
}

static void tkel_stop(void *user_data)
{
    profile_trace("notification channel pro_stop: opaque=%x",
                  static_cast<unsigned>(reinterpret_cast<uintptr_t>(user_data)));
}

/* --- messages ---------------------------------------------------------------------------------------------------- */

int tkel_log(struct beep_session *session, const char *text)
{
    if (tkel_channel == 0) return -1;
    char header[] = BEEP_MIME_HEADER;
    struct iovec pieces[] = {
        { header, BEEP_MIME_HEADER_LEN },
        { const_cast<char *>(text), strlen(text) },   // only read: an iovec knows no const
    };
    return beep_send_msg(session, tkel_channel, pieces, std::size(pieces));
}

/* Finds a redirect in text. True if there is one; matches then tell where. */
static bool redirect_match(const char *text, regmatch_t (&matches)[MATCHES])
{
    regex_t pattern;
    int fault = regcomp(&pattern, redirect_pattern, REG_EXTENDED);
    if (fault != 0) {
        profile_trace("unable to parse redirect, regcomp failed: %d\n", fault);
        return false;
    }
    fault = regexec(&pattern, text, MATCHES, matches, 0);
    regfree(&pattern);
    if (fault != 0 && fault != REG_NOMATCH) profile_trace("unable to parse redirect, regexec failed: %d", fault);
    return fault == 0;
}

static void redirect_take_port(std::string_view number)
{
    int64_t port;
    if (number_read(number, UINT32_MAX, &port)) {
        // Kept on purpose: a number beyond a port's range is cut to its low 16 bits.
        redirect_port = static_cast<uint16_t>(port);
        return;
    }
    profile_trace("invalid numeric port '%.*s' in redirect, use default", VIEW(number));
    redirect_port = REDIRECT_DEFAULT_PORT;
}

static void redirect_take_address(std::string_view text)
{
    char address[REDIRECT_ADDRESS_MAX];
    if (text.size() >= sizeof address) {
        profile_trace("unable to parse redirect, out of stack space");
        return;
    }
    memcpy(address, text.data(), text.size());
    address[text.size()] = '\0';
    struct in_addr target;
    // Kept on purpose: the port of a redirect whose address is refused has been taken already.
    if (!inet_aton(address, &target)) {
        profile_trace("invalid IP address '%s' in redirect, ignored", address);
        return;
    }
    redirect_addr = target.s_addr;
    profile_trace("received redirect message: addr %s, port %d", address, redirect_port);
}

/* text is zero-terminated and size octets long, or shorter. */
static void redirect_parse(const char *text, int32_t size)
{
    if (size <= 0 || !text) return;
    regmatch_t matches[MATCHES];
    if (!redirect_match(text, matches)) return;
    const regmatch_t &address = matches[MATCH_ADDRESS];
    // The fourth group ends with "</port>" and has something in front, so this stays inside the message.
    if (matches[MATCH_END].rm_so > 0) redirect_take_port(text + matches[MATCH_PORT].rm_so + strlen(port_tag));
    redirect_take_address({ text + address.rm_so, static_cast<size_t>(address.rm_eo - address.rm_so) });
}

static int tkel_message(struct beep_session *session, void *, struct beep_frame *frame)
{
    (void)time(&last_rcvd_time);
    if (frame->bf_type != BEEP_MSGTYPE_MSG) return 0;
    redirect_parse(frame->bf_data, frame->bf_size);
    // A reply that cannot be sent leaves the server without one; its own timeouts deal with that.
    (void)beep_send_rpy(session, tkel_channel, -1, BEEP_MORE_LAST, nullptr, 0);
    return 0;
}

struct keld_server *redirect_get_and_reset(struct keld_server *server)
{
    if (redirect_addr == 0) return nullptr;
    server->ks_addr = redirect_addr;
    server->ks_port = redirect_port;
    redirect_addr = 0;
    redirect_port = REDIRECT_DEFAULT_PORT;
    return server;
}

void tkel_pro_init(struct beep_profile *row)
{
    row->pro_uri = TKEL_PROFILE_URI;
    row->pro_greeting = tkel_greeting;
    row->pro_start_indicate = tkel_start_indicate;
    row->pro_start_confirm = tkel_start_confirm;
    row->pro_start_fail = tkel_start_fail;
    row->pro_stop = tkel_stop;
    row->pro_frame = nullptr;   // whole messages
    row->pro_message = tkel_message;
}
