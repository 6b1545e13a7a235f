/*
 * A session's life: servers in turn, the conversation on the wire, keepalives, silence, the end and the next attempt;
 * and what may fail before there is one.
 */
#include "tests/usr.sbin/keld/main/core_fixture.h"

#include <filesystem>
#include <arpa/inet.h>
#include <fcntl.h>
#include <netinet/tcp.h>

using session = core;

TEST_F(session, refused_servers_are_tried_in_turn_every_60_seconds)
{
    close(server.listen_fd);   // its port is nobody's now, on any of this machine's addresses
    server.listen_fd = -1;
    start("127.0.0.1 { PORT; } 127.0.0.2 { PORT; } 127.0.0.3 { PORT; }");
    size_t attempts = 0;
    for (const char *address : { "127.0.0.1", "127.0.0.2", "127.0.0.3", "127.0.0.1" }) {
        EXPECT_EQ(current_server.ks_addr, inet_addr(address));
        EXPECT_EQ(logged("5 KELD_CONNECT_FAIL"), ++attempts);
        pass(59);
        EXPECT_EQ(logged("KELD_CONNECT_FAIL"), attempts) << "too early";
        pass(1);
    }
}

TEST_F(session, a_redirect_is_followed_to_a_configured_server_with_its_security)
{
    start("127.0.0.1 { PORT; } 192.0.2.2 { security-options { tls; } } 192.0.2.3 { port 3; }");
    greet();
    confirm("<keepalive>30</keepalive>");
    static const struct { const char *target, *chosen; uint16_t port, security; } rows[] = {
        { "192.0.2.2", "192.0.2.2", 4000, KELD_SECURITY_TLS },
        { "192.0.2.9", "192.0.2.3", 3, 0 },   // not configured: the ring's next
    };
    unsigned msgno = 0;
    struct keld_server chosen = current_server;
    for (const auto &row : rows) {
        std::string target = std::string("<address>") + row.target + "</address>";
        answer("MSG", 1, msgno, "<redirect>" + target + "<port>4000</port></redirect>");
        EXPECT_EQ(heard("RPY 1 " + std::to_string(msgno++) + " . 0 0\r\nEND"), 1u) << "the empty reply";
        ASSERT_EQ(choose_server(&chosen), 1);
        EXPECT_EQ(chosen.ks_addr, inet_addr(row.chosen)) << row.target;
        EXPECT_EQ(chosen.ks_port, row.port);
        EXPECT_EQ(chosen.ks_security, row.security);
    }
    chosen.ks_addr = inet_addr("192.0.2.77");
    ASSERT_EQ(choose_server(&chosen), 1);
    EXPECT_EQ(chosen.ks_addr, inet_addr("127.0.0.1")) << "a server that is gone: from the head";
}

TEST_F(session, the_interval_changes_at_the_next_tick_which_sends_as_well)
{
    start("127.0.0.1 { PORT; }", "source-address 192.0.2.1;");   // not an address of this machine: done without
    greet();
    int no_delay = 0;
    socklen_t size = sizeof no_delay;
    EXPECT_EQ(getsockopt(keld_fd, IPPROTO_TCP, TCP_NODELAY, &no_delay, &size), 0);
    EXPECT_NE(no_delay, 0);
    EXPECT_NE(fcntl(keld_fd, F_GETFD) & FD_CLOEXEC, 0);
    EXPECT_EQ(tkel_log(keld_sp, "<x/>"), -1) << "asked for, not there yet";
    confirm("<keepalive>30</keepalive>");
    pass(14);
    EXPECT_EQ(heard("<keepalive/>"), 0u) << "the first interval is 15";
    pass(1);
    EXPECT_EQ(heard("<keepalive/>"), 1u);
    answer("RPY", 1, 0, "");
    pass(9);
    EXPECT_EQ(heard("<keepalive/>"), 1u);
    pass(1);
    EXPECT_EQ(heard("<keepalive/>"), 2u);

    peer_hang_up(server);
    turns();
    EXPECT_EQ(keld_sp, nullptr) << "the server's end is noticed at once";
}

TEST_F(session, silence_ends_it_after_more_than_three_intervals)
{
    start("127.0.0.1 { PORT; }");
    greet();
    pass(45);
    EXPECT_NE(keld_sp, nullptr) << "45 seconds are not more than 45";
    EXPECT_EQ(logged("5 KELD_KEEPALIVE_SEND_FAIL"), 3u) << "the channel was never confirmed";
    pass(15);
    EXPECT_EQ(logged("5 KELD_KEEPALIVES_MISSED"), 1u);
    EXPECT_EQ(keld_sp, nullptr);
    EXPECT_EQ(keld_fd, -1);
    EXPECT_EQ(keld_keepalive_id, nullptr);
}

