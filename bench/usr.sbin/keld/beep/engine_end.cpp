/*
 * Engine ends: one session in a process, so what the callbacks share is a record of this file.
 *
 * The asking end is driven by its answers: each brings the next MSG. It starts from a waiter of its own, since a
 * channel is only ready after pro_start_confirm has returned. The streaming end keeps a few messages queued and leaves
 * the rest to the transport, as a profile with much to say would.
 */
#include "bench/usr.sbin/keld/beep/engine_end.h"
#include "bench/usr.sbin/keld/beep/plain_end.h"

#include <errno.h>
#include <stdlib.h>
#include <unistd.h>

enum { STREAM_QUEUED = 16 };   // messages that wait for the transport at one time
static constexpr int TURN_MS = 1000;

static struct {
    struct load load;
    evContext ctx;
    struct beep_session *session;
    struct beep_channel *channel;   // null until started
    struct iovec payload;           // of each message from here
    int32_t sent, answered;
} end;

struct engine_probe engine_probe;

static void send_next()
{
    if (beep_send_msg(end.session, beep_get_channel_number(end.channel), &end.payload, 1) != 0) fail("beep_send_msg");
    end.sent++;
}

/* --- callbacks ---------------------------------------------------------------------------------------------- */

static void ask_for_channel(struct beep_session *session)
{
    if (beep_channel_start(session, session->bs_profiles, 1, nullptr) < 0) fail("beep_channel_start");
}

static void begin_asking(evContext, void *, const void *)
{
    pair_begin();
    while (end.sent < end.load.outstanding) send_next();
}

static uint8_t asking_confirmed(const char *, int32_t, struct beep_channel *channel)
{
    end.channel = channel;
    (void)evDo(end.ctx, &end);
    return 1;
}

static int answer_came(struct beep_session *, void *, struct beep_frame *frame)
{
    if (frame->bf_more != BEEP_MORE_LAST) return 0;
    if (++end.answered == end.load.messages) pair_finish();
    if (end.sent < end.load.messages) send_next();
    return 0;
}

static uint8_t accept_channel(const char *, int32_t, struct beep_channel *channel, struct beep_start_reply *)
{
    end.channel = channel;
    return 1;
}

static int message_came(struct beep_session *session, void *, struct beep_frame *frame)
{
    if (frame->bf_more != BEEP_MORE_LAST) return 0;
    if (beep_send_rpy(session, frame->bf_channel, -1, BEEP_MORE_LAST, &end.payload, 1) != 0) fail("beep_send_rpy");
    return 0;
}

static int last_answer_came(struct beep_session *, void *, struct beep_frame *)
{
    pair_finish();
}

static uint8_t probe_confirmed(const char *, int32_t, struct beep_channel *channel)
{
    engine_probe.ep_channel = channel;
    return 1;
}

static int probe_frame_came(struct beep_session *, void *, struct beep_frame *)
{
    engine_probe.ep_frames++;
    return 0;
}

static constexpr struct beep_profile profile_of(void (*greeting)(struct beep_session *),
                                                uint8_t (*confirm)(const char *, int32_t, struct beep_channel *),
                                                int (*frame)(struct beep_session *, void *, struct beep_frame *))
{
    return { BENCH_PROFILE_URI, greeting, nullptr, confirm, nullptr, nullptr, frame, nullptr };
}

static constexpr struct beep_profile asking = profile_of(ask_for_channel, asking_confirmed, answer_came);
static constexpr struct beep_profile streaming = profile_of(ask_for_channel, asking_confirmed, last_answer_came);
static constexpr struct beep_profile probing = profile_of(ask_for_channel, probe_confirmed, probe_frame_came);
static constexpr struct beep_profile answering = { BENCH_PROFILE_URI, nullptr, accept_channel, nullptr,
                                                   nullptr,           nullptr, message_came,   nullptr };

/* --- ends --------------------------------------------------------------------------------------------------- */

static void session_ended(struct beep_session *)
{
    _exit(EXIT_SUCCESS);
}

static struct beep_session *open_session(int fd, char role, const struct beep_profile *profile)
{
    if (evCreate(&end.ctx) != 0) fail("evCreate");
    end.session = beep_session_new(fd, end.ctx, role, profile, 1, nullptr, nullptr, nullptr);
    if (!end.session) fail("beep_session_new");
    beep_set_session_close_cb(end.session, session_ended);
    return end.session;
}

static void take_load(const struct load &load, int32_t octets)
{
    size_t length = static_cast<size_t>(octets);
    end.load = load;
    end.payload = { length > 0 ? calloc(1, length) : nullptr, length };
    if (length > 0 && !end.payload.iov_base) fail("calloc");
}

void engine_ask(int fd, const struct load &load)
{
    take_load(load, load.octets);
    open_session(fd, BEEP_ROLE_INITIATOR, &asking);
    if (evWaitFor(end.ctx, &end, begin_asking, nullptr, nullptr) != 0) fail("evWaitFor");
    (void)evMainLoop(end.ctx);
    fail("evMainLoop");
}

void engine_answer(int fd, const struct load &load)
{
    take_load(load, load.reply_octets);
    open_session(fd, BEEP_ROLE_LISTENER, &answering);
    (void)evMainLoop(end.ctx);
    fail("evMainLoop");
}

static void turn(evContext ctx)
{
    if (evTurn(ctx, TURN_MS) < 0) fail("evTurn");
}

void engine_stream(int fd, const struct load &load)
{
    take_load(load, load.octets);
    open_session(fd, BEEP_ROLE_INITIATOR, &streaming);
    while (!end.channel) turn(end.ctx);
    pair_begin();
    for (;;) {
        while (end.sent < load.messages && bp_queue_len(end.channel->bc_out) < STREAM_QUEUED) send_next();
        turn(end.ctx);
    }
}

void engine_probe_start(int fd, int peer_fd)
{
    engine_probe.ep_session = open_session(fd, BEEP_ROLE_INITIATOR, &probing);
    engine_probe.ep_ctx = end.ctx;
    peer_say_greeting(peer_fd);
    while (beep_get_session_status(engine_probe.ep_session) != BEEP_STATE_READY) turn(end.ctx);
    peer_say_start_accepted(peer_fd);
    while (!beep_find_channel(engine_probe.ep_session, 1)) turn(end.ctx);
    peer_grant_window(peer_fd);
}
