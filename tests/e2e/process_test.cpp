/*
 * The daemon as a process: options, exit statuses, pid file, signals.
 */
#include "tests/support/router.h"

#include <gtest/gtest.h>
#include <sys/prctl.h>
#include <sys/wait.h>

static constexpr char good[] = "servers { 192.0.2.1 { port 3333; } }";

TEST(process, options_and_exit_statuses)
{
    static const struct {
        const char *stanza;   // null: no configuration at all but an empty file
        std::vector<std::string> arguments;
        int status;
        const char *prints;
    } rows[] = {
        { good, { "-C" }, 0, "" },
        { nullptr, { "-C" }, 0, "" },   // not configured is no error
        { "servers { 192.0.2.1 { prot 3333; } }", { "-C" }, 1, "found 'prot'" },
        { "servers { 192.0.2.1 { port many; } }", { "-C" }, 0, "" },   // servers are not looked at by -C
        { "servers { 192.0.2.1 { prot 3333; } }", { "-C", "-v" }, 0, KELD_RELEASE },
        { good, { "-v", "-X" }, 0, KELD_RELEASE },
        { good, { "-q" }, 64, "usage: keld [-d] [-C] [-N]\n" },
    };
    for (const auto &row : rows) {
        SCOPED_TRACE(testing::PrintToString(row.arguments) + " with " + (row.stanza ? row.stanza : "nothing"));
        struct router router;
        std::string output;
        if (row.stanza) router_configure(router, row.stanza);
        else router_write(router, "/var/etc/keld.conf", "");
        EXPECT_EQ(router_run(router, "keld", row.arguments, &output), row.status);
        EXPECT_NE(output.find(row.prints), std::string::npos) << output;
        EXPECT_EQ(file_read(router.root + "/var/run/keld.pid"), "");
    }
}

TEST(process, one_daemon_for_a_root)
{
    struct router router;
    router_configure(router, "");
    struct process first = router_start(router, "keld", { "-N" });
    std::string pid = std::to_string(first.pid) + "\n";
    EXPECT_TRUE(within_s(LIMIT_S, [&] { return file_read(router.root + "/var/run/keld.pid") == pid; }));
    EXPECT_EQ(router_run(router, "keld", { "-N" }), 1);
    EXPECT_EQ(file_read(router.root + "/var/log/messages"), "");
    EXPECT_EQ(file_read(router.root + "/var/run/keld.pid"), pid);
    EXPECT_TRUE(traced(router, "start logging"));
    EXPECT_EQ(router_stop(router, first), 0);
    EXPECT_EQ(file_read(router.root + "/var/run/keld.pid"), pid) << "the lock tells that a daemon runs, not the file";
}

TEST(process, goes_into_the_background_unless_told)
{
    struct router router;
    prctl(PR_SET_CHILD_SUBREAPER, 1);   // so that the daemon becomes a child of the test's when its parent has gone
    router_configure(router, "");
    EXPECT_EQ(router_run(router, "keld", {}), 0);
    std::string path = router.root + "/var/run/keld.pid";
    ASSERT_TRUE(within_s(LIMIT_S, [&] { return file_read(path).find('\n') != std::string::npos; }));
    pid_t pid = static_cast<pid_t>(std::stoi(file_read(path)));
    EXPECT_TRUE(traced(router, "start logging"));
    int status = -1;
    kill(pid, SIGTERM);
    EXPECT_TRUE(within_s(LIMIT_S, [&] { return waitpid(pid, &status, WNOHANG) == pid; }));
    EXPECT_EQ(status, 0);
}
