/*
 * Writing: turns queued frames into octets on the transport, within the window that the peer grants.
 *
 * handle_write makes passes over the channels and sends at most one frame of each in a pass, so that a long reply
 * does not hold the others up. A frame leaves as three writes (header, payload, trailer) that the session's gather
 * list remembers across a transport that is full: bs_iov_index is the write to resume, -1 while no frame is in
 * progress. The registration for writing ends with a pass in which nothing went; a send, or the peer's SEQ that opens
 * the window, asks for it again.
 *
 * A frame larger than the window goes in pieces. The frame stays on its queue, bf_data and bf_size tell what is left,
 * and every piece but the last is marked '*'.
 */
#include "platform/text/text.h"
#include "usr.sbin/keld/beep/beep_private.h"

#include <errno.h>
#include <inttypes.h>
#include <string.h>
#include <unistd.h>

extern "C" {

enum write_result { WRITE_NOTHING, WRITE_SENT, WRITE_STOP };

static constexpr struct {
    char ft_type;
    const char *ft_word;
} frame_words[] = {
    { BEEP_MSGTYPE_MSG, "MSG" }, { BEEP_MSGTYPE_RPY, "RPY" }, { BEEP_MSGTYPE_ANS, "ANS" },
    { BEEP_MSGTYPE_ERR, "ERR" }, { BEEP_MSGTYPE_NUL, "NUL" }, { BEEP_MSGTYPE_SEQ, "SEQ" },
};

static const char *frame_word(char type)
{
    for (const auto &row : frame_words)
        if (row.ft_type == type) return row.ft_word;
    return nullptr;
}

/* Writes the header of a piece of piece octets. Its length; 0 for a frame of no known type. */
static size_t put_header(struct beep_session *session, const struct beep_channel *channel,
                         const struct beep_frame *frame, char more, int32_t piece)
{
    const char *word = frame_word(frame->bf_type);
    if (!word) return 0;

    // Kept on purpose: channel numbers and a SEQ's ackno are printed signed, so those of the upper half go out
    // negative.
    char *out = session->bs_out_hdr;
    int16_t number = static_cast<int16_t>(frame->bf_channel);
    switch (frame->bf_type) {
    case BEEP_MSGTYPE_SEQ:
        return snprintf_safe(out, BEEP_HEADER_MAX, "%s %hd %" PRId32 " %" PRId32 "\r\n", word, number, frame->bf_msgno,
                             frame->bf_ansno);
    case BEEP_MSGTYPE_ANS:
        return snprintf_safe(out, BEEP_HEADER_MAX, "%s %hd %" PRId32 " %c %" PRIu32 " %" PRId32 " %" PRId32 "\r\n",
                             word, number, frame->bf_msgno, more, channel->bc_tx_seqno, piece, frame->bf_ansno);
    default:
        return snprintf_safe(out, BEEP_HEADER_MAX, "%s %hd %" PRId32 " %c %" PRIu32 " %" PRId32 "\r\n", word, number,
                             frame->bf_msgno, more, channel->bc_tx_seqno, piece);
    }
}

/* Octets of the frame that may go now, -1 if it must wait for a larger window. */
static int32_t piece_size(const struct beep_channel *channel, const struct beep_frame *frame)
{
    int32_t size = frame->bf_size;
    if (size == 0) return 0;   // goes whatever the window

    int32_t avail = static_cast<int32_t>(channel->bc_tx_limit - channel->bc_tx_seqno);
    // Kept on purpose: a piece of half the frame or less is not worth a frame of its own.
    if (avail <= size / 2) return -1;
    return avail > size ? size : avail;
}

/* Puts a piece of frame into the gather list. False if nothing of it goes now. */
static bool prepare_frame(struct beep_session *session, struct beep_channel *channel, struct beep_frame *frame)
{
    int32_t piece = piece_size(channel, frame);
    if (piece < 0) return false;

    char more = frame->bf_more;
    if (piece < frame->bf_size && more == BEEP_MORE_LAST) more = BEEP_MORE_TO_COME;   // the last piece carries the mark
    size_t header = put_header(session, channel, frame, more, piece);
    if (header < 1) {
        frame_free(frame_get(channel->bc_out));
        return false;
    }

    static char trailer[] = "END\r\n";
    static_assert(sizeof trailer - 1 == BEEP_TRAILER_LEN);
    session->bs_iov[BEEP_IOV_HEADER] = { session->bs_out_hdr, header };
    session->bs_iov[BEEP_IOV_PAYLOAD] = { piece > 0 ? frame->bf_data : nullptr, static_cast<size_t>(piece) };
    session->bs_iov[BEEP_IOV_TRAILER] = { trailer, BEEP_TRAILER_LEN };
    if (frame->bf_type == BEEP_MSGTYPE_SEQ) session->bs_iov[BEEP_IOV_TRAILER].iov_len = 0;
    session->bs_iov_frame = frame;
    session->bs_iov_index = 0;

    channel->bc_tx_seqno += static_cast<uint32_t>(piece);
    frame->bf_size -= piece;
    frame->bf_data += piece;
    return true;
}

static ssize_t transport_write(struct beep_session *session, const struct iovec *pair)
{
    errno = 0;   // a transport that fails without saying why must not be taken for one that is full
    if (session->bs_transport)
        return session->bs_write_fn(session->bs_transport, pair->iov_base, static_cast<int>(pair->iov_len));
    return write(session->bs_fd, pair->iov_base, pair->iov_len);
}

/* Writes what the gather list holds. True when all of it went; false if the transport is full or the session ended. */
static bool write_gathered(struct beep_session *session)
{
    while (session->bs_iov_index < BEEP_IOV_COUNT) {
        struct iovec *pair = &session->bs_iov[session->bs_iov_index];
        if (pair->iov_len > 0) {
            ssize_t written = transport_write(session, pair);
            if (written < 1) {
                if (errno == EAGAIN) return false;
                beep_trace("handle_write: %s", strerror(errno));
                session_closed(session);
                return false;
            }
            beep_trace_octets("Wrote", pair->iov_base, static_cast<size_t>(written));
            pair->iov_base = static_cast<char *>(pair->iov_base) + written;
            pair->iov_len -= static_cast<size_t>(written);
        }
        if (pair->iov_len == 0) session->bs_iov_index++;
    }
    return true;
}

/* frame is the channel's that was chosen this time, and a gather list has gone out. */
static void frame_written(struct beep_session *session, struct beep_channel *channel, struct beep_frame *frame)
{
    session->bs_iov_index = -1;
    session->bs_iov_frame = nullptr;
    frame_free(session->bs_iov_orphan);
    session->bs_iov_orphan = nullptr;
    if (frame->bf_size > 0) return;

    if (frame == channel->bc_seq_frame) {
        channel->bc_seq_frame = nullptr;
        channel->bc_seq_spare = frame;
    } else {
        frame_free(frame_get(channel->bc_out));
    }
    if (session->bs_close_wait) (void)evDo(session->bs_ev_ctx, wait_tag(close_job));
}

static enum write_result write_channel(struct beep_session *session, struct beep_channel *channel)
{
    struct beep_frame *frame = channel->bc_seq_frame ? channel->bc_seq_frame : frame_peek(channel->bc_out);
    if (!frame) return WRITE_NOTHING;
    // Kept on purpose: after a full transport the frame in progress is finished, but the frame chosen here, which
    // need not be the same, is the one that counts as sent: a SEQ is lost so, and a frame that had gone whole leaves
    // again, empty. (A SEQ that is overwritten while its header is half out leaves with its old values, too.)
    if (session->bs_iov_index < 0 && !prepare_frame(session, channel, frame)) return WRITE_NOTHING;
    if (!write_gathered(session)) return WRITE_STOP;
    frame_written(session, channel, frame);
    return WRITE_SENT;
}

/* Passes over the channels until nothing goes. True if that is so, false if the transport is full or the session
 * ended. */
static bool write_passes(struct beep_session *session)
{
    bool sent = true;

    while (sent) {
        sent = false;
        for (uint32_t number = 0; number < session->bs_channel_count; number++) {
            struct beep_channel *channel = session->bs_channels[number];
            if (!channel) continue;
            enum write_result result = write_channel(session, channel);
            if (result == WRITE_STOP) return false;
            if (result == WRITE_SENT) sent = true;
        }
    }
    return true;
}

void handle_write(evContext ctx, void *uap, int, int)
{
    auto *session = static_cast<struct beep_session *>(uap);

    // Three writes for each frame, and often a SEQ before it: held back, they reach the peer as one segment and wake
    // it once.
    if (!session->bs_not_held && evHoldFD(session->bs_fd, true) < 0) session->bs_not_held = true;
    bool done = write_passes(session);
    if (!session->bs_not_held) (void)evHoldFD(session->bs_fd, false);   // it could be held, so it can be let go
    if (!done) return;

    (void)evDeselectFD(ctx, session->bs_write_id);
    session->bs_write_id = nullptr;
}

}   // extern "C"
