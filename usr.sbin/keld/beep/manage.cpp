/*
 * Channel management, first half: how channels start, from here and from the peer.
 *
 * A start from here is a request on channel 0 and an entry in bs_chan0_sent that its reply is matched with; the
 * channel's record is made when the confirmation comes. A start from the peer is answered at once. Either way a start
 * that fails leaves no record.
 *
 * Channel numbers from here are odd for an initiator and even otherwise, and a number whose start was refused is
 * taken back if it was the last given out. The peer's numbers are not checked against that rule: kept on purpose.
 */
#include "usr.sbin/keld/beep/beep_private.h"

#include <inttypes.h>
#include <stdlib.h>
#include <string.h>

extern "C" {

enum { CHANNEL_STEP = 2 };
enum { CODE_NOTHING_ACCEPTED = 521 };

void chan0_refuse(struct beep_session *session, const struct chan0_msg *msg, int32_t code, const char *text)
{
    // Lent for the call: nothing here frees or changes the text.
    struct beep_diagnostic diagnostic = { code, const_cast<char *>(text) };
    (void)beep_send_err(session, 0, msg->msgno, &diagnostic);   // traced where it failed
}

/* --- from here -------------------------------------------------------------------------------------------------- */

/* What was offered, as the list that a chan0_msg copies. Null if memory is out. The rows and texts are lent. */
static struct chan0_profile *offer_list(const struct beep_profile *profiles, int count, const char *const *piggybacks)
{
    auto *list = static_cast<struct chan0_profile *>(calloc(static_cast<size_t>(count), sizeof(struct chan0_profile)));
    if (!list) return nullptr;

    for (int row = 0; row < count; row++) {
        list[row].uri = const_cast<char *>(profiles[row].pro_uri);
        if (piggybacks && piggybacks[row]) {
            list[row].data = const_cast<char *>(piggybacks[row]);
            list[row].length = static_cast<int32_t>(strlen(piggybacks[row]));
        }
        if (row + 1 < count) list[row].next = &list[row + 1];
    }
    return list;
}

/* Remembers the <start> that went out under msgno. A failure is traced, and the reply will then find no request. */
static void remember_start(struct beep_session *session, int32_t msgno, const struct beep_profile *profiles, int count,
                           const char *const *piggybacks)
{
    struct chan0_profile *list = offer_list(profiles, count, piggybacks);
    struct chan0_msg *msg = nullptr;
    if (list) msg = chan0_msg_new(session->bs_next_channel, msgno, BEEP_MSGTYPE_MSG, 's', nullptr, list);
    free(list);

    if (!msg) {
        beep_trace("channel_start: could not create chan0 MSG");
    } else if (bp_queue_put_and_grow(session->bs_chan0_sent, reinterpret_cast<uintptr_t>(msg)) != 0) {
        beep_trace("channel_start: could not queue chan0 MSG");
        chan0_msg_delete(msg);
    }
}

int32_t beep_channel_start(struct beep_session *session, const struct beep_profile *profiles, int count,
                           const char *const *piggybacks)
{
    if (count <= 0 || !profiles) {
        beep_trace("channel_start: bad parameter");
        return -1;
    }
    if (beep_get_session_status(session) != BEEP_STATE_READY) {
        beep_trace("cannot start channel: session is not ready");
        return -1;
    }

    char text[CHAN0_TEXT_MAX];
    size_t length = chan0_fmt_start(text, sizeof text, session->bs_next_channel, profiles, count, piggybacks);
    int32_t msgno =
        beep_send_raw(session, 0, BEEP_MSGTYPE_MSG, -1, BEEP_MORE_LAST, static_cast<int32_t>(length), -1, text);
    if (msgno == -1) {
        beep_trace("cannot start channel: cannot send the request");
        return -1;
    }

    remember_start(session, msgno, profiles, count, piggybacks);
    uint16_t number = session->bs_next_channel;
    session->bs_next_channel = static_cast<uint16_t>(number + CHANNEL_STEP);
    return number;
}

void channel_start_confirm(struct beep_session *session, struct chan0_msg *msg)
{
    // Kept on purpose: any profile of the table will do, also one that was not offered.
    const struct chan0_profile *chosen = msg->profiles;
    const struct beep_profile *profile = find_profile(session, chosen->uri);
    if (!profile) {
        beep_trace("channel_start_confirm: no support for profile '%s'", chosen->uri);
        return;
    }
    struct beep_channel *channel = channel_new(msg->channel, profile, BEEP_ROLE_INITIATOR);
    if (!channel) {
        beep_trace("channel_start_confirm: no memory");
        return;
    }

    // Kept on purpose: the peer is not told of a channel that is given up here; its own side of it stays open.
    if (!profile->pro_start_confirm || !profile->pro_start_confirm(chosen->data, chosen->length, channel)) {
        channel_delete(channel);
        return;
    }
    channel->bc_state = BEEP_STATE_READY;
    (void)session_add_channel(session, channel);   // traced, and the channel deleted, if memory is out
}

void handle_start_err(struct beep_session *session, struct chan0_msg *msg)
{
    if (msg->diagnostic)
        beep_trace("cannot start channel %d: [%" PRId32 "] %s", msg->channel, msg->diagnostic->code,
                   msg->diagnostic->message ? msg->diagnostic->message : "(null)");
    else
        beep_trace("cannot start channel %d", msg->channel);

    if (msg->profiles) {
        const struct beep_profile *profile = find_profile(session, msg->profiles->uri);
        if (profile && profile->pro_start_fail) profile->pro_start_fail(msg->diagnostic);
    } else {
        beep_trace("handle_start_err: no retrievable profile");
    }

    if (static_cast<uint16_t>(msg->channel + CHANNEL_STEP) == session->bs_next_channel)
        session->bs_next_channel = msg->channel;
}

/* --- from the peer ---------------------------------------------------------------------------------------------- */

/* Offers the channel to the profiles that the peer named, in its order. The one that took it, or null. The text that
 * the last one asked left in reply is the caller's to free. */
static const struct beep_profile *offer_channel(struct beep_session *session, const struct chan0_profile *wanted,
                                                struct beep_channel *channel, struct beep_start_reply *reply)
{
    for (; wanted; wanted = wanted->next) {
        const struct beep_profile *profile = find_profile(session, wanted->uri);
        if (!profile || !profile->pro_start_indicate) continue;

        free(reply->br_piggyback);
        *reply = {};
        if (profile->pro_start_indicate(wanted->data, wanted->length, channel, reply)) return profile;
    }
    return nullptr;
}

static void confirm_start(struct beep_session *session, const struct chan0_msg *msg, const struct beep_profile *profile,
                          const char *piggyback)
{
    char text[CHAN0_TEXT_MAX];
    struct iovec iov = { text, chan0_fmt_profile(text, sizeof text, profile, piggyback, 1) };
    (void)beep_send_rpy(session, 0, msg->msgno, BEEP_MORE_LAST, &iov, 1);   // traced where it failed
}

void channel_start_indicate(struct beep_session *session, struct chan0_msg *msg)
{
    struct beep_channel *channel = channel_new(msg->channel, nullptr, BEEP_ROLE_LISTENER);
    if (!channel) {
        beep_trace("channel_start_indicate: no memory");
        return;
    }

    struct beep_start_reply reply = {};
    const struct beep_profile *profile = offer_channel(session, msg->profiles, channel, &reply);
    if (!profile) {
        chan0_refuse(session, msg, CODE_NOTHING_ACCEPTED, nullptr);
        channel_delete(channel);
    } else {
        channel->bc_profile = profile;
        channel->bc_state = BEEP_STATE_READY;
        if (session_add_channel(session, channel))
            confirm_start(session, msg, profile, reply.br_piggyback);
        else
            beep_trace("channel_start_indicate: no memory");
    }
    free(reply.br_piggyback);
}

}   // extern "C"
