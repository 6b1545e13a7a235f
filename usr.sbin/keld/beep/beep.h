/*
 * BEEP engine: one session of RFC 3080 framing with channel 0 management over one connected stream, with the flow
 * control of RFC 3081. It differs from the RFCs at a number of places on purpose, marked "Kept on purpose:" where
 * they stand.
 *
 * How it hangs together
 *   - Sending only queues: a send function copies its payload into a frame on the channel and asks for write readiness.
 *     handle_write does all writing, from the loop.
 *   - Reading only queues: handle_read_event splits the stream into frames and puts them on their channels. Parsing
 *     channel 0 and calling profiles wait for the loop's next turn (handle_frame_0, handle_frame_non0), so that a
 *     profile callback may send, start and stop as it likes.
 *   - A profile callback and the close callback must not delete the session.
 *
 * Results: 0 or a count on success, -1 or 1 on failure as told at each function; the reason goes to the trace, class 0.
 * Message numbers, sequence numbers and windows are 32 bits and wrap modulo 2^32.
 *
 * One thread: the event loop's. No global state but the trace options.
 */
#pragma once

#include "platform/ev/ev.h"
#include "platform/log/log.h"
#include "usr.sbin/keld/beep/bp_queue.h"
#include "usr.sbin/keld/beep/chan0.h"

#include <stddef.h>
#include <stdint.h>
#include <sys/uio.h>

