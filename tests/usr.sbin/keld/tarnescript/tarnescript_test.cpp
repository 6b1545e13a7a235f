/*
 * The management script profile between a management daemon that the test plays on a socket pair, and an engine that
 * only notes what it is given. The loop is real.
 */
#include "tests/platform/confdb/conf_fixture.h"
#include "tests/platform/mgmt/clock_and_poll.h"
#include "usr.sbin/keld/main/keld.h"
#include "usr.sbin/keld/tarnescript-profile.h"

#include <errno.h>
#include <fcntl.h>
#include <filesystem>
#include <sys/socket.h>
#include <unistd.h>

using std::string;

static const string mime = BEEP_MIME_HEADER;
static const string hello = "<hello server=\"vrd\"/>\n";

static int vrd_fd;                // the daemon's end
static string login;              // of the last connection
static std::vector<string> sent;  // frames of replies, their mark in front, and stops of channels
static bool no_vrd, no_memory, no_loop;

extern "C" {

decltype(calloc) __real_calloc;
void *__wrap_calloc(size_t count, size_t size)
{
    return no_memory && count * size == sizeof(struct ts_channel) ? nullptr : __real_calloc(count, size);
}

decltype(evSelectFD) __real_evSelectFD;
int __wrap_evSelectFD(evContext ctx, int fd, int events, evFileFunc func, void *uap, evFileID *id)
{
    errno = ENOMEM;
    return no_loop ? -1 : __real_evSelectFD(ctx, fd, events, func, uap, id);
}

struct mgmt_sock *__wrap_mgmt_sock_vrd(const char *line)
{
    int pair[2];
    login = line;
    if (no_vrd || socketpair(AF_UNIX, SOCK_STREAM, 0, pair) < 0) return nullptr;
    vrd_fd = pair[1];
    fcntl(vrd_fd, F_SETFL, O_NONBLOCK);
    return mgmt_sock_open_fd(pair[0]);
}

int __wrap_beep_send_rpy(struct beep_session *, uint16_t channel, int32_t msgno, char more, const struct iovec *piece,
                         int count)
{
    EXPECT_EQ(channel, 7);
    string payload = count ? string(static_cast<char *>(piece->iov_base), piece->iov_len) : "";
    sent.push_back(more + (msgno == -1 ? "" : std::to_string(msgno)) + payload);
    return 0;
}

int __wrap_beep_channel_stop(struct beep_session *, uint16_t channel, int32_t code, const char *text)
{
    sent.push_back("stop " + std::to_string(channel) + " " + std::to_string(code) + " " + text);
    return 0;
}

}   // extern "C"

class relay : public conf_fixture {
protected:
    void SetUp() override
    {
        conf_fixture::SetUp();
        ASSERT_EQ(evCreate(&session.bs_ev_ctx), 0);
        keld_sp = &session;
        channel = channel_new(7, nullptr, BEEP_ROLE_LISTENER);
        no_vrd = no_memory = no_loop = false;
        vrd_fd = -1;
        sent.clear();
    }
    void TearDown() override
    {
        if (record()) ts_stop(record());
        channel->bc_user_data = nullptr;
        channel_delete(channel);
        if (vrd_fd >= 0) close(vrd_fd);
        evDestroy(session.bs_ev_ctx);
        while_waiting = nullptr;
        conf_fixture::TearDown();
    }
    /* Asks for the channel; the daemon says first to the greeting. The piggyback is exactly the text's octets. */
    bool start(const string &piggyback = "", const string &first = hello)
    {
        string answer = first;
        while_waiting = [&] { say(std::exchange(answer, "")); };
        std::vector<char> block(piggyback.begin(), piggyback.end());
        bool accepted = ts_start_indicate(block.data(), int32_t(block.size()), channel, nullptr);
        while_waiting = nullptr;
        return accepted;
    }
    struct ts_channel *record() const { return static_cast<struct ts_channel *>(channel->bc_user_data); }
    /* The daemon says text, whatever the socket holds, and the relay reads. */
    void say(const string &text)
    {
        for (size_t at = 0; at < text.size();) {
            ssize_t now = ::write(vrd_fd, text.data() + at, text.size() - at);
            if (now > 0) at += size_t(now);
            turns();
        }
    }
    void turns()
    {
        while (record() && evTurn(session.bs_ev_ctx, 0) > 0) continue;
    }
    string heard()
    {
        char octets[65536];
        string all;
        for (ssize_t got; (got = read(vrd_fd, octets, sizeof octets)) > 0;) all.append(octets, size_t(got));
        return all;
    }
    void frame(char type, char more, const string &payload)
    {
        struct beep_frame *frame = frame_new(type, 7, 3, more, int32_t(payload.size()), -1, payload.data());
        ts_frame(&session, record(), frame);
        frame_free(frame);
    }

