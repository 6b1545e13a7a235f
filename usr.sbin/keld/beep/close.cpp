/*
 * Channel management, second half: how channels and the session close, from either side.
 *
 * A <close> from the peer can only be granted when the channel is idle: nothing being answered, awaited or queued.
 * Until then it is channel 0's bc_pending, which holds back every later MSG of channel 0, and a close job waits for
 * the next chance: a frame that has left, or a delivery run that has ended. So a session has one close from the peer
 * in progress at most.
 *
 * A close from here marks the channel and sends a request. What confirms it is any positive reply that can be read as a
 * message; <ok/> cannot, since it lacks a code, so against most peers the channel stays in 'C' until the session ends.
 */
#include "usr.sbin/keld/beep/beep_private.h"

#include <errno.h>
#include <inttypes.h>
#include <stdlib.h>
#include <string.h>

extern "C" {

enum { CODE_NO_MEMORY = 12, CODE_ALREADY_CLOSING = 451, CODE_NO_CHANNEL = 553 };

/* One <close> of the peer that waits. Freed by the run that ends it, or with the session. */
struct beep_close_job {
    struct beep_session *cj_session;
    int32_t cj_msgno;   // of the <close>
};

/* --- asked by the peer ------------------------------------------------------------------------------------------ */

/* Ends the pending <close>, which must not be used after this. */
static void send_ok(struct beep_session *session, int32_t msgno)
{
    static char ok[] = "<ok/>";   // Kept on purpose: without a MIME header
    struct iovec iov = { ok, sizeof ok - 1 };
    (void)beep_send_rpy(session, 0, msgno, BEEP_MORE_LAST, &iov, 1);   // traced where it failed
}

/* One attempt to close a channel. Non-zero when done. */
static int channel_close_attempt(struct beep_session *session, struct beep_channel *channel, int32_t msgno)
{
    channel->bc_state = BEEP_STATE_CLOSING;
    if (!channel_idle(channel)) return 0;

    send_ok(session, msgno);
    session_drop_channel(session, channel);
    return 1;
}

int session_stop_indicate(struct beep_session *session, struct chan0_msg *msg)
{
    bool busy = false;

    for (uint32_t number = 1; number < session->bs_channel_count; number++) {
        struct beep_channel *channel = session->bs_channels[number];
        if (!channel) continue;
        channel->bc_state = BEEP_STATE_CLOSING;
        if (channel_idle(channel)) {
            session_drop_channel(session, channel);
        } else {
            beep_trace("session_stop_indicate: channel %d is still busy", static_cast<int>(number));
            busy = true;
        }
    }
    if (busy) return 0;

    // Kept on purpose: the status stays. The session is over when the peer closes the connection.
    send_ok(session, msg->msgno);
    return 1;
}

/* Tries to do what the job waits for. True if the job is over, done or void. */
static bool run_close(const struct beep_close_job *job)
{
    struct beep_session *session = job->cj_session;
    struct beep_channel *channel0 = beep_find_channel(session, 0);
    if (!channel0) {
        beep_trace("close_job: session already exited");
        return true;
    }
    struct chan0_msg *msg = channel0_pending(channel0);
    if (!msg || msg->msgno != job->cj_msgno) {
        beep_trace("close_job: cannot find MSG");
        return true;
    }
    if (msg->channel == 0) return session_stop_indicate(session, msg) != 0;

    struct beep_channel *channel = beep_find_channel(session, msg->channel);
    if (!channel) {
        beep_trace("close_job: channel already deleted");
        return true;
    }
    return channel_close_attempt(session, channel, msg->msgno) != 0;
}

void close_job(evContext ctx, void *uap, const void *)
{
    auto *job = static_cast<struct beep_close_job *>(uap);
    struct beep_session *session = job->cj_session;

    session->bs_close_wait = nullptr;
    if (!run_close(job)) {
        if (evWaitFor(ctx, wait_tag(close_job), close_job, job, &session->bs_close_wait) < 0)
            beep_trace("close_job: evWaitFor: %s", strerror(errno));
        return;
    }
    session->bs_close_job = nullptr;
    free(job);
}

/* An older job may be left: its wait failed, or its <close> was answered by someone else. */
static void drop_close_job(struct beep_session *session)
{
    if (session->bs_close_wait) (void)evUnwait(session->bs_ev_ctx, session->bs_close_wait);
    session->bs_close_wait = nullptr;
    free(session->bs_close_job);
    session->bs_close_job = nullptr;
}

void channel_stop_indicate(struct beep_session *session, struct chan0_msg *msg)
{
    struct beep_channel *channel = beep_find_channel(session, msg->channel);
    if (!channel) {
        chan0_refuse(session, msg, CODE_NO_CHANNEL, "non-existant channel");
        return;
    }
    if (channel->bc_state == BEEP_STATE_CLOSING) {
        chan0_refuse(session, msg, CODE_ALREADY_CLOSING, "channel is already being closed");
        return;
    }
    auto *job = static_cast<struct beep_close_job *>(malloc(sizeof(struct beep_close_job)));
    if (!job) {
        chan0_refuse(session, msg, CODE_NO_MEMORY, "no memory");
        return;
    }

    const struct beep_diagnostic *why = msg->diagnostic;
    beep_trace("Closing channel %d: code=%" PRId32 " message=%s", msg->channel, why ? why->code : 0,
               why && why->message ? why->message : "(null)");
    beep_find_channel(session, 0)->bc_pending = reinterpret_cast<uintptr_t>(chan0_msg_clone(msg));
    *job = { session, msg->msgno };
    drop_close_job(session);
    session->bs_close_job = job;
    close_job(session->bs_ev_ctx, job, wait_tag(close_job));
}

/* --- asked from here -------------------------------------------------------------------------------------------- */

/* Sends a <close> for channel and remembers it. False if it could not be sent. The texts are the caller's own. */
static bool request_close(struct beep_session *session, uint16_t channel, int32_t code, const char *text,
                          const char *send_failure, const char *new_failure, const char *queue_failure)
{
    char buffer[CHAN0_TEXT_MAX];
    size_t length = chan0_fmt_close(buffer, sizeof buffer, channel, code, text);
    int32_t msgno =
        beep_send_raw(session, 0, BEEP_MSGTYPE_MSG, -1, BEEP_MORE_LAST, static_cast<int32_t>(length), -1, buffer);
    if (msgno == -1) {
        beep_trace("%s", send_failure);
        return false;
    }

    struct chan0_msg *msg = chan0_msg_new(channel, msgno, BEEP_MSGTYPE_MSG, 'c', nullptr, nullptr);
    if (!msg) {
        beep_trace("%s", new_failure);
    } else if (bp_queue_put_and_grow(session->bs_chan0_sent, reinterpret_cast<uintptr_t>(msg)) != 0) {
        beep_trace("%s", queue_failure);
        chan0_msg_delete(msg);
    }
    return true;
}

int beep_channel_stop(struct beep_session *session, uint16_t number, int32_t code, const char *text)
{
    if (number == 0) return 1;

    struct beep_channel *channel = beep_find_channel(session, number);
    if (!channel) {
        beep_trace("channel_stop: could not find channel %hd", static_cast<int16_t>(number));
        return 1;
    }
    const char *fault = nullptr;
    if (bp_queue_len(channel->bc_sent_msgnos) != 0)
        fault = "channel_stop: all MSG not ack-ed yet";
    else if (beep_get_session_status(session) != BEEP_STATE_READY)
        fault = "channel_stop: session is not ready";
    else if (channel->bc_state != BEEP_STATE_READY)
        fault = "channel_stop: channel is not ready";
    if (fault) {
        beep_trace("%s", fault);
        return 1;
    }

    if (!request_close(session, number, code, text, "channel_close: cannot send the request",
                       "channel_close: could not create chan0 MSG", "channel_close: could not queue chan0 MSG"))
        return 1;
    channel->bc_state = BEEP_STATE_CLOSING;
    return 0;
}

int beep_session_stop(struct beep_session *session, int32_t code, const char *text)
{
    char status = beep_get_session_status(session);
    if (status == BEEP_STATE_ENDED) {
        beep_trace("session_stop: session is already stopped");
        return 1;
    }
    for (uint32_t number = 1; number < session->bs_channel_count; number++) {
        const struct beep_channel *channel = session->bs_channels[number];
        if (channel && bp_queue_len(channel->bc_sent_msgnos) != 0) {
            beep_trace("stop_session: MSG not ack-ed yet on channel %d", static_cast<int>(number));
            return 1;
        }
    }
    if (status != BEEP_STATE_READY) {
        beep_trace("session_stop: session not ready");
        return 1;
    }

    if (!request_close(session, 0, code, text, "session_stop: failed to send the request",
                       "session_stop: could not create chan0 MSG", "session_stop: could not queue han0 MSG"))
        return 1;
    beep_find_channel(session, 0)->bc_state = BEEP_STATE_CLOSING;
    return 0;
}

void handle_close_err(struct beep_session *session, struct chan0_msg *msg)
{
    struct beep_channel *channel = beep_find_channel(session, msg->channel);
    if (!channel) {
        beep_trace("handle_close_err: cannot find channel %d\n", msg->channel);
        return;
    }
    const struct beep_diagnostic *why = msg->diagnostic;
    beep_trace("cannot close channel %d: [%" PRId32 "] %s", msg->channel, why ? why->code : 0,
               why && why->message ? why->message : "(null)");
    channel->bc_state = BEEP_STATE_READY;
}

void channel_stop_confirm(struct beep_session *session, struct chan0_msg *msg)
{
    struct beep_channel *channel = beep_find_channel(session, msg->channel);
    if (!channel) {
        beep_trace("channel_stop_confirm: cannot find channel %hd", static_cast<int16_t>(msg->channel));
        return;
    }

    // Kept on purpose: what the peer still owed or was owed is reported, and the channel closes all the same.
    if (channel_answering(channel)) {
        beep_trace("channel_stop_confirm: violation - received MSG pending ack");
        channel->bc_pending = BEEP_NOTHING_PENDING;
    }
    if (bp_queue_len(channel->bc_in) != 0) {
        beep_trace("channel_stop_confirm: incoming queue is not empty");
        frame_queue_free(channel->bc_in);
        channel->bc_in = nullptr;
    }
    if (bp_queue_len(channel->bc_sent_msgnos) != 0) {
        beep_trace("channel_stop_confirm: violation - all sent MSG not ack-ed");
        bp_queue_free(channel->bc_sent_msgnos);
        channel->bc_sent_msgnos = nullptr;
    }
    session_drop_channel(session, channel);
}

}   // extern "C"
