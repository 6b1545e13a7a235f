/*
 * The management socket over socket pairs, and against a management daemon that the test plays.
 */
#include "platform/mgmt/mgmt_sock.h"
#include "tests/platform/confdb/conf_fixture.h"
#include "tests/platform/mgmt/clock_and_poll.h"

#include <errno.h>
#include <fcntl.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

static bool no_memory;

extern "C" {
decltype(realloc) __real_realloc;
void *__wrap_realloc(void *block, size_t size)
{
    return no_memory ? nullptr : __real_realloc(block, size);
}
}

class mgmt : public testing::Test {
protected:
    void SetUp() override
    {
        int pair[2];
        ASSERT_EQ(socketpair(AF_UNIX, SOCK_STREAM, 0, pair), 0);
        msp = mgmt_sock_open_fd(pair[0]);
        ASSERT_NE(msp, nullptr);
        peer = pair[1];
        fcntl(peer, F_SETFL, O_NONBLOCK);
    }
    void TearDown() override
    {
        while_waiting = nullptr;
        no_memory = false;
        mgmt_sock_close(msp, 0);
        close(peer);
    }
    void send_text(const std::string &text) { ASSERT_EQ(write(peer, text.data(), text.size()), ssize_t(text.size())); }
    /* The next line, or the name of what stands in its way. */
    std::string line()
    {
        const char *text = mgmt_sock_input(msp, MGMT_INPUT_LINE);
        return text ? text : strerrorname_np(errno);
    }
    bool readable() const
    {
        struct pollfd ready = { msp->ms_fd, POLLIN, 0 };
        return __real_poll(&ready, 1, 0) == 1;
    }
    /* One long line, written whenever the socket takes some. */
    std::string long_line(size_t length)
    {
        std::string octets = std::string(length, 'x') + "\n", answer = "EAGAIN";
        for (size_t sent = 0; sent < octets.size() && answer == "EAGAIN"; answer = line())
            sent += size_t(std::max<ssize_t>(write(peer, octets.data() + sent, octets.size() - sent), 0));
        return answer;
    }

    struct mgmt_sock *msp = nullptr;
    int peer = -1;
};

TEST_F(mgmt, lines_come_whole_and_the_descriptor_tells_that_there_are_more)
{
    send_text("one\n\nthr");
    for (const char *expected : { "one", "" }) {
        EXPECT_TRUE(readable()) << "a line that came with another must not wait for the next input";
        EXPECT_EQ(line(), expected);
    }
    EXPECT_EQ(line(), "EAGAIN");
    EXPECT_FALSE(readable());
    send_text("ee\r\n");
    EXPECT_EQ(line(), "three\r");

    EXPECT_EQ(long_line(10 << 20), std::string(10 << 20, 'x'));
    EXPECT_LE(msp->ms_fbp->fb_size, size_t(16 << 20));
    send_text("short\nunfinished");
    EXPECT_EQ(line(), "short");
    EXPECT_LE(msp->ms_fbp->fb_size, size_t(64 << 10)) << "the long line's memory is given back";
    shutdown(peer, SHUT_WR);
    for (int i = 0; i < 2; i++) EXPECT_EQ(line(), "ECONNRESET");
    EXPECT_EQ(msp->ms_fbp->fb_flags, FBUF_EOF);
}

TEST_F(mgmt, input_that_cannot_be_held_is_the_end)
{
    EXPECT_EQ(long_line(MGMT_LINE_MAX + 2), "EMSGSIZE");
    EXPECT_EQ(msp->ms_fbp->fb_flags, FBUF_EOF);
    TearDown();
    SetUp();
    no_memory = true;
    send_text("x\n");
    EXPECT_EQ(line(), "ENOMEM");
    EXPECT_EQ(msp->ms_fbp->fb_flags, FBUF_EOF);
}

TEST_F(mgmt, a_drain_ends_in_time_whatever_the_peer_does)
{
    int64_t start = clock_ms;
    msp->ms_wait = { 1, 0 };
    EXPECT_EQ(line(), "EAGAIN");
    EXPECT_EQ(clock_ms, start + 1000);

    while_waiting = [&] {
        clock_ms += 400;
        send_text("still here\n");
    };
    msp->ms_wait = {};
    EXPECT_EQ(line(), "EAGAIN");
    msp->ms_wait = { 1, 0 };
    start = clock_ms;
    int lines = 0;
    while (mgmt_sock_input(msp, MGMT_INPUT_LINE)) lines++;
    EXPECT_EQ(lines, 2);
    EXPECT_EQ(clock_ms, start + 1200);
    msp->ms_wait = {};
    EXPECT_EQ(line(), "still here");
    msp->ms_flags = 0;   // now it waits as long as it takes
    EXPECT_EQ(line(), "still here");
}