/* A server that asks for one second gives the interval 0, and a timer with that interval fires only once. */
TEST_F(session, an_interval_of_0_is_watched_by_the_second)
{
    start("127.0.0.1 { PORT; }");
    greet();
    confirm("<keepalive>1</keepalive>");
    EXPECT_EQ(keepalive, 0);
    for (int second = 0; second < 20; second++) {
        last_rcvd_time = time(nullptr) + 1;
        pass(1);
    }
    EXPECT_EQ(keepalive_count, 7) << "at 15 s twice, and then each second";
    pass(2);
    EXPECT_EQ(keld_sp, nullptr);
    EXPECT_EQ(logged("KELD_KEEPALIVES_MISSED"), 1u);
}

TEST_F(session, failures_are_retried_or_stall)
{
    static const struct {
        int failing;
        const char *security, *event;
        bool retried, keepalive_armed;
    } rows[] = {
        { FAIL_SOCKET, "", "3 KELD_SOCKET_FAILURE: socket()", false, false },
        { FAIL_BIND, "", "3 KELD_SOCKET_FAILURE: bind()", false, false },
        { FAIL_CONNECT, "", "3 KELD_EVLIB_FAILURE: evConnect", true, false },
        { FAIL_KEEPALIVE_TIMER, "", "3 KELD_EVLIB_FAILURE: evSetTimer(keepalive)", false, false },
        { FAIL_SESSION, "", "3 KELD_BEEP_INIT_FAIL", false, false },
        { FAIL_SESSION | FAIL_HANDSHAKE, "tls;", "3 KELD_BEEP_INIT_FAIL", false, false },   // the handshake's 0 is none
        { 0, "ssl3;", "3 KELD_PRIVATIZE_FAIL: SSL_CTX_new", false, true },
    };
    for (const auto &row : rows) {
        SCOPED_TRACE(row.event);
        restart();
        failing = row.failing;
        std::string options = std::string("security-options { ") + row.security + " }";
        start("127.0.0.1 { PORT; " + options + " }", "source-address 127.0.0.1;");
        EXPECT_EQ(logged(row.event), 1u);
        EXPECT_EQ(keld_retry_id != nullptr, row.retried);
        EXPECT_EQ(keld_keepalive_id != nullptr, row.keepalive_armed);
        EXPECT_EQ(keld_sp, nullptr);
        EXPECT_EQ(keld_fd, -1);
        EXPECT_EQ(keld_ssl_ctx, nullptr);
    }
}

TEST_F(session, a_stalled_attempt_leaves_one_timer_for_the_next)
{
    start("127.0.0.1 { PORT; security-options { tls; } }", "local-certificate none.pem;");
    EXPECT_EQ(logged("KELD_PRIVATIZE_FAIL: SSL_CTX_use_certificate_file"), 1u);
    configure("127.0.0.1 { PORT; }");
    reload();
    pass(120);
    EXPECT_EQ(logged("KELD_"), 1u) << "nothing is tried again, and a reload alone changes nothing";
    configure("");
    reload();
    configure("127.0.0.1 { PORT; }");
    reload();
    ASSERT_TRUE(peer_accept(server));   // the attempt that stalled
    peer_hang_up(server);
    greet();
    confirm("<keepalive>45</keepalive>");
    pass(15);
    EXPECT_EQ(keepalive_count, 1);
}

TEST_F(session, a_thousand_leave_nothing_behind)
{
    auto descriptors = [] { return std::distance(std::filesystem::directory_iterator("/proc/self/fd"), {}); };
    start("127.0.0.1 { PORT; }");
    ptrdiff_t first = 0;
    for (int i = 0; i < 1000; i++) {
        server.seqno.clear();
        server.received.clear();
        greet();
        confirm("<keepalive>45</keepalive>");
        if (i == 0) first = descriptors();
        ASSERT_EQ(descriptors(), first) << i;
        if (i % 2) peer_send(server, "MSG 1 0 . 0 1000\r\nhalf a fra");
        peer_hang_up(server);
        turns();
        ASSERT_EQ(keld_sp, nullptr);
        ASSERT_EQ(keld_keepalive_id, nullptr);
        keld_arm_retry(keld_evctx, KELD_FIRST_DELAY_S);   // in place of the one a minute ahead
        turns();
    }
}
