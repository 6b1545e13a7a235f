/*
 * Frame input: splits the stream of a session into frames, checks them and puts them on their channels.
 *
 * Two modes. With bs_rx_frame null, octets go to the header buffer until a line is whole; otherwise they go straight
 * into the frame's own block, payload and trailer. A read in header mode takes what the buffer has room for, so it
 * usually brings payload and further lines along; the head parser sorts these out.
 *
 * Kept on purpose: this reading differs from RFC 3080. A bad line costs a trace and nothing else, and the next octets
 * are a new line; the trailer is not looked at and any character passes as continuation mark; numbers are cut to
 * their width and a channel's to 16 bits; a short line takes what it lacks from the octets behind it; ANS and NUL are
 * refused; nothing polices the window that the peer was offered. A frame out of sequence, or a line that ends in a
 * bare LF, is not consumed: it is parsed and reported again and again, without a return to the loop, until octets
 * that follow have filled the buffer; the read of no octets that comes then is taken for the end of the stream.
 *
 * True between reads:
 *   - bs_hdr to bs_hdr_end are octets not consumed yet, and bs_hdr[BEEP_HEADER_MAX] is zero;
 *   - behind bs_hdr_end there may be text of lines that are gone, up to a zero: numbers that a short line lacks are
 *     taken from there, but no line ends there.
 */
#include "usr.sbin/keld/beep/beep_private.h"

#include <ctype.h>
#include <errno.h>
#include <inttypes.h>
#include <limits.h>
#include <stdlib.h>
#include <string.h>
#include <unistd.h>