TEST_F(mgmt, output_waits_in_memory_up_to_a_bound_and_fails_for_good)
{
    std::string piece(1 << 20, 'y');
    size_t taken = 0, arrived = 0;
    for (ssize_t put; (put = mgmt_sock_write(msp, piece.data(), piece.size(), 0)) > 0;) taken += size_t(put);
    EXPECT_EQ(errno, ENOBUFS);
    EXPECT_GE(taken, size_t(FWBUF_MAX));
    for (bool more = true; more;) {
        more = fwbuf_flush(&msp->ms_fwb, FWBUF_NOWAIT) > 0;
        for (ssize_t got; (got = read(peer, piece.data(), piece.size())) > 0;) arrived += size_t(got);
    }
    EXPECT_EQ(arrived, taken);
    EXPECT_EQ(msp->ms_fwb.fw_data, nullptr);

    shutdown(peer, SHUT_RDWR);
    EXPECT_EQ(mgmt_sock_write(msp, "x", 1, 0), 1);
    EXPECT_EQ(fwbuf_flush(&msp->ms_fwb, FWBUF_NOWAIT), -1);
    EXPECT_EQ(mgmt_sock_write(msp, "x", 1, 0), -1);
    EXPECT_EQ(errno, EPIPE);
}

using mgmt_vrd = conf_fixture;

TEST_F(mgmt_vrd, login_and_handshake)
{
    EXPECT_EQ(mgmt_sock_vrd("user root"), nullptr);
    EXPECT_EQ(errno, ENOENT);
    EXPECT_EQ(mgmt_sock_vrd("user root\nuser other"), nullptr);
    EXPECT_EQ(errno, EINVAL);

    struct sockaddr_un address;
    ASSERT_EQ(mgmt_sock_address(&address, MGMT_VRD_SOCKET), 0);
    std::filesystem::create_directories(root + "/var/run");
    int listener = socket(AF_UNIX, SOCK_STREAM, 0);
    ASSERT_EQ(bind(listener, reinterpret_cast<struct sockaddr *>(&address), sizeof address), 0);
    listen(listener, 0);

    static const struct {
        const char *answer;   // a piece of it each time that the client waits, split at '|'; "!" hangs up
        int error, passed_ms;
    } rows[] = {
        { "<hel|lo/>\nmore\n", 0, 0 },
        { "<?xml version=\"1.0\"?>\n", EPROTO, 0 },
        { "<hello!", ECONNRESET, 0 },
        { "", ETIMEDOUT, 10000 },
        { "~<|~h|~e|~l|~l|~o|~ ", ETIMEDOUT, 10000 },   // two seconds for each octet
    };
    for (const auto &row : rows) {
        SCOPED_TRACE(row.answer);
        struct mgmt_sock *msp = mgmt_sock_vrd("user root");
        ASSERT_NE(msp, nullptr);
        EXPECT_EQ(mgmt_sock_vrd("user root"), nullptr) << "the queue is full";
        EXPECT_EQ(errno, EAGAIN);
        int daemon = accept(listener, nullptr, nullptr);
        const char *next = row.answer;
        while_waiting = [&] {
            for (; *next && *next != '|'; next++) {
                if (*next == '~') clock_ms += 2000;
                else if (*next == '!') shutdown(daemon, SHUT_WR);
                else ASSERT_EQ(::write(daemon, next, 1), 1);
            }
            if (*next) next++;
        };
        int64_t start = clock_ms;
        int answer_due = 1;
        errno = 0;
        EXPECT_EQ(xml_initial_handshake(msp, "r<1>.example", &answer_due, 0), row.error ? -1 : 0);
        EXPECT_EQ(row.error ? errno : 0, row.error);
        EXPECT_EQ(answer_due, row.error != 0);
        EXPECT_EQ(clock_ms, start + row.passed_ms);
        char said[256] = "";
        (void)!read(daemon, said, sizeof said - 1);
        EXPECT_STREQ(said, "user root\n<?xml version=\"1.0\" encoding=\"us-ascii\"?>\n"
                           "<hello client=\"keld\" host=\"r?1?.example\"/>\n");
        mgmt_sock_close(msp, 0);
        close(daemon);
        while_waiting = nullptr;
    }
    close(listener);
}