extern "C" {

/* Trace state of the engine and of the program around it. */
extern struct dtf_options keld_dtf_options;

/* --- frames ---------------------------------------------------------------------------------------------------- */

enum : char {   // frame and message types: the first letter on the wire
    BEEP_MSGTYPE_MSG = 'M',
    BEEP_MSGTYPE_RPY = 'R',
    BEEP_MSGTYPE_ERR = 'E',
    BEEP_MSGTYPE_ANS = 'A',
    BEEP_MSGTYPE_NUL = 'N',
    BEEP_MSGTYPE_SEQ = 'S',
};
enum : char { BEEP_MORE_LAST = '.', BEEP_MORE_TO_COME = '*', BEEP_MORE_NONE = ' ' };   // bf_more

enum {
    BEEP_HEADER_MAX = 80,     // octets of a header line, CR LF included
    BEEP_TRAILER_LEN = 5,     // "END\r\n"
    BEEP_WINDOW = 4096,       // what both sides start with
    BEEP_QUEUE_SIZE = 64,     // entries for which a queue has room at first
};

/* One frame, in or out, in one block with its data. */
struct beep_frame {
    int32_t bf_msgno;      // message number; in a SEQ the acknowledged sequence number
    int32_t bf_ansno;      // answer number, -1 if none; in a SEQ the window
    int32_t bf_size;       // octets of payload still held; shrinks as pieces are sent
    uint16_t bf_channel;
    char bf_type;          // BEEP_MSGTYPE_
    char bf_more;          // BEEP_MORE_; from the peer any character
    char *bf_data;         // payload: into bf_payload, advances as pieces are sent
    char bf_payload[];     // bf_size octets, room for the trailer, and a zero
};

/* A frame with the given fields and a zeroed payload of size octets, filled from data unless that is null. Null if
 * memory is out. size is not negative. */
[[nodiscard]] struct beep_frame *frame_new(char type, uint16_t channel, int32_t msgno, char more, int32_t size,
                                           int32_t ansno, const void *data);
void frame_free(struct beep_frame *frame);   // null allowed

/* --- profiles -------------------------------------------------------------------------------------------------- */

struct beep_channel;
struct beep_close_job;
struct beep_session;

/* What pro_start_indicate may leave for the <profile> reply. */
struct beep_start_reply {
    uintptr_t br_reserved;   // never read
    char *br_piggyback;      // malloc'ed text, or null; the engine frees it
};

/* One row of the table that a session is given. Zero the row, then let the profile fill it. The session keeps a
 * pointer to the table, which must outlive it. data of a piggyback has length octets and no terminator; null if there
 * is none. */
struct beep_profile {
    const char *pro_uri;
    /* The peer's greeting made the session ready. Null allowed. */
    void (*pro_greeting)(struct beep_session *session);
    /* The peer asks for a channel of this profile. Non-zero accepts; null refuses. Lends channel, which becomes
     * usable after the return. */
    uint8_t (*pro_start_indicate)(const char *data, int32_t length, struct beep_channel *channel,
                                  struct beep_start_reply *reply);
    /* The peer confirmed a <start> from here. Zero, or null, gives the channel up again, and the peer is not told. */
    uint8_t (*pro_start_confirm)(const char *data, int32_t length, struct beep_channel *channel);
    /* The peer refused a <start> from here. diagnostic may be null. Null allowed. */
    void (*pro_start_fail)(const struct beep_diagnostic *diagnostic);
    /* The channel is being deleted. Frees user_data. Null allowed. */
    void (*pro_stop)(void *user_data);
    /* Each frame as it comes, or, if this is null, each whole message. Lends frame until the return; its payload is
     * followed by a zero. The result is not used. */
    int (*pro_frame)(struct beep_session *session, void *user_data, struct beep_frame *frame);
    int (*pro_message)(struct beep_session *session, void *user_data, struct beep_frame *frame);
};
static_assert(sizeof(struct beep_profile) == 8 * sizeof(void *));

/* --- channels -------------------------------------------------------------------------------------------------- */

enum : char {   // bc_state; on channel 0 the session's status
    BEEP_STATE_NEW = 0,
    BEEP_STATE_START = 'S',    // session only: the peer's greeting is awaited
    BEEP_STATE_READY = 'R',
    BEEP_STATE_CLOSING = 'C',
    BEEP_STATE_ENDED = 'E',    // session only, never stored: channel 0 is gone
};
enum : char { BEEP_ROLE_INITIATOR = 'I', BEEP_ROLE_LISTENER = 'L' };

#define BEEP_NOTHING_PENDING ((uintptr_t)-1)   // bc_pending of a channel other than 0

struct beep_channel {
    const struct beep_profile *bc_profile;   // null on channel 0 and while pro_start_indicate is tried
    uint16_t bc_number;
    char bc_role;                 // channel 0: the session's; otherwise 'I' started here, 'L' started by the peer
    char bc_state;
    char bc_last_more;            // bf_more of the frame last handed to the profile; '.' at first
    int32_t bc_next_msgno;        // next MSG from here: 0 at first, 1 on channel 0
    int32_t bc_answered_msgno;    // MSG most recently answered in full, -1 at first
    int32_t bc_rx_msgno;          // of the frame last accepted from the wire
    char bc_rx_more, bc_rx_type;  // of that frame; 0 at first
    int32_t bc_rx_queued;         // payload octets in bc_in
    int32_t bc_rx_window;         // octets that this side offers: BEEP_WINDOW
    uint32_t bc_rx_seqno;         // next sequence number expected from the peer
    uint32_t bc_tx_seqno;         // sequence number of the next octet to send
    uint32_t bc_tx_limit;         // first sequence number that the peer does not allow yet
    uintptr_t bc_pending;         // channel 0: chan0_msg of the <close> being worked on, owned, or 0;
                                  // otherwise the number of the MSG being answered, sign-extended, or
                                  // BEEP_NOTHING_PENDING
    struct beep_frame *bc_seq_frame;     // the one unsent SEQ, owned, or null
    struct bp_queue *bc_in;              // received frames not delivered yet; owned, and the frames too
    struct bp_queue *bc_out;             // frames to be sent; owned, and the frames too
    struct bp_queue *bc_sent_msgnos;     // numbers of MSGs sent and not answered in full; owned
    void *bc_user_data;                  // the profile's; never looked into here
    struct beep_frame *bc_seq_spare;     // a SEQ that has left, kept for the next; owned, or null
    struct beep_channel *bc_orphan;      // next in bs_orphans, once a <start> has taken this channel's number
};

/* --- sessions -------------------------------------------------------------------------------------------------- */

/* The shape of read and write on a handle; SSL_read and SSL_write fit. */
typedef int (*beep_read_fn)(void *transport, void *buffer, int length);
typedef int (*beep_write_fn)(void *transport, const void *buffer, int length);

typedef void (*beep_session_close_cb)(struct beep_session *session);

enum { BEEP_IOV_HEADER, BEEP_IOV_PAYLOAD, BEEP_IOV_TRAILER, BEEP_IOV_COUNT };

struct beep_session {
    evContext bs_ev_ctx;
    evFileID bs_read_id, bs_write_id;                          // null while not registered
    evWaitID bs_frame0_wait, bs_frame_wait, bs_close_wait;     // deferred jobs, null while not waiting
    int bs_fd;                                                 // the caller's; never closed here

    beep_read_fn bs_read_fn;       // used if bs_transport is not null
    beep_write_fn bs_write_fn;
    void *bs_transport;            // the caller's

    char bs_hdr[BEEP_HEADER_MAX + 1];   // header octets read and not consumed; the last octet is always zero
    char *bs_hdr_end;                   // where the next header octets go
    struct beep_frame *bs_rx_frame;     // whose payload is being read; owned; null between frames
    char *bs_rx_ptr;                    // where its next octets go
    uint32_t bs_rx_left;                // octets still to read, trailer included

    char bs_out_hdr[BEEP_HEADER_MAX];           // header of the frame being written
    struct iovec bs_iov[BEEP_IOV_COUNT];        // what is left of it
    int32_t bs_iov_index;                       // the pair being written, -1 while no frame is

    struct bp_queue *bs_chan0_sent;             // chan0_msg of each channel 0 MSG sent and not answered; owned
    uint16_t bs_profile_count;
    const struct beep_profile *bs_profiles;     // the caller's
    uint32_t bs_channel_count;                  // slots in bs_channels: highest number ever added, plus 1
    struct beep_channel **bs_channels;          // by number; null slots are channels that do not exist; owned
    uint16_t bs_next_channel;                   // number for the next beep_channel_start
    beep_session_close_cb bs_close_cb;          // null if none

    struct beep_frame *bs_iov_frame;            // whose payload bs_iov points into; null while no frame is written
    struct beep_frame *bs_iov_orphan;           // the same, owned, once its channel has gone
    struct beep_close_job *bs_close_job;        // the peer's <close> that waits for queues to drain; owned, or null
    bool bs_not_held;                           // bs_fd is no TCP socket, so that writes cannot be held back
    struct beep_channel *bs_orphans;            // channels that lost their number, owned until the session goes
};

/* Starts a session on fd, a connected stream socket, and queues the greeting. fd becomes non-blocking and stays the
 * caller's. role is 'I' or 'L'. read_fn, write_fn and transport are all null (the engine then reads and writes fd), or
 * behave as read and write do on a non-blocking descriptor: above 0 octets moved, 0 end of stream, -1 with errno. The
 * table and the transport must outlive the session. Null if memory is out or the loop refuses; nothing is left then. */
[[nodiscard]] struct beep_session *beep_session_new(int fd, evContext ev_ctx, char role,
                                                    const struct beep_profile *profiles, uint16_t profile_count,
                                                    beep_read_fn read_fn, beep_write_fn write_fn, void *transport);
/* Frees the session, its channels (pro_stop is called) and frames. The creator must call it, also after the close
 * callback ran; never from inside a callback of the engine. fd and transport stay the caller's. */
void beep_session_delete(struct beep_session *session);
/* cb is called once when the session has ended and its channels are gone; it must not delete the session. Without one
 * the session only stops reading and writing. */
void beep_set_session_close_cb(struct beep_session *session, beep_session_close_cb cb);
/* A BEEP_STATE_ character; 'E' also for null. */
char beep_get_session_status(const struct beep_session *session);
evContext beep_get_session_ev_ctx(const struct beep_session *session);

uint16_t beep_get_channel_number(const struct beep_channel *channel);
void beep_set_channel_user_data(struct beep_channel *channel, void *data);
/* Puts channel, which it takes, into the table, in place of what stood there. If the table cannot grow the channel is
 * deleted. With a null session nothing happens but a trace. */
void beep_add_channel(struct beep_session *session, struct beep_channel *channel);
/* The channel with the low 16 bits of number, or null. */
struct beep_channel *beep_find_channel(const struct beep_session *session, int32_t number);
/* A channel record with its queues, in no table; null if memory is out. */
[[nodiscard]] struct beep_channel *channel_new(uint16_t number, const struct beep_profile *profile, char role);
/* Frees the record, its frames and queues, and calls pro_stop. It must not be in a table any more. */
void channel_delete(struct beep_channel *channel);

/* --- sending: 0 on success unless told, -1 on failure with nothing queued --------------------------------------- */

/* One MSG of one frame, on a channel that is ready. iov's octets are copied, in all functions here. */
[[nodiscard]] int beep_send_msg(struct beep_session *session, uint16_t channel, const struct iovec *iov, int iov_count);
/* One RPY frame for the MSG being answered. msgno is its number, or -1 for whichever it is. more is '.', which ends
 * the MSG, or '*'. */
[[nodiscard]] int beep_send_rpy(struct beep_session *session, uint16_t channel, int32_t msgno, char more,
                                const struct iovec *iov, int iov_count);
/* An ERR frame, which ends the MSG. diagnostic must not be null. */
[[nodiscard]] int beep_send_err(struct beep_session *session, uint16_t channel, int32_t msgno,
                                const struct beep_diagnostic *diagnostic);
/* Queues a frame of any type on a channel record. msgno -1 takes the next number for a MSG. The message number or -1.
 * */
[[nodiscard]] int32_t beep_send_iovec(struct beep_session *session, struct beep_channel *channel, char type,
                                      int32_t msgno, char more, const struct iovec *iov, int iov_count);
/* The same for one piece, by channel number, with an answer number. size is not negative. The message number or -1. */
[[nodiscard]] int32_t beep_send_raw(struct beep_session *session, uint16_t channel, char type, int32_t msgno, char more,
                                    int32_t size, int32_t ansno, const void *data);
/* Tells the peer how far it may send. Replaces a SEQ of the channel that has not left yet. */
int beep_send_seq(struct beep_session *session, uint16_t channel, uint32_t ackno, int32_t window);
void beep_enable_write(struct beep_session *session);

/* --- channels and session: start and close ---------------------------------------------------------------------- */

/* Asks the peer for a channel of one of the count profiles. piggybacks is null, or count texts, which may be null. The
 * number that the channel will have, or -1. The channel exists when pro_start_confirm is called. */
[[nodiscard]] int32_t beep_channel_start(struct beep_session *session, const struct beep_profile *profiles, int count,
                                         const char *const *piggybacks);
/* Asks the peer to close a channel, or the session. 0 if the request is queued, 1 if not. text may be null. */
[[nodiscard]] int beep_channel_stop(struct beep_session *session, uint16_t channel, int32_t code, const char *text);
[[nodiscard]] int beep_session_stop(struct beep_session *session, int32_t code, const char *text);

}   // extern "C"
