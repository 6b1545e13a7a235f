/*
 * From an octet payload to a channel 0 message: what the scanner found becomes a record of its own, and a reply is
 * matched with the request that it answers.
 *
 * Replies come in the order of their requests, so only the oldest entry of bs_chan0_sent can match; a reply to
 * anything else is refused and the entry stays. Kept on purpose: <ok/> has the op of <close> but cannot have its
 * code, and is refused before it is matched; the entry of a <close> from here therefore stays at the head and every
 * later reply on channel 0 is refused.
 */
#include "platform/text/text.h"
#include "usr.sbin/keld/beep/beep_private.h"
#include "usr.sbin/keld/beep/chan0_scan.h"

#include <stdlib.h>
#include <string.h>

extern "C" {

/* As atol with a 32-bit long: clamped, where the numbers of a frame header are cut. */
static int32_t value_number(const struct scan *s, const struct scan_value *value)
{
    long number = strtol(s->payload + value->offset, nullptr, 10);
    if (number > INT32_MAX) return INT32_MAX;
    if (number < INT32_MIN) return INT32_MIN;
    return static_cast<int32_t>(number);
}

/* Gives the message the code and text of a <close> or <error>. */
static bool take_diagnostic(struct scan *s, struct chan0_msg *msg)
{
    if (s->code.length == 0) {
        dbgpr("missing attribute 'code'\n");
        return false;
    }
    scan_store_zero(s, static_cast<int64_t>(s->code.offset) + s->code.length);

    char *text = nullptr;
    if (s->text.length > 0) {
        text = s->payload + s->text.offset;
        scan_store_zero(s, static_cast<int64_t>(s->text.offset) + s->text.length);
        xml_unescape(text, strlen(text), text, 0);
    }
    msg->diagnostic = beep_diagnostic_new(value_number(s, &s->code), text);
    if (!msg->diagnostic) dbgpr("No memory\n");
    return msg->diagnostic != nullptr;
}

/* Decodes the piggybacks that came in base64, in place and up to a zero; one with other octets is dropped. That the
 * last group is whole is not asked for: the octet that a closing tag takes off is often the padding's. */
static void decode_piggybacks(struct chan0_profile *profile)
{
    for (; profile; profile = profile->next) {
        if (!profile->encoded) continue;
        profile->encoded = '\0';
        if (!profile->data) continue;

        struct base64_state *state = base64_start();
        size_t octets = strnlen(profile->data, static_cast<size_t>(profile->length));
        int length = base64_decode_chunk(profile->data, profile->data, octets, state);
        (void)base64_decode_end(state);
        if (length < 0) {
            dbgpr("Invalid message: profile, piggyback is not base64.\n");
            free(profile->data);
            profile->data = nullptr;
            length = 0;
        }
        profile->length = length;
    }
}

/* Gives a reply what its request knows. False if the oldest request is not the one answered. */
static bool match_request(struct beep_session *session, struct chan0_msg *msg)
{
    auto *request = session ? reinterpret_cast<struct chan0_msg *>(bp_queue_peek(session->bs_chan0_sent)) : nullptr;
    if (!request || request->msgno != msg->msgno) {
        dbgpr("RPY/ERR to non-existant MSG or out-of-order\n");
        return false;
    }

    (void)bp_queue_get(session->bs_chan0_sent);
    msg->op = request->op;
    msg->channel = request->channel;
    if (msg->type == BEEP_MSGTYPE_ERR) {
        struct chan0_profile *own = msg->profiles;
        msg->profiles = request->profiles;
        request->profiles = own;
    }
    chan0_msg_delete(request);
    return true;
}

static bool fill_msg(struct scan *s, struct beep_session *session, struct chan0_msg *msg)
{
    if (msg->op == 'e' || msg->op == 'c') {
        if (!take_diagnostic(s, msg)) return false;
    } else if (s->profile_count > 0) {
        decode_piggybacks(msg->profiles);
    }

    if (msg->type == BEEP_MSGTYPE_MSG && (msg->op == 's' || msg->op == 'c') && s->number.offset != 0)
        msg->channel = static_cast<uint16_t>(value_number(s, &s->number));

    if (msg->op == 'e' && msg->type != BEEP_MSGTYPE_ERR) {
        dbgpr("<error> not in 'E' frame\n");
        return false;
    }
    if (msg->op != 'e' && msg->type == BEEP_MSGTYPE_ERR) {
        dbgpr("<error> not found in 'E' frame\n");
        return false;
    }
    bool is_reply = msg->type == BEEP_MSGTYPE_ERR || (msg->type == BEEP_MSGTYPE_RPY && msg->op != 'g');
    return !is_reply || match_request(session, msg);
}

static bool profiles_have_uris(const struct chan0_profile *profile)
{
    for (; profile; profile = profile->next) {
        if (profile->uri) continue;
        dbgpr("chan0_parse: profile element missing required uri\n");
        return false;
    }
    return true;
}

static struct chan0_msg *make_msg(struct scan *s, struct beep_session *session, const struct beep_frame *frame)
{
    if (!profiles_have_uris(s->profiles)) return nullptr;

    struct chan0_msg *msg = chan0_msg_new(0, frame->bf_msgno, frame->bf_type, s->op, nullptr, s->profiles);
    if (!msg) {
        dbgpr("No memory\n");
        return nullptr;
    }
    if (!fill_msg(s, session, msg)) {
        chan0_msg_delete(msg);
        return nullptr;
    }
    return msg;
}

struct chan0_msg *chan0_msg_parse(struct beep_session *session, struct beep_frame *frame)
{
    if (!frame || frame->bf_more != BEEP_MORE_LAST) return nullptr;
    if (frame->bf_size <= 0) {
        dbgpr("Invalid message: XML not well formed\n");
        return nullptr;
    }

    struct scan s = {};
    s.payload = frame->bf_data;
    s.size = frame->bf_size;
    s.frame_type = frame->bf_type;
    s.profiles_end = &s.profiles;
    s.payload[s.size] = '\0';   // values that nothing else ends, end here

    struct chan0_msg *msg = scan_payload(&s) ? make_msg(&s, session, frame) : nullptr;
    while (struct chan0_profile *profile = s.profiles) {
        s.profiles = profile->next;
        free(profile);
    }
    return msg;
}

}   // extern "C"