extern "C" {

enum { LINE_INSIST_STATUS = 1632, LINE_INSIST_FRAME = 2612 };
enum { FRAME_WORD_LEN = 4 };   // "MSG " and its kin

/* --- numbers of a header line ----------------------------------------------------------------------------------- */

static const char *skip_space(const char *text)
{
    while (isspace(static_cast<unsigned char>(*text))) text++;
    return text;
}

/* Reads a decimal number, clamped to 64 bits with that sign if is_signed. Null if there is none. */
static const char *scan_digits(const char *text, bool is_signed, uint64_t *value)
{
    text = skip_space(text);
    bool negative = *text == '-';
    if (*text == '-' || *text == '+') text++;
    if (!isdigit(static_cast<unsigned char>(*text))) return nullptr;

    const uint64_t limit = is_signed ? static_cast<uint64_t>(INT64_MAX) + negative : UINT64_MAX;
    bool clamped = false;
    uint64_t sum = 0;
    for (; isdigit(static_cast<unsigned char>(*text)); text++) {
        uint64_t digit = static_cast<uint64_t>(*text - '0');
        clamped = clamped || sum > (limit - digit) / 10;
        sum = clamped ? limit : sum * 10 + digit;
    }
    *value = negative && (is_signed || !clamped) ? 0 - sum : sum;
    return text;
}

/* %ld and %lu of 32 bits. Kept on purpose: what does not fit loses its upper half. (Numbers in XML are clamped
 * instead.) */
static const char *scan_long(const char *text, int32_t *value)
{
    uint64_t number;
    text = text ? scan_digits(text, true, &number) : nullptr;
    if (text) *value = static_cast<int32_t>(static_cast<uint32_t>(number));
    return text;
}

static const char *scan_unsigned(const char *text, uint32_t *value)
{
    uint64_t number;
    text = text ? scan_digits(text, false, &number) : nullptr;
    if (text) *value = static_cast<uint32_t>(number);
    return text;
}

static const char *scan_char(const char *text, char *value)
{
    text = text ? skip_space(text) : nullptr;
    if (!text || *text == '\0') return nullptr;
    *value = *text;
    return text + 1;
}

/* --- one header line -------------------------------------------------------------------------------------------- */

struct head {
    char type;
    char more;
    int32_t channel, msgno, size, ansno;
    uint32_t seqno;
};

/* The five fields that all frames but SEQ have. What follows them, or null. */
static const char *scan_head(const char *text, struct head *head)
{
    text = scan_long(text, &head->channel);
    text = scan_long(text, &head->msgno);
    text = scan_char(text, &head->more);
    text = scan_unsigned(text, &head->seqno);
    return scan_long(text, &head->size);
}

static void take_seq(struct beep_session *session, const char *text)
{
    int32_t number = -1, window = 0;
    uint32_t ackno = 0;
    text = scan_long(text, &number);
    text = scan_unsigned(text, &ackno);
    if (!scan_long(text, &window)) {
        beep_trace("parse error: cannot parse SEQ, discard the line");
        return;
    }

    struct beep_channel *channel = beep_find_channel(session, number);
    if (!channel) {
        beep_trace("WARNING: got SEQ for non-existant channel %" PRId32 ", ignored", number);
        return;
    }
    // Kept on purpose: the limit is taken as it comes, so a peer may also take window back.
    channel->bc_tx_limit = ackno + static_cast<uint32_t>(window);
    beep_enable_write(session);
}

static constexpr char frame_letters[][FRAME_WORD_LEN + 1] = { "MSG ", "RPY ", "ERR ", "ANS ", "NUL ", "SEQ " };

static char frame_type(const char *line)
{
    for (const auto &word : frame_letters)
        if (strncmp(line, word, FRAME_WORD_LEN) == 0) return word[0];
    return '\0';
}

/* Reads the line at the start of the header buffer. False if it holds no frame and is to be thrown away; a SEQ, done
 * here, is such a line. */
static bool parse_line(struct beep_session *session, struct head *head)
{
    const char *text = session->bs_hdr + FRAME_WORD_LEN;

    head->type = frame_type(session->bs_hdr);
    if (head->type == '\0') {
        beep_trace("parse error: unknown frame type, discard the line");
        return false;
    }
    if (head->type == BEEP_MSGTYPE_SEQ) {
        take_seq(session, text);
        return false;
    }
    const char *rest = scan_head(text, head);
    if (head->type == BEEP_MSGTYPE_ANS && !scan_long(rest, &head->ansno)) {
        beep_trace("parse error: cannot parse ANS, discard the line");
        return false;
    }
    if (!rest) {
        beep_trace("parse error: cannot parse header, discard the line");
        return false;
    }
    if (head->size < 0) {
        beep_trace("parse error: received frame with negative size, discard the line");
        return false;
    }
    return true;
}

/* Makes the frame that head announces and gives it the octets that came with the line. The octets used. */
static size_t begin_frame(struct beep_session *session, const struct head *head, const char *octets, size_t count)
{
    struct beep_frame *frame = frame_new(head->type, static_cast<uint16_t>(head->channel), head->msgno, head->more,
                                         head->size, head->ansno, nullptr);
    if (!frame) frame_missing("beep_parse_head_for_session", LINE_INSIST_FRAME, "fp != NULL");

    size_t wanted = static_cast<size_t>(head->size) + BEEP_TRAILER_LEN;
    session->bs_rx_frame = frame;
    if (count >= wanted) {
        memcpy(frame->bf_data, octets, wanted);
        frame_complete(session);
        return wanted;
    }
    memcpy(frame->bf_data, octets, count);
    session->bs_rx_ptr = frame->bf_data + count;
    session->bs_rx_left = static_cast<uint32_t>(wanted - count);
    session->bs_hdr[0] = '\0';
    return count;
}

/* Moves what stands behind the consumed octets to the buffer's start. */
static void consume_header(struct beep_session *session, const char *next)
{
    // Kept on purpose: no new zero behind them; older text stands there up to the zero of the last read.
    size_t left = static_cast<size_t>(session->bs_hdr_end - next);
    memmove(session->bs_hdr, next, left);
    session->bs_hdr_end = session->bs_hdr + left;
}

int beep_parse_head_for_session(struct beep_session *session)
{
    if (session->bs_hdr_end == session->bs_hdr) return 1;

    const char *line_end = strstr(session->bs_hdr, "\r\n");
    if (!line_end || line_end + 2 > session->bs_hdr_end) {
        beep_trace("ERROR: incomplete header line");
        return 1;
    }
    const char *next = line_end + 2;

    struct head head = { '\0', ' ', -1, -1, 0, -1, 0 };
    if (parse_line(session, &head)) {
        struct beep_channel *channel = beep_find_channel(session, head.channel);
        // Kept on purpose: neither skipped nor an error of the session; see the top of this file.
        if (channel && channel->bc_rx_seqno != head.seqno) {
            beep_trace("ERROR: Frame received with unexpected sequence number");
            return 1;
        }
        if (channel) channel->bc_rx_seqno += static_cast<uint32_t>(head.size);
        next += begin_frame(session, &head, next, static_cast<size_t>(session->bs_hdr_end - next));
    }
    consume_header(session, next);
    return 0;
}

/* --- whole frames ----------------------------------------------------------------------------------------------- */

void frame_missing(const char *function, int line, const char *expression)
{
    logging_insist(BEEP_SOURCE_UNIT, function, line, expression);
    abort();   // the stream cannot be read on without the frame
}

bool frame_validate(const struct beep_frame *frame, struct beep_channel *channel)
{
    if (channel->bc_rx_more == BEEP_MORE_TO_COME) {
        if (frame->bf_type != channel->bc_rx_type) {
            beep_trace("Received message of mixed type");
            return false;
        }
        if (frame->bf_msgno != channel->bc_rx_msgno) {
            beep_trace("ERROR: Received message of mixed number");
            return false;
        }
    }
    // Kept on purpose: this engine takes no part in one-to-many exchanges.
    if (frame->bf_type == BEEP_MSGTYPE_NUL || frame->bf_type == BEEP_MSGTYPE_ANS) {
        beep_trace("ERROR: Received NUL or ANS");
        return false;
    }
    channel->bc_rx_more = frame->bf_more;
    channel->bc_rx_type = frame->bf_type;
    channel->bc_rx_msgno = frame->bf_msgno;
    return true;
}

void channel_send_seq(struct beep_session *session, struct beep_channel *channel)
{
    // Modulo 2^32 like the sum itself: repeats that are dropped never leave it, so a peer can drive it round.
    int32_t window = static_cast<int32_t>(static_cast<uint32_t>(channel->bc_rx_window) -
                                          static_cast<uint32_t>(channel->bc_rx_queued));
    // A failure is traced; the next frame's SEQ makes up for it.
    (void)beep_send_seq(session, channel->bc_number, channel->bc_rx_seqno, window > 0 ? window : 0);
}

void frame_complete(struct beep_session *session)
{
    struct beep_frame *frame = session->bs_rx_frame;
    session->bs_rx_frame = nullptr;
    // Kept on purpose: the zero goes over the trailer, which nobody looks at.
    frame->bf_data[frame->bf_size] = '\0';

    struct beep_channel *channel = beep_find_channel(session, frame->bf_channel);
    if (!channel) {
        beep_trace("ERROR: got frame for non-existant channel %d, discarded", frame->bf_channel);
        frame_free(frame);
        return;
    }
    // Kept on purpose: the sequence number has moved on, also for a frame that is refused.
    if (!frame_validate(frame, channel)) {
        beep_trace("ERROR: got invalid frame on channel %d, discarded", frame->bf_channel);
        frame_free(frame);
        return;
    }
    if (bp_queue_put_and_grow(channel->bc_in, reinterpret_cast<uintptr_t>(frame)) != 0) {
        beep_trace("ERROR: no memory to queue a frame on channel %d, discarded", frame->bf_channel);
        frame_free(frame);
        return;
    }

    channel->bc_rx_queued = static_cast<int32_t>(static_cast<uint32_t>(channel->bc_rx_queued) +
                                                 static_cast<uint32_t>(frame->bf_size));
    if (frame->bf_size > 0) channel_send_seq(session, channel);
    (void)evDo(session->bs_ev_ctx, wait_tag(channel->bc_number == 0 ? handle_frame_0 : handle_frame_non0));
}

/* --- the stream ------------------------------------------------------------------------------------------------- */

static ssize_t transport_read(struct beep_session *session, char *to, size_t length)
{
    errno = 0;   // a transport that fails without saying why must not be taken for one that is empty
    if (session->bs_transport) {
        int most = length > INT_MAX ? INT_MAX : static_cast<int>(length);
        return session->bs_read_fn(session->bs_transport, to, most);
    }
    return read(session->bs_fd, to, length);
}

/* Takes count octets that were read into the current frame. */
static void take_payload(struct beep_session *session, size_t count)
{
    beep_trace_octets("read", session->bs_rx_ptr, count);
    session->bs_rx_left -= static_cast<uint32_t>(count);
    session->bs_rx_ptr += count;
    if (session->bs_rx_left != 0) return;

    frame_complete(session);
    session->bs_hdr_end = session->bs_hdr;
    session->bs_hdr[0] = '\0';
}

/* Takes count octets, maybe none, that were read into the header buffer. False if more must come first. */
static bool take_header(struct beep_session *session, size_t count)
{
    if (count > 0) {
        beep_trace_octets("read", session->bs_hdr_end, count);
        session->bs_hdr_end += count;
        *session->bs_hdr_end = '\0';
    }

    size_t held = static_cast<size_t>(session->bs_hdr_end - session->bs_hdr);
    if (!memchr(session->bs_hdr, '\n', held)) {
        if (held >= BEEP_HEADER_MAX) {
            // Kept on purpose: the rest of the line will be taken for a line of its own.
            beep_trace("header line too long, discarded");
            session->bs_hdr_end = session->bs_hdr;
            // A transport may hold octets that its descriptor does not show; a socket shows them at the next turn.
            return session->bs_transport != nullptr;
        }
        return false;
    }
    // Kept on purpose: a line that was not consumed is parsed again at once, with whatever the next read adds.
    if (beep_parse_head_for_session(session) != 0)
        logging_insist(BEEP_SOURCE_UNIT, "handle_read_event", LINE_INSIST_STATUS, "status == FALSE");
    return true;
}

void handle_read_event(evContext, void *uap, int, int)
{
    auto *session = static_cast<struct beep_session *>(uap);
    if (beep_get_session_status(session) == BEEP_STATE_ENDED) {
        beep_trace("handle_read_event: session is closed, skip");
        return;
    }

    for (;;) {
        bool in_frame = session->bs_rx_frame != nullptr;
        size_t held = static_cast<size_t>(session->bs_hdr_end - session->bs_hdr);
        ssize_t count = in_frame ? transport_read(session, session->bs_rx_ptr, session->bs_rx_left)
                                 : transport_read(session, session->bs_hdr_end, BEEP_HEADER_MAX - held);
        if (count == 0) {
            beep_trace("Read: unexpected EOF");
            session_closed(session);
            return;
        }
        if (count < 0) {
            if (errno != EAGAIN) {
                beep_trace("Read error: %s", strerror(errno));
                session_closed(session);
                return;
            }
            if (in_frame || held == 0) return;
            count = 0;   // a whole line may stand in the buffer
        }

        if (in_frame)
            take_payload(session, static_cast<size_t>(count));
        else if (!take_header(session, static_cast<size_t>(count)))
            return;
    }
}

}   // extern "C"
