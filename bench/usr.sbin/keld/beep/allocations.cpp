/*
 * Allocations, counted by the linker's wrapping of malloc, calloc and realloc in all of the program.
 *
 * Engine and peer take turns in one thread, so each call belongs to the frame or message that is under way. Frames come
 * one at a time, as pieces of one endless message, and each is delivered and acknowledged before the next. The answers
 * that sent messages need are not counted. A first round of each lets queues and pools grow to their size.
 */
#include "bench/usr.sbin/keld/beep/allocations.h"

#include "bench/usr.sbin/keld/beep/engine_end.h"
#include "bench/usr.sbin/keld/beep/plain_end.h"

#include <inttypes.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/socket.h>
#include <unistd.h>

static constexpr int ROUNDS = 100, BURST = 32, OCTETS = 64;

static uint64_t calls;

extern "C" {

void *__real_malloc(size_t size);
void *__real_calloc(size_t count, size_t size);
void *__real_realloc(void *block, size_t size);
void *__wrap_malloc(size_t size);
void *__wrap_calloc(size_t count, size_t size);
void *__wrap_realloc(void *block, size_t size);

void *__wrap_malloc(size_t size)
{
    calls++;
    return __real_malloc(size);
}

void *__wrap_calloc(size_t count, size_t size)
{
    calls++;
    return __real_calloc(count, size);
}

void *__wrap_realloc(void *block, size_t size)
{
    calls++;
    return __real_realloc(block, size);
}

}   // extern "C"

static void turn_until_idle()
{
    while (evTurn(engine_probe.ep_ctx, 0) > 0) continue;
}

static void drop_what_peer_got(int peer_fd)
{
    char octets[4096];
    while (recv(peer_fd, octets, sizeof octets, MSG_DONTWAIT) > 0) continue;
}

/* One frame of an endless MSG. */
static void receive_frame(int peer_fd, uint32_t *seqno)
{
    char frame[OCTETS + 100];
    int header = snprintf(frame, sizeof frame, "MSG 1 0 * %" PRIu32 " %d\r\n", *seqno, OCTETS);
    memset(frame + header, 'm', OCTETS);
    memcpy(frame + header + OCTETS, "END\r\n", BEEP_TRAILER_LEN);
    write_all(peer_fd, frame, static_cast<size_t>(header) + OCTETS + BEEP_TRAILER_LEN);
    *seqno += OCTETS;

    int32_t before = engine_probe.ep_frames;
    while (engine_probe.ep_frames == before) (void)evTurn(engine_probe.ep_ctx, -1);
    turn_until_idle();
    drop_what_peer_got(peer_fd);
}

static double count_received(int peer_fd)
{
    uint32_t seqno = 0;
    receive_frame(peer_fd, &seqno);
    uint64_t before = calls;
    for (int round = 0; round < ROUNDS; round++) receive_frame(peer_fd, &seqno);
    return static_cast<double>(calls - before) / ROUNDS;
}

/* Sends a burst. The calls it took until all was written. */
static uint64_t send_burst()
{
    char payload[OCTETS] = {};
    struct iovec iov = { payload, sizeof payload };
    uint64_t before = calls;
    for (int i = 0; i < BURST; i++)
        if (beep_send_msg(engine_probe.ep_session, 1, &iov, 1) != 0) fail("beep_send_msg");
    while (bp_queue_len(engine_probe.ep_channel->bc_out) > 0) (void)evTurn(engine_probe.ep_ctx, 0);
    return calls - before;
}

/* Answers the burst that begins with msgno. */
static void answer_burst(int peer_fd, int32_t msgno)
{
    char frame[100];
    for (int32_t last = msgno + BURST; msgno < last; msgno++) {
        int length = snprintf(frame, sizeof frame, "RPY 1 %" PRId32 " . 0 0\r\nEND\r\n", msgno);
        write_all(peer_fd, frame, static_cast<size_t>(length));
    }
    while (bp_queue_len(engine_probe.ep_channel->bc_sent_msgnos) > 0) (void)evTurn(engine_probe.ep_ctx, -1);
    drop_what_peer_got(peer_fd);
}

static double count_sent(int peer_fd)
{
    uint64_t sum = 0;
    for (int round = 0; round <= ROUNDS; round++) {
        uint64_t burst = send_burst();
        if (round > 0) sum += burst;
        answer_burst(peer_fd, round * BURST);
    }
    return static_cast<double>(sum) / (ROUNDS * BURST);
}

struct allocations allocations_count()
{
    int ends[2];
    pair_connect(ends);
    engine_probe_start(ends[0], ends[1]);
    struct allocations result;
    result.al_sent = count_sent(ends[1]);
    result.al_received = count_received(ends[1]);
    beep_session_delete(engine_probe.ep_session);
    (void)evDestroy(engine_probe.ep_ctx);
    close(ends[0]);
    close(ends[1]);
    return result;
}