    struct beep_session session = {};
    struct beep_channel *channel = nullptr;
};

TEST_F(relay, reply_lines_become_frames)
{
    const string long_line(4058, 'l'), end = "</rpc-reply>";
    static const string canonical = "<mode><canonical/></mode>";
    const struct {
        string mode, lines;
        std::vector<string> frames;
    } rows[] = {
        { "", "<rpc-reply>\n<a/>\n\n</rpc-reply>\n", { "." + mime + "<rpc-reply><a/></rpc-reply>" } },
        // Full to the last octet, and then one too many.
        { "", string(4019, 'a') + "\n" + end + "\n", { "*" + mime + string(4019, 'a'), "." + end } },
        { "", string(2000, 'a') + "\n" + string(2020, 'b') + "\n" + end + "\n",
          { "*" + mime + string(2000, 'a'), "." + string(2020, 'b') + end } },
        // The header of a fresh buffer goes out alone.
        { "", string(4020, 'a') + "\n" + end + "\n", { "*" + mime, "." + string(4020, 'a') + end } },
        { "", "<a>\n" + long_line + long_line + "\n" + end + "\n",
          { "*" + mime + "<a>", "*" + string(4057, 'l'), "*" + string(4057, 'l'), ".ll" + end } },
        // Only a line of its own ends a reply, or the rest of one that was cut.
        { "", "<a/></rpc-reply>\n</rpc-reply> \n </rpc-reply>\n</rpc-reply>\r\n" + end + "\n",
          { "." + mime + "<a/></rpc-reply></rpc-reply>  </rpc-reply></rpc-reply>\r" + end } },
        { "", string(4057, 'a') + end + "\n", { "*" + mime, "*" + string(4057, 'a'), "." + end } },
        { "", end + "\n<next/>\n" + end + "\n", { "." + mime + end, "." + mime + "<next/>" + end } },
        { canonical, "<rpc-reply>\n<a/>\n" + end + "\n",
          { "*" + mime + "<rpc-reply>", "*" + mime + "<a/>", "." + mime + end } },
        { "x <mode>" + canonical, "<a/>\n" + end + "\n", { "." + mime + "<a/>" + end } },   // the first <mode> counts
        { "<x/>" + canonical, "<a/>\n" + end + "\n", { "*" + mime + "<a/>", "." + mime + end } },
        { canonical + string("\0<x/>", 5), end + "\n<b/>\n", { "." + mime + end, "*" + mime + "<b/>" } },
        { canonical + " ", "<a/>\n" + end + "\n", { "." + mime + "<a/>" + end } },
        { "<mode><canonical/></mode", "<a/>\n" + end + "\n", { "." + mime + "<a/>" + end } },
    };
    for (const auto &row : rows) {
        SCOPED_TRACE(row.lines.substr(0, 60));
        ASSERT_TRUE(start(row.mode));
        say(row.lines);
        EXPECT_EQ(sent, row.frames);
        TearDown();
        SetUp();
    }
}

TEST_F(relay, a_channel_needs_the_daemon_and_its_greeting)
{
    char host[256] = "";
    gethostname(host, sizeof host);
    string rest = " logname keld host " + string(host) + " agent \"TARNE KEL\" pid " + std::to_string(getpid());
    int64_t start_ms = clock_ms;
    EXPECT_TRUE(start("", hello + "noise\nand more\n"));
    EXPECT_EQ(login, "user root" + rest);
    EXPECT_EQ(clock_ms, start_ms + 1000) << "what the daemon says behind its greeting is thrown away for a second";
    say("</rpc-reply>\n");
    EXPECT_EQ(sent, std::vector<string>{ "." + mime + "</rpc-reply>" });
    EXPECT_EQ(heard().find("<?xml"), 0u);
    TearDown();
    SetUp();

    strcpy(current_server.ks_user, "deploy");
    static const struct {
        bool *fault;
        const char *answer, *logged;
    } rows[] = {
        { &no_vrd, "", "KELD_MGMT_DAEMON_FAIL: This should not happen: Could not connect to vrd\n" },
        { nullptr, "", "KELD_MGMT_DAEMON_FAIL: This should not happen: Handshake with vrd failed\n" },
        { &no_loop, "<hello/>\n", "KELD_EVLIB_FAILURE: evSelectFD(mgmt_sock): Cannot allocate memory\n" },
        { &no_memory, "<hello/>\n", "" },
    };
    for (const auto &row : rows) {
        if (row.fault) *row.fault = true;
        EXPECT_FALSE(start("", row.answer)) << row.logged;
        EXPECT_EQ(log, row.logged);
        EXPECT_EQ(record(), nullptr);
        EXPECT_EQ(login, "user deploy" + rest);
        TearDown();
        SetUp();
    }
    current_server = {};
    EXPECT_EQ(ts_start_confirm("<x>", 3, channel), 0);
}

