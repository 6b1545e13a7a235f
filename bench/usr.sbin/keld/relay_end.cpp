/*
 * Relay ends. The channel and its open call are put into the session by hand, so that what is measured is the reply and
 * nothing else: lines read, gathered, framed, queued and written.
 */
#include "bench/usr.sbin/keld/relay_end.h"

#include "bench/usr.sbin/keld/beep/plain_end.h"
#include "usr.sbin/keld/main/keld.h"
#include "usr.sbin/keld/tarnescript-profile.h"

#include <signal.h>
#include <string.h>
#include <string>
#include <sys/prctl.h>
#include <sys/socket.h>
#include <unistd.h>

enum { SINK_PIECE = 4096, DAEMON_WRITES = 64 << 10 };
static const std::string reply_end = "</rpc-reply>";

/* The daemon's end of a socket pair writes; the other is the result. */
static int daemon_start(const struct load &load)
{
    int ends[2];
    if (socketpair(AF_UNIX, SOCK_STREAM, 0, ends) != 0) fail("socketpair");
    pid_t pid = fork();
    if (pid < 0) fail("fork");
    if (pid == 0) {
        (void)prctl(PR_SET_PDEATHSIG, SIGKILL);   // it stays to the end: a daemon that leaves is an event of its own
        close(ends[0]);
        std::string line = "<name>" + std::string(static_cast<size_t>(load.octets) - 7, 'n') + "\n", block;
        while (block.size() < DAEMON_WRITES) block += line;
        int32_t lines = static_cast<int32_t>(block.size() / line.size());
        for (int32_t left = load.messages; left > 0; left -= lines)
            write_all(ends[1], block.data(), line.size() * static_cast<size_t>(left < lines ? left : lines));
        write_all(ends[1], (reply_end + "\n").data(), reply_end.size() + 1);
        for (;;) pause();
    }
    close(ends[1]);
    return ends[0];
}

static void session_ended(struct beep_session *)
{
    pair_finish();
}

void relay_reply(int fd, const struct load &load)
{
    static struct beep_profile row = {};
    static char buffer[TS_BUFFER_SIZE];
    struct ts_channel record = {};
    ts_pro_init(&row);
    if (evCreate(&keld_evctx) != 0) fail("evCreate");
    keld_sp = beep_session_new(fd, keld_evctx, BEEP_ROLE_INITIATOR, &row, 1, nullptr, nullptr, nullptr);
    struct beep_channel *channel = channel_new(1, &row, BEEP_ROLE_LISTENER);
    if (!keld_sp || !channel) fail("beep_session_new");
    beep_set_session_close_cb(keld_sp, session_ended);
    beep_add_channel(keld_sp, channel);
    channel->bc_state = BEEP_STATE_READY;
    channel->bc_pending = 0;   // the call

    record.tc_channel = 1;
    record.tc_buf = buffer;
    record.tc_end = buffer + sizeof buffer;
    memcpy(buffer, BEEP_MIME_HEADER, BEEP_MIME_HEADER_LEN);
    record.tc_ptr = buffer + BEEP_MIME_HEADER_LEN;
    pair_begin();
    record.tc_sock = mgmt_sock_open_fd(daemon_start(load));
    if (!record.tc_sock || evSelectFD(keld_evctx, record.tc_sock->ms_fd, EV_READ, ts_read_event, &record, nullptr) < 0)
        fail("evSelectFD");
    (void)evMainLoop(keld_evctx);
    fail("evMainLoop");
}

void plain_copy(int fd, const struct load &load)
{
    char piece[TS_BUFFER_SIZE];
    pair_begin();
    int from = daemon_start(load);
    size_t left = static_cast<size_t>(load.messages) * static_cast<size_t>(load.octets) + reply_end.size() + 1;
    while (left > 0) {
        ssize_t got = read(from, piece, sizeof piece);
        if (got < 1) fail("read");
        write_all(fd, piece, static_cast<size_t>(got));
        left -= static_cast<size_t>(got);
    }
    if (read(fd, piece, 1) != 0) fail("read");
    pair_finish();
}

static void sink(int fd, const std::string &end)
{
    char piece[SINK_PIECE];
    std::string last;
    while (!last.ends_with(end)) {
        ssize_t got = read(fd, piece, sizeof piece);
        if (got < 1) fail("read");
        size_t kept = static_cast<size_t>(got) < end.size() ? static_cast<size_t>(got) : end.size();
        last.append(piece + got - kept, kept);
        if (last.size() > end.size()) last.erase(0, last.size() - end.size());
    }
}

void relay_sink(int fd, const struct load &)
{
    peer_say_greeting(fd);
    peer_grant_window(fd);
    sink(fd, reply_end + "END\r\n");
}

void copy_sink(int fd, const struct load &)
{
    sink(fd, reply_end + "\n");
}
