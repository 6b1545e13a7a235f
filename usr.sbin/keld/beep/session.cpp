/*
 * Session: how one comes up, what it owns and how it comes apart.
 *
 * The session's status is the state of channel 0; when channel 0 is gone the status reads 'E'. A session ends in two
 * steps that are never one: session_closed takes its channels away and tells the owner, from wherever the end was
 * noticed; beep_session_delete frees the record, from the owner's own turn of the loop. Between the two every handler
 * may still be called and finds no channels.
 *
 * A <start> from the peer may name a number in use. The new channel takes the place in the table; the old one can be
 * reached by nobody any more, but its profile's record hangs on it, so the session keeps it on bs_orphans and lets it
 * go with the others.
 */
#include "usr.sbin/keld/beep/beep_private.h"

#include <errno.h>
#include <stdlib.h>
#include <string.h>

extern "C" {

char beep_get_session_status(const struct beep_session *session)
{
    const struct beep_channel *channel0 = beep_find_channel(session, 0);
    return channel0 ? channel0->bc_state : static_cast<char>(BEEP_STATE_ENDED);
}

evContext beep_get_session_ev_ctx(const struct beep_session *session)
{
    return session->bs_ev_ctx;
}

void beep_set_session_close_cb(struct beep_session *session, beep_session_close_cb cb)
{
    session->bs_close_cb = cb;
}

const struct beep_profile *find_profile(const struct beep_session *session, const char *uri)
{
    for (uint16_t row = 0; row < session->bs_profile_count; row++)
        if (strcmp(session->bs_profiles[row].pro_uri, uri) == 0) return &session->bs_profiles[row];
    return nullptr;
}

/* --- channel table ---------------------------------------------------------------------------------------------- */

struct beep_channel *beep_find_channel(const struct beep_session *session, int32_t number)
{
    uint16_t slot = static_cast<uint16_t>(number);
    if (!session || slot >= session->bs_channel_count) return nullptr;
    return session->bs_channels[slot];
}

static bool table_grow(struct beep_session *session, uint32_t count)
{
    if (count <= session->bs_channel_count) return true;

    void *grown = realloc(session->bs_channels, count * sizeof(struct beep_channel *));
    if (!grown) return false;
    session->bs_channels = static_cast<struct beep_channel **>(grown);
    while (session->bs_channel_count < count) session->bs_channels[session->bs_channel_count++] = nullptr;
    return true;
}

bool session_add_channel(struct beep_session *session, struct beep_channel *channel)
{
    if (!table_grow(session, channel->bc_number + 1u)) {
        beep_trace("beep_add_channel: no memory for channel %d", channel->bc_number);
        channel_delete(channel);
        return false;
    }

    // Kept on purpose: a number in use is not refused. The record that stood there can no longer be found.
    struct beep_channel **slot = &session->bs_channels[channel->bc_number];
    if (*slot && *slot != channel) {
        (*slot)->bc_orphan = session->bs_orphans;
        session->bs_orphans = *slot;
    }
    *slot = channel;
    return true;
}

void beep_add_channel(struct beep_session *session, struct beep_channel *channel)
{
    if (!session) {
        beep_trace("beep_add_channel: NULL session");
        return;
    }
    (void)session_add_channel(session, channel);   // traced where it failed
}

/* The octets of a half-written frame must stay where the gather list points, whatever becomes of the channel. */
static void keep_half_written_frame(struct beep_session *session, struct beep_channel *channel)
{
    if (session->bs_iov_index < 0 || !session->bs_iov_frame) return;
    if (frame_peek(channel->bc_out) == session->bs_iov_frame)
        session->bs_iov_orphan = frame_get(channel->bc_out);
    else if (channel->bc_seq_frame == session->bs_iov_frame)
        session->bs_iov_frame = nullptr;   // a SEQ is all header, which is the session's
}

void session_drop_channel(struct beep_session *session, struct beep_channel *channel)
{
    session->bs_channels[channel->bc_number] = nullptr;
    keep_half_written_frame(session, channel);
    channel_delete(channel);
}

static void delete_all_channels(struct beep_session *session)
{
    for (uint32_t number = 0; number < session->bs_channel_count; number++) {
        struct beep_channel *channel = session->bs_channels[number];
        session->bs_channels[number] = nullptr;
        if (channel) channel_delete(channel);
    }
    session->bs_channel_count = 0;
    free(session->bs_channels);
    session->bs_channels = nullptr;

    while (struct beep_channel *orphan = session->bs_orphans) {
        session->bs_orphans = orphan->bc_orphan;
        channel_delete(orphan);
    }

    frame_free(session->bs_iov_orphan);   // nobody writes it any more: without channels there is nothing to choose
    session->bs_iov_orphan = session->bs_iov_frame = nullptr;
    session->bs_iov_index = -1;
}

/* --- up --------------------------------------------------------------------------------------------------------- */

static void wait_for_frames(struct beep_session *session, evWaitFunc handler, evWaitID *id)
{
    if (evWaitFor(session->bs_ev_ctx, wait_tag(handler), handler, session, id) < 0)
        beep_trace("session_new: evWaitFor: %s", strerror(errno));
}

static bool send_greeting(struct beep_session *session)
{
    char greeting[CHAN0_TEXT_MAX];
    size_t length = chan0_fmt_greeting(greeting, sizeof greeting, session->bs_profiles, session->bs_profile_count);
    return beep_send_raw(session, 0, BEEP_MSGTYPE_RPY, 0, BEEP_MORE_LAST, static_cast<int32_t>(length), -1,
                         greeting) != -1;
}

static bool make_channel0(struct beep_session *session, char role)
{
    struct beep_channel *channel0 = channel_new(0, nullptr, role);
    return channel0 && session_add_channel(session, channel0);
}

struct beep_session *beep_session_new(int fd, evContext ev_ctx, char role, const struct beep_profile *profiles,
                                      uint16_t profile_count, beep_read_fn read_fn, beep_write_fn write_fn,
                                      void *transport)
{
    auto *session = static_cast<struct beep_session *>(calloc(1, sizeof(struct beep_session)));
    if (!session) return nullptr;

    session->bs_fd = fd;
    session->bs_ev_ctx = ev_ctx;
    session->bs_profiles = profiles;
    session->bs_profile_count = profile_count;
    if (transport) {
        session->bs_read_fn = read_fn;
        session->bs_write_fn = write_fn;
        session->bs_transport = transport;
    }
    session->bs_hdr_end = session->bs_hdr;
    session->bs_iov_index = -1;
    session->bs_next_channel = role == BEEP_ROLE_INITIATOR ? 1 : 2;
    session->bs_chan0_sent = bp_queue_new(BEEP_QUEUE_SIZE);
    if (!session->bs_chan0_sent || !make_channel0(session, role)) {
        beep_session_delete(session);
        return nullptr;
    }

    if (evSelectFD(ev_ctx, fd, EV_READ, handle_read_event, session, &session->bs_read_id) < 0) {
        beep_trace("session_new: evSelectFD: %s", strerror(errno));
        beep_session_delete(session);
        return nullptr;
    }
    wait_for_frames(session, handle_frame_0, &session->bs_frame0_wait);
    wait_for_frames(session, handle_frame_non0, &session->bs_frame_wait);

    if (!send_greeting(session)) {
        beep_trace("session_new: could not send <greeting>");
        beep_session_delete(session);
        return nullptr;
    }
    beep_find_channel(session, 0)->bc_state = BEEP_STATE_START;
    return session;
}

/* --- down ------------------------------------------------------------------------------------------------------- */

static void deselect(struct beep_session *session, evFileID *id)
{
    if (!*id) return;
    (void)evDeselectFD(session->bs_ev_ctx, *id);   // a dead registration is as good as a removed one
    *id = nullptr;
}

static void unwait(struct beep_session *session, evWaitID *id)
{
    if (!*id) return;
    (void)evUnwait(session->bs_ev_ctx, *id);
    *id = nullptr;
}

void session_closed(struct beep_session *session)
{
    delete_all_channels(session);

    // Kept on purpose: with a callback the registrations stay, so handlers go on being called until the owner deletes.
    if (session->bs_close_cb) {
        session->bs_close_cb(session);
        return;
    }
    deselect(session, &session->bs_read_id);
    deselect(session, &session->bs_write_id);
}

static void free_unanswered(struct bp_queue *sent)
{
    while (uintptr_t entry = bp_queue_get(sent)) chan0_msg_delete(reinterpret_cast<struct chan0_msg *>(entry));
    bp_queue_free(sent);
}

void beep_session_delete(struct beep_session *session)
{
    if (session->bs_channel_count != 0) beep_trace("session_delete: not all channels are gone");
    delete_all_channels(session);

    deselect(session, &session->bs_read_id);
    deselect(session, &session->bs_write_id);
    unwait(session, &session->bs_frame0_wait);
    unwait(session, &session->bs_frame_wait);
    unwait(session, &session->bs_close_wait);

    free(session->bs_close_job);
    free_unanswered(session->bs_chan0_sent);
    frame_free(session->bs_rx_frame);
    free(session);
}

}   // extern "C"