TEST_F(relay, calls_are_written_frame_by_frame_and_flushed_at_the_end)
{
    ASSERT_TRUE(start());
    (void)heard();
    frame('M', '*', mime + "<rpc>");
    EXPECT_EQ(heard(), "");
    frame('M', '*', mime + "<a/>");
    frame('R', '.', "not ours");
    frame('M', '.', "</rpc>");
    EXPECT_EQ(heard(), "<rpc><a/></rpc>");

    // A daemon that does not read costs memory, and a registration for as long as it is slow.
    frame('M', '.', string(1 << 20, 'x'));
    EXPECT_NE(record()->tc_write_id, nullptr);
    size_t octets = 0;
    for (string part; record()->tc_write_id; octets += part.size()) {
        part = heard();
        turns();
    }
    EXPECT_EQ(octets + heard().size(), size_t(1 << 20));
    EXPECT_EQ(sent, std::vector<string>{});

    // Past its bound the call is answered with nothing, and the channel lives on.
    for (int i = 0; i < 40 && sent.empty(); i++) frame('M', '*', string(1 << 20, 'x'));
    EXPECT_EQ(sent, std::vector<string>{ ".3" });
    EXPECT_EQ(log, "KELD_MGMT_SOCKET_IO: management daemon I/O failure: No buffer space available\n");
    EXPECT_NE(record()->tc_sock, nullptr);
    frame('M', '.', "");
    ts_flush_event(session.bs_ev_ctx, record(), record()->tc_sock->ms_fd, EV_WRITE);
    EXPECT_NE(record()->tc_write_id, nullptr) << "ts_stop has to end it";
}

TEST_F(relay, a_lost_daemon_closes_the_channel_which_goes_on_answering)
{
    ASSERT_TRUE(start());
    frame('M', '.', string(1 << 20, 'x'));
    say("<rpc-reply>\nhalf a li");
    close(vrd_fd);
    vrd_fd = -1;
    turns();
    std::vector<string> expected = { ".", "stop 7 451 management daemon read failure" };
    EXPECT_EQ(sent, expected);
    EXPECT_EQ(log, "KELD_MGMT_SOCKET_IO: management daemon I/O failure: Connection reset by peer\n");
    EXPECT_EQ(record()->tc_sock, nullptr);
    EXPECT_EQ(record()->tc_read_id, nullptr);
    EXPECT_EQ(record()->tc_write_id, nullptr);
    sent.clear();
    frame('M', '*', "<rpc>");
    frame('M', '.', "");
    EXPECT_EQ(sent, std::vector<string>{ ".3" });
}

TEST_F(relay, a_thousand_leave_no_descriptor)
{
    auto descriptors = [] { return std::distance(std::filesystem::directory_iterator("/proc/self/fd"), {}); };
    ptrdiff_t before = descriptors();
    for (int i = 0; i < 1000; i++) {
        no_vrd = i % 5 == 0;
        ASSERT_EQ(start("", i % 5 == 1 ? "no greeting\n" : hello), i % 5 > 1) << i;
        if (i % 5 > 1) frame('M', '.', string(i % 5 == 2 ? 1 << 20 : 10, 'x'));   // the larger one waits to be written
        if (i % 5 > 2) say("<rpc-reply>\nhalf a li");
        if (vrd_fd >= 0) close(vrd_fd);
        vrd_fd = -1;
        if (i % 5 == 4) turns();   // the daemon is lost before the channel
        if (record()) ts_stop(record());
        channel->bc_user_data = nullptr;
        ASSERT_EQ(descriptors(), before) << i;
    }
}
