/*
 * Outbound SSH with the daemon as a process: what its connections leave behind, and what it makes of an sshd or a
 * server that fails. sshd is a script that has another process in its group, as sessions do.
 */
#include "tests/support/peer.h"
#include "tests/support/router.h"

#include <filesystem>
#include <gtest/gtest.h>
#include <sys/socket.h>
#include <unistd.h>

static constexpr char sshd[] = "#!/bin/sh\nprintf \"SSH-2.0-$$-pid\\r\\n\"\nsleep 1000 &\nread line\nkill $!\n";
static constexpr char front[] = "MSG-ID: DEVICE-CONN-INFO\r\nMSG-VER: V1\r\nDEVICE-ID: r1\r\n\r\n";

static void install_sshd(const struct router &router, const char *script)
{
    router_write(router, "/usr/sbin/sshd", script);
    std::filesystem::permissions(router.root + "/usr/sbin/sshd", std::filesystem::perms::owner_all);
}

static std::string client(const std::string &name, uint16_t port)
{
    return "client " + name + " { device-id r1; servers { 127.0.0.1 { port " + std::to_string(port) +
           "; retry 3; timeout 1; } } }\n";
}

static void configure(const struct router &router, const std::string &clients)
{
    router_write(router, "/var/etc/keld.conf",
                 "system { services { outbound-ssh { " + clients + "traceoptions { flag all; } } } }\n");
}

/* Processes that were started under the router's root, whoever their parents are. */
static size_t processes(const struct router &router)
{
    size_t count = 0;
    std::error_code gone;
    for (const auto &entry : std::filesystem::directory_iterator("/proc", gone))
        count += file_read(entry.path() / "environ").find("KELD_ROOT=" + router.root + '\0') != std::string::npos;
    return count;
}

static bool has_processes(const struct router &router, size_t count)
{
    bool reached = within_s(LIMIT_S, [&] { return processes(router) == count; });
    EXPECT_TRUE(reached) << processes(router) << " instead of " << count;
    return reached;
}

static bool has_file(const struct router &router, const char *name)
{
    return std::filesystem::exists(router.root + "/var/etc/sshd_config_obssh." + name);
}

/* Takes a connection up to SSH's first line; the pid that sshd names there. */
static pid_t meet(struct peer &peer)
{
    EXPECT_TRUE(peer_accept(peer));
    EXPECT_TRUE(peer_expect(peer, std::string(front) + "SSH-2.0-"));
    size_t start = peer.consumed;
    EXPECT_TRUE(peer_expect(peer, "-pid\r\n"));
    return static_cast<pid_t>(atoi(peer.received.c_str() + start));
}

class outbound_ssh_e2e : public testing::Test {
protected:
    void TearDown() override
    {
        if (router.started.empty()) return;
        EXPECT_EQ(router_stop(router, keld), 0);
        has_processes(router, 0);
    }
    void start(const std::string &clients)
    {
        configure(router, clients);
        keld = router_start(router, "keld", { "-N" });
    }
    struct router router;
    struct process keld;
};

TEST_F(outbound_ssh_e2e, sessions_go_with_their_clients_and_with_the_daemon)
{
    struct peer first, second;
    peer_listen(first);
    peer_listen(second);
    install_sshd(router, sshd);
    start(client("a", first.port) + client("b", second.port));
    pid_t pid = meet(first);
    meet(second);
    EXPECT_EQ(getpgid(pid), pid);
    EXPECT_TRUE(traced(router, "(a) Checking for pid: " + std::to_string(pid) + "\n"));
    EXPECT_TRUE(traced(router, "(a:server 127.0.0.1) sshd(" + std::to_string(pid) + ") Running..."));
    has_processes(router, 5);   // the daemon, and two of each session

    configure(router, client("b", second.port));
    kill(keld.pid, SIGHUP);
    EXPECT_TRUE(peer_expect_end(first));
    has_processes(router, 3);
    EXPECT_FALSE(has_file(router, "a"));
    EXPECT_TRUE(has_file(router, "b"));

    EXPECT_EQ(router_stop(router, keld), 0);
    EXPECT_TRUE(peer_expect_end(second));
    has_processes(router, 0);
    EXPECT_FALSE(has_file(router, "b"));
}

TEST_F(outbound_ssh_e2e, tries_again_whoever_fails)
{
    static const struct {
        const char *script;   // of sshd; null: there is none
        bool server_vanishes;
    } rows[] = { { nullptr, false }, { "#!/bin/sh\nexit 1\n", false }, { sshd, true } };
    struct peer peer;
    peer_listen(peer);
    start(client("a", peer.port));
    for (const auto &row : rows) {
        SCOPED_TRACE(row.script ? row.script : "no sshd");
        if (row.script) install_sshd(router, row.script);
        ASSERT_TRUE(peer_accept(peer));
        EXPECT_TRUE(peer_expect(peer, front));
        EXPECT_TRUE(row.server_vanishes || peer_expect_end(peer));
        peer_hang_up(peer);
    }
    EXPECT_TRUE(traced(router, "/var/etc/sshd_config_obssh.a Failed to exec sshd. exiting..."));
    meet(peer);
    has_processes(router, 3);   // nothing is left of those before
}

TEST_F(outbound_ssh_e2e, server_that_takes_nothing_holds_nobody_up)
{
    struct peer mute, other;
    peer_listen(mute);   // connections stay in its queue
    peer_listen(other);
    install_sshd(router, sshd);
    start(client("a", mute.port) + client("b", other.port));
    meet(other);
    EXPECT_TRUE(traced(router, "(a) Checking for pid: "));
    std::string output;
    EXPECT_EQ(router_run(router, "keldctl", { "show", "system", "services", "service-deployment" }, &output), 0);
    EXPECT_EQ(router_stop(router, keld), 0);
    EXPECT_TRUE(peer_expect_end(other));
    has_processes(router, 0);
}
