/*
 * The reload by rows: what was configured, what is, and what becomes of session and attempt.
 */
#include "tests/usr.sbin/keld/main/core_fixture.h"

#include <fcntl.h>

using reloading = core;

static const char here[] = "127.0.0.1 { PORT; }", there[] = "127.0.0.2 { PORT; }";

TEST_F(reloading, by_rows)
{
    enum phase { IDLE, WAITING, CONNECTING, RUNNING };
    enum outcome { NOTHING, REFUSED, STOPPED, STARTED, CLOSING };
    static const struct {
        enum phase phase;
        std::string before, after;
        const char *more;
        enum outcome outcome;
    } rows[] = {
        { IDLE, "", here, "", STARTED },
        { IDLE, "", "", "", NOTHING },
        { WAITING, here, "", "", STOPPED },
        { CONNECTING, here, "", "", STOPPED },
        { RUNNING, here, "", "", CLOSING },
        { WAITING, here, there, "", NOTHING },
        { RUNNING, here, there, "", CLOSING },
        { RUNNING, here, std::string(there) + "127.0.0.1 { port 1; user other; }", "", NOTHING },   // the same address
        { RUNNING, here, there, "source-address none;", REFUSED },
    };
    for (const auto &row : rows) {
        SCOPED_TRACE(&row - rows);
        restart();
        configure(row.before);
        ASSERT_EQ(keld_config(0, &current_config), 0);
        struct keld_server *servers = current_config.kc_servers;
        int delay_s = row.phase == WAITING ? KELD_RETRY_DELAY_S : KELD_FIRST_DELAY_S;
        if (row.phase != IDLE) keld_arm_retry(keld_evctx, delay_s);
        if (row.phase == CONNECTING) (void)evTurn(keld_evctx, 0);   // the retry, and not yet the connection
        if (row.phase == RUNNING) {
            turns();
            greet();
            confirm("<keepalive>30</keepalive>");
        }
        configure(row.after, row.more);
        (void)evDo(keld_evctx, reinterpret_cast<const void *>(sighup_job));
        (void)evTurn(keld_evctx, 0);
        if (row.phase != CONNECTING) turns();
        EXPECT_EQ(heard("<close-connection/>"), row.outcome == CLOSING ? 1u : 0u);
        EXPECT_EQ(keld_sp != nullptr, row.phase == RUNNING || row.outcome == STARTED);
        EXPECT_EQ(keld_retry_id != nullptr, row.phase == WAITING && row.outcome == NOTHING);
        EXPECT_EQ(current_config.kc_servers == servers, row.outcome == REFUSED || row.before == row.after);
        if (row.outcome != STOPPED) continue;
        EXPECT_EQ(keld_conn_id, nullptr);
        EXPECT_EQ(current_server.ks_addr, 0u);
        EXPECT_EQ(keld_fd >= 0 && fcntl(keld_fd, F_GETFD) >= 0, row.phase == CONNECTING) << "stays open";
    }
}

TEST_F(reloading, a_close_that_cannot_be_sent_is_owed_and_goes_in_place_of_a_keepalive)
{
    start(here);
    greet();
    configure("");
    reload();
    EXPECT_EQ(logged("5 KELD_BEEP_FIN_FAIL"), 1u);
    pass(15);
    EXPECT_EQ(keld_close_pending, 1) << "still no channel";
    confirm("<keepalive>30</keepalive>");
    pass(15);
    EXPECT_EQ(heard("<close-connection/>"), 1u);
    EXPECT_EQ(heard("<keepalive/>"), 0u);
    EXPECT_EQ(keld_close_pending, 0);
    pass(10);
    EXPECT_EQ(heard("<keepalive/>"), 1u) << "until the server has closed";

    configure(here);
    reload();
    EXPECT_EQ(keld_retry_id, nullptr) << "the former session is still open";
    configure("");
    reload();
    peer_hang_up(server);
    turns();
    EXPECT_EQ(keld_sp, nullptr);
    EXPECT_EQ(current_server.ks_addr, 0u);
    EXPECT_EQ(keld_retry_id, nullptr) << "nothing to reconnect to";
}
