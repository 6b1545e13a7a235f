/*
 * The process as a whole: options and exit statuses, one instance, the background, the two signals.
 */
#include "tests/support/peer.h"
#include "tests/support/router.h"

#include "platform/process/process.h"

#include <gtest/gtest.h>

TEST(process, options_by_rows)
{
    static const struct {
        std::vector<std::string> options;
        const char *stanza;
        int status;
        const char *output;
    } rows[] = {
        { { "-v", "-C" }, "broken", 0, "keld " KELD_RELEASE "\n" },
        { { "-z" }, "", 64, "usage: keld [-d] [-C] [-N]\n" },
        { { "-C" }, "source-address 192.0.2.1;", 0, "" },
        { { "-C", "-X" }, "source-address none;", 1, "keld.conf:2:" },
        { { "-C" }, "broken", 1, "keld.conf:2:" },
    };
    for (const auto &row : rows) {
        router router;
        router_configure(router, row.stanza);
        std::string output;
        EXPECT_EQ(router_run(router, "keld", row.options, &output), row.status) << row.options[0] << row.stanza;
        EXPECT_NE(output.find(row.output), std::string::npos) << output;
        EXPECT_TRUE(row.status == 1 || output == row.output) << output;
        EXPECT_EQ(file_read(router.root + "/var/run/keld.pid"), "") << "no instance was started";
    }
    router router;
    router_write(router, "/var/etc/keld.conf", "interfaces { }\n");
    EXPECT_EQ(router_run(router, "keld", { "-C" }), 0) << "without the stanza";
}

/* The pid that the instance under the root wrote when it was ready for it, 0 before. */
static pid_t written_pid(const struct router &router)
{
    return atoi(file_read(router.root + "/var/run/keld.pid").c_str());
}

TEST(process, one_instance_that_reloads_and_ends_with_0)
{
    router router;
    peer server;
    peer_listen(server);
    router_configure(router, "");
    process daemon = router_start(router, "keld", { "-N" });
    std::string trace = router.root + "/var/log/keld";
    ASSERT_TRUE(within_s(LIMIT_S, [&] { return file_read(trace).find("start logging") != std::string::npos; }));
    EXPECT_EQ(written_pid(router), daemon.pid);

    std::string output;
    EXPECT_EQ(router_run(router, "keld", { "-N" }, &output), 1);
    EXPECT_EQ(output + file_read(router.root + "/var/log/messages"), "") << "a second instance says nothing";

    router_configure(router, "servers { 127.0.0.1 { port " + std::to_string(server.port) + "; } }");
    kill(daemon.pid, SIGHUP);
    ASSERT_TRUE(peer_accept(server));
    EXPECT_TRUE(peer_expect(server, "<greeting>"));
    EXPECT_EQ(router_stop(router, daemon, SIGTERM), 0);
    EXPECT_TRUE(peer_expect_end(server));
    EXPECT_EQ(server.received.find("close"), std::string::npos) << "and nothing at its end";
    EXPECT_EQ(written_pid(router), daemon.pid) << "the pid file stays";
}

TEST(process, goes_to_the_background_also_with_d)
{
    router router;
    router_configure(router, "");
    EXPECT_EQ(router_run(router, "keld", { "-d" }), 0);
    ASSERT_TRUE(within_s(LIMIT_S, [&] { return written_pid(router) != 0; }));
    setenv("KELD_ROOT", router.root.c_str(), 1);
    EXPECT_EQ(pid_read("/var/run/keld.pid"), written_pid(router));
    EXPECT_EQ(kill(written_pid(router), SIGTERM), 0);
    EXPECT_TRUE(within_s(LIMIT_S, [] { return pid_read("/var/run/keld.pid") == 0; }));
    unsetenv("KELD_ROOT");
}
