/*
 * A session of either role against a peer that sends anything, over a transport that hands octets out and takes them
 * in pieces, or not at all for the moment. The whole read path runs, from the stream to profiles that reply, start
 * and stop as the peer's payloads tell them.
 *
 * The first octet sets role and profiles, the second the pieces; the rest is the stream. Two ways of the engine to
 * end are kept away: a number of more than six digits is cut, since a frame too large for memory ends the process;
 * and the stream ends some reads after its last octet, since one that is out of step is parsed again until then.
 */
#include "usr.sbin/keld/beep/beep.h"

#include <errno.h>
#include <stdlib.h>
#include <string.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <string>

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size);
extern "C" int LLVMFuzzerInitialize(int *argc, char ***argv);

enum { FLAG_LISTENER = 1, FLAG_REFUSE = 2, FLAG_DEAF = 4, FLAG_BREAK = 8, FLAG_NO_CALLBACK = 16 };
enum { DIGITS_MAX = 6, LAST_EMPTY_READS = 3, PIECE_MAX = 97, TURNS_MAX = 4096, WRITES_MAX = 200 };

static evContext loop;
static int fds[2];

static struct peer {
    std::string stream;
    size_t at;
    uint32_t random;
    int empty_reads, writes;
    uint8_t flags;
    bool had_empty;     // the last read gave nothing
    long channels;      // taken by a profile and not stopped
} peer;

static void must(bool holds)
{
    if (!holds) abort();
}

static uint32_t next_random(void)
{
    peer.random = peer.random * 1664525 + 1013904223;
    return peer.random >> 16;
}

static int read_some(void *, void *to, int length)
{
    if (length == 0) return 0;
    bool at_end = peer.at == peer.stream.size();
    if (at_end && ++peer.empty_reads > LAST_EMPTY_READS) return 0;
    if (at_end || (!peer.had_empty && next_random() % 4 == 0)) {
        peer.had_empty = true;
        errno = EAGAIN;
        return -1;
    }
    peer.had_empty = false;
    size_t piece = std::min({ size_t{ 1 + next_random() % PIECE_MAX }, static_cast<size_t>(length),
                              peer.stream.size() - peer.at });
    memcpy(to, peer.stream.data() + peer.at, piece);
    peer.at += piece;
    return static_cast<int>(piece);
}

static int write_some(void *, const void *from, int length)
{
    static char taken[PIECE_MAX];
    bool breaks = (peer.flags & FLAG_BREAK) != 0 && ++peer.writes > WRITES_MAX / 8;
    if (breaks || next_random() % 4 == 0) {
        errno = breaks ? EPIPE : EAGAIN;
        return -1;
    }
    int piece = std::min(length, static_cast<int>(1 + next_random() % PIECE_MAX));
    memcpy(taken, from, static_cast<size_t>(piece));   // all of it must be there
    return piece;
}

/* --- profiles --------------------------------------------------------------------------------------------------- */

extern struct beep_profile table[2];   // defined below what it calls

static void start_channel(struct beep_session *session)
{
    const char *piggybacks[] = { "<a/>", nullptr };
    (void)!beep_channel_start(session, table, 1 + static_cast<int>(next_random() % 2), piggybacks);
}

static uint8_t take_channel(struct beep_channel *channel)
{
    peer.channels++;
    beep_set_channel_user_data(channel, channel);
    return 1;
}

static uint8_t start_indicate(const char *data, int32_t length, struct beep_channel *channel,
                              struct beep_start_reply *out)
{
    if (data) out->br_piggyback = strndup(data, static_cast<size_t>(length));
    return peer.flags & FLAG_REFUSE ? 0 : take_channel(channel);
}

static uint8_t start_confirm(const char *, int32_t, struct beep_channel *channel)
{
    take_channel(channel);   // its end is told also if it is refused
    return !(peer.flags & FLAG_REFUSE);
}

static void stop(void *) { peer.channels--; }

/* The first octet of a payload tells what to do besides the reply. */
static int deliver(struct beep_session *session, void *user_data, struct beep_frame *frame)
{
    struct beep_diagnostic why = { frame->bf_size, frame->bf_data };
    struct iovec iov = { frame->bf_data, static_cast<size_t>(frame->bf_size) };
    uint16_t number = beep_get_channel_number(static_cast<struct beep_channel *>(user_data));

    must(strlen(frame->bf_data) <= static_cast<size_t>(frame->bf_size));
    switch (frame->bf_data[0]) {
    case 'm': (void)!beep_send_msg(session, number, &iov, 1); break;
    case 'e': (void)!beep_send_err(session, number, -1, &why); break;
    case 'c': (void)!beep_channel_stop(session, number, 200, nullptr); break;
    case 'q': (void)!beep_session_stop(session, 200, "q"); break;
    case 's': start_channel(session); break;
    default: break;
    }
    if (!(peer.flags & FLAG_DEAF)) (void)!beep_send_rpy(session, number, -1, frame->bf_more, &iov, 1);
    return 0;
}

struct beep_profile table[2] = {
    { "f", start_channel, start_indicate, start_confirm, nullptr, stop, deliver, nullptr },
    { "m", start_channel, start_indicate, start_confirm, nullptr, stop, nullptr, deliver },
};

/* ------------------------------------------------------------------------------------------------------------------ */

int LLVMFuzzerInitialize(int *, char ***)
{
    logging_register_logfunc([](int, const char *, const char *const *, const char *, va_list) {});
    logging_set_mode(LOGGING_MODE_DAEMON);
    must(evCreate(&loop) >= 0);
    must(socketpair(AF_UNIX, SOCK_STREAM, 0, fds) == 0 && write(fds[1], "x", 1) == 1);   // readable for ever
    return 0;
}

static std::string short_numbers(std::string text)
{
    int digits = 0;
    for (char &octet : text) {
        digits = octet >= '0' && octet <= '9' ? digits + 1 : 0;
        if (digits > DIGITS_MAX) octet = ' ';
    }
    return text;
}

int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    if (size < 2) return 0;
    peer = {};
    peer.flags = data[0];
    peer.random = data[1];
    peer.stream = short_numbers(std::string(reinterpret_cast<const char *>(data) + 2, size - 2));

    struct beep_session *session = beep_session_new(fds[0], loop, peer.flags & FLAG_LISTENER ? 'L' : 'I', table, 2,
                                                    read_some, write_some, &peer);
    must(session);
    if (!(peer.flags & FLAG_NO_CALLBACK)) beep_set_session_close_cb(session, [](struct beep_session *) {});

    for (int turn = 0; beep_get_session_status(session) != BEEP_STATE_ENDED; turn++) {
        must(turn < TURNS_MAX + static_cast<int>(peer.stream.size()));
        must(evTurn(loop, 0) >= 0);
        must(session->bs_hdr_end >= session->bs_hdr && session->bs_hdr_end <= session->bs_hdr + BEEP_HEADER_MAX);
        must(session->bs_hdr[BEEP_HEADER_MAX] == '\0');
    }
    must(peer.channels == 0);
    (void)evTurn(loop, 0);
    beep_session_delete(session);
    return 0;
}
