/*
 * Outbound SSH with real processes and sockets. sshd is a script that says what it was given and waits for the end of
 * the connection. The test is where orphans go, so it sees that each process ended.
 */
#include "tests/platform/confdb/conf_fixture.h"
#include "tests/support/peer.h"
#include "tests/support/router.h"
#include "usr.sbin/keld/main/keld.h"
#include "usr.sbin/keld/outbound_ssh/obssh_private.h"

#include <fcntl.h>
#include <sys/prctl.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

static bool no_pipe, no_fork;
extern "C" int __real_pipe2(int *, int), __wrap_pipe2(int *, int), __real_fork(void), __wrap_fork(void);
int __wrap_fork(void) { return no_fork ? -1 : __real_fork(); }
int __wrap_pipe2(int *ends, int flags) { return no_pipe ? -1 : __real_pipe2(ends, flags); }

static const char sshd[] = "#!/bin/sh\necho \"SSH-2.0 $*\"\nls /proc/$$/fd\n"
                           "grep -c 'Sig[BI].*:.0*$' /proc/self/status\nread x\n";
static const char conn_info[] = "MSG-ID: DEVICE-CONN-INFO\r\nMSG-VER: V1\r\nDEVICE-ID: ";

class outbound : public conf_fixture {
protected:
    void SetUp() override
    {
        conf_fixture::SetUp();
        prctl(PR_SET_CHILD_SUBREAPER, 1);
        (void)signal(SIGPIPE, SIG_IGN);
        std::filesystem::create_directories(root + "/usr/sbin");
        write("/usr/sbin/sshd", sshd);
        std::filesystem::permissions(root + "/usr/sbin/sshd", std::filesystem::perms::owner_all);
        if (!keld_evctx && evCreate(&keld_evctx) == 0)
            obssh_timer_context = qtimer_init(keld_evctx, keld_obssh_qtimer_assert);
        keld_obssh_delete_app_config_all();
        peer_listen(server);
    }
    void TearDown() override
    {
        keld_obssh_delete_app_config_all();
        EXPECT_TRUE(within_s(LIMIT_S, [] { return waitpid(-1, nullptr, WNOHANG) < 0; })) << "a process was left";
        conf_fixture::TearDown();
    }
    /* Commits and applies; PORT stands for the peer's. */
    int apply(std::string stanza, const std::string &rest = "")
    {
        for (size_t at; (at = stanza.find("PORT")) != std::string::npos;)
            stanza.replace(at, 4, "port " + std::to_string(server.port));
        commit("system { services { " + stanza + " } }\n" + rest);
        return keld_outbound_ssh_config(0);
    }
    struct obssh_app_config *client(const char *name)
    {
        return keld_obssh_patnode_to_app_config(obssh_lookup(ob_ssh_patroot, name, 254));
    }
    bool ended(pid_t pid, int status)
    {
        int told = 0;
        return within_s(LIMIT_S, [&] { return waitpid(pid, &told, WNOHANG) == pid; }) && told == status;
    }
    struct peer server;
};

TEST_F(outbound, identification_octet_by_octet)
{
    static const std::string no_key = "\r\nHMAC: 3e48575537919d9187078407ecb88e44b1d674e4\r\n", zero(1, '\0');
    static const struct {
        const char *rsa, *dsa;   // null: no such file
        std::string sends;
    } rows[] = {
        { "ssh-rsa AAAA admin@router\n", nullptr,
          "HOST-KEY: ssh-rsa AAAA" + zero + "\r\nHMAC: a4da8cad8bc4bdec34376dfdf3b5af09981e9dd3\r\n" },
        { nullptr, "ssh-dss BBBB\n",
          "HOST-KEY: ssh-dss BBBB\n" + zero + "\r\nHMAC: 293ee479389821fe53ae65076bed351621f4ecdf\r\n" },
        { "nospace@host\n", nullptr,
          "HOST-KEY: nospace@host\n" + zero + "\r\nHMAC: c92e9350327370d3ff346d74712d04c1a3029e93\r\n" },
        { nullptr, nullptr, no_key },
        { "", nullptr, no_key },
        { " admin@router", nullptr, no_key },
    };
    for (const auto &row : rows) {
        SCOPED_TRACE(&row - rows);
        std::filesystem::create_directories(root + "/etc/ssh");
        if (row.rsa) write("/etc/ssh/ssh_host_rsa_key.pub", row.rsa);
        if (row.dsa) write("/etc/ssh/ssh_host_dsa_key.pub", row.dsa);
        int ends[2];
        char octets[512];
        ASSERT_EQ(socketpair(AF_UNIX, SOCK_STREAM, 0, ends), 0);
        obssh_send_device_conn_info(ends[0], "r1");
        obssh_send_pub_host_key(ends[0], "s3cret");
        close(ends[0]);
        std::string got(octets, static_cast<size_t>(recv(ends[1], octets, sizeof octets, MSG_WAITALL)));
        EXPECT_EQ(got, conn_info + ("r1\r\n" + row.sends));
        close(ends[1]);
        std::filesystem::remove_all(root + "/etc");
    }
}

TEST_F(outbound, next_server_by_rows)
{
    apply("outbound-ssh { client c { servers { b { retry 2; } a { retry 0; timeout 7; } } } }");
    static const struct {
        const char *at;
        uint32_t attempts, retry, strategy;
        const char *then;
        uint32_t left;
    } rows[] = {
        { "", 5, 9, 0, "a", 0 },  { "gone", 5, 9, 0, "a", 0 }, { "b", 1, 2, 0, "b", 1 },
        { "b", 2, 2, 0, "a", 0 }, { "b", 1, 2, 1, "a", 0 },    { "a", 1, 0, 0, "b", 0 },
    };
    struct obssh_app_config *app = client("c");
    for (const auto &row : rows) {
        SCOPED_TRACE(&row - rows);
        memset(app->ac_server_name, 0, sizeof app->ac_server_name);
        strcpy(app->ac_server_name, row.at);
        app->ac_attempts = app->ac_deaths = row.attempts;
        app->ac_retry = row.retry;
        app->ac_strategy = row.strategy;
        EXPECT_STREQ(obssh_select_server(app)->sc_address, row.then);
        EXPECT_EQ(app->ac_attempts, row.left);
        EXPECT_EQ(app->ac_timeout, *row.then == 'a' ? 7u : 0u);
        EXPECT_EQ(app->ac_retry, *row.then == 'a' ? 0u : 2u);
    }
}

TEST_F(outbound, what_a_change_restarts)
{
    static const char base[] = "secret s; servers { 127.0.0.1 { PORT; timeout 60; } }";
    static const struct { const char *change; bool restarts; } rows[] = {
        { base, false },
        { "device-id d; secret s; servers { 127.0.0.1 { PORT; timeout 5; retry 9; } x; }", false },
        { "secret t; servers { 127.0.0.1 { PORT; timeout 60; } }", true },
        { "secret s; servers { 127.0.0.1 { port 1; timeout 60; } }", true },
        { "secret s; servers { 127.0.0.2 { PORT; } }", true },
        { "secret s; services netconf; servers { 127.0.0.1 { PORT; timeout 60; } }", true },
        { "secret s; reconnect-strategy in-order; servers { 127.0.0.1 { PORT; timeout 60; } }", true },
        { "secret s; keep-alive { retry 1; } servers { 127.0.0.1 { PORT; timeout 60; } }", true },
        { "secret s; keep-alive { timeout 1; } servers { 127.0.0.1 { PORT; timeout 60; } }", true },
    };
    for (const auto &row : rows) {
        SCOPED_TRACE(row.change);
        EXPECT_EQ(apply(std::string("outbound-ssh { client c { ") + base + " } }"), 0);
        int32_t pid = client("c")->ac_pid;
        ASSERT_GT(pid, 1);
        EXPECT_EQ(getpgid(pid), pid) << "from the start";
        EXPECT_EQ(apply(std::string("outbound-ssh { client c { ") + row.change + " } }"), 0);
        EXPECT_EQ(client("c")->ac_pid != pid, row.restarts);
        EXPECT_TRUE(qtimer_running(client("c")->ac_timer));
    }
}

TEST_F(outbound, sshd_gets_the_connection_and_goes_with_its_client)
{
    write("/var/etc/sshd_conf", "Port 22\nSubsystem netconf /x\n#ClientAliveInterval 1\nUsePAM no");
    int ours = dup2(server.listen_fd, 77);   // not closed on exec
    static const char stanza[] = "client c { device-id r1; services netconf; keep-alive { retry 3; timeout 15; } "
                                 "servers { 127.0.0.1 { PORT; timeout 60; } } }";
    for (bool by_signal : { false, true }) {
        EXPECT_EQ(apply("outbound-ssh { " + std::string(stanza) + " }"), 0);
        std::string file = root + "/var/etc/sshd_config_obssh.c";
        EXPECT_EQ(file_read(file), "Port 22\nUsePAM no\nClientAliveInterval 15\nClientAliveCountMax 3\n"
                                   "Subsystem netconf " + root + "/usr/libexec/ui/netconf\n");
        server.received.clear();
        server.consumed = 0;
        ASSERT_TRUE(peer_accept(server));
        ASSERT_TRUE(peer_expect(server, "\n3\n2\n"));
        // no descriptor of ours (10 is the script), and neither mask has a signal
        EXPECT_EQ(server.received, conn_info + ("r1\r\n\r\nSSH-2.0 -i -f " + file) + "\n0\n1\n10\n2\n3\n2\n");
        struct obssh_app_config *app = client("c");
        pid_t pid = app->ac_pid;
        keld_obssh_retry_timer_handler(app->ac_timer, reinterpret_cast<uintptr_t>(app));
        EXPECT_EQ(app->ac_sshd_seen, 1);
        EXPECT_EQ(app->ac_attempts, 0u);
        if (by_signal) keld_obssh_end_all();
        else EXPECT_EQ(apply("outbound-ssh { client other; }"), 0);
        EXPECT_TRUE(ended(pid, SIGKILL));
        EXPECT_TRUE(peer_expect_end(server));
        EXPECT_FALSE(std::filesystem::exists(file));
        peer_hang_up(server);
    }
    close(ours);
}

TEST_F(outbound, looks_after_the_process)
{
    apply("outbound-ssh { client c { servers { a { retry 2; timeout 9; } b; } } }");
    struct obssh_app_config *app = client("c");
    auto look = [app](int32_t pid) {
        app->ac_pid = pid;
        qtimer_stop(app->ac_timer);
        keld_obssh_retry_timer_handler(app->ac_timer, reinterpret_cast<uintptr_t>(app));
        EXPECT_TRUE(qtimer_running(app->ac_timer));
    };
    EXPECT_EQ(app->ac_attempts, 1u);
    look(getpid());   // some process, and none of sshd
    EXPECT_EQ(app->ac_attempts, 1u);
    EXPECT_EQ(app->ac_sshd_seen, 0);
    look(0);
    EXPECT_EQ(app->ac_attempts, 2u);
    app->ac_sshd_seen = 1;
    app->ac_attempts = 0;
    look(0);   // the first death
    EXPECT_STREQ(app->ac_server_name, "a");
    look(0);
    EXPECT_STREQ(app->ac_server_name, "b");
    EXPECT_EQ(app->ac_sshd_seen, 0);
    EXPECT_EQ(app->ac_deaths, 0u);
    no_fork = true;
    look(0);   // and the timer is set: a client is not lost for a shortage
    no_fork = false;
    EXPECT_EQ(app->ac_pid, 0);
    app->ac_pid = 1;
    EXPECT_EQ(obssh_kill_group(app), 0);
    no_pipe = true;
    keld_obssh_config_change_handler(nullptr, app);
    no_pipe = false;
    EXPECT_EQ(app->ac_pid, 0);
}

TEST_F(outbound, stanzas_that_come_and_go)
{
    static const std::string clients = "client c { servers { 127.0.0.1 { PORT; } } }";
    EXPECT_EQ(apply("outbound-ssh { " + clients + " }"), 0);
    int32_t pid = client("c")->ac_pid;
    EXPECT_EQ(apply(""), -1);
    EXPECT_TRUE(client("c")) << "nothing stops";
    EXPECT_EQ(apply("outbound-ssh { routing-instance blue; " + clients + " }"), 0);
    EXPECT_TRUE(ended(pid, SIGKILL));
    EXPECT_TRUE(ended(client("c")->ac_pid, 255 << 8)) << "there are no instances";
    EXPECT_EQ(apply("outbound-ssh { routing-instance blue; }"), -1);
    EXPECT_FALSE(client("c"));
    static const char backup[] = "chassis { cluster; routing-engine backup; capabilities 1; }";
    EXPECT_EQ(apply("outbound-ssh { " + clients + " }", backup), 0);
    ASSERT_TRUE(client("c"));
    EXPECT_EQ(client("c")->ac_pid, 0) << "a backup makes no connections";
    commit("system {");
    EXPECT_EQ(keld_outbound_ssh_config(0), 1);
    EXPECT_TRUE(client("c"));
}

TEST_F(outbound, the_longest_client_id_is_never_found_again)
{
    struct obssh_app_config fresh = {};
    memset(fresh.ac_client_id, 'x', 254);
    for (char device : { '1', '2' }) {
        fresh.ac_device_id[0] = device;
        EXPECT_EQ(keld_obssh_app_config_insert(&fresh), 0);
    }
    EXPECT_STREQ(client(fresh.ac_client_id)->ac_device_id, "1") << "the second one got a record of its own";
    std::string shorter(253, 'x');
    struct obssh_app_config other = {};
    memcpy(other.ac_client_id, shorter.data(), shorter.size());
    EXPECT_EQ(keld_obssh_app_config_insert(&other), 0);
    EXPECT_EQ(keld_obssh_app_config_insert(&fresh), 0);
    EXPECT_STREQ(client(shorter.c_str())->ac_device_id, "2") << "taken for the one of 253";
    EXPECT_EQ(ob_ssh_patroot->pr_count, 2u);
    EXPECT_EQ(keld_obssh_delete_app_config(fresh.ac_client_id), 0);
    EXPECT_EQ(keld_obssh_delete_app_config(fresh.ac_client_id), 1);
}

TEST(outbound_daemon, begins_and_ends_with_the_daemon)
{
    struct router router;
    struct peer server;
    peer_listen(server);
    router_write(router, "/usr/sbin/sshd", sshd);
    std::filesystem::permissions(router.root + "/usr/sbin/sshd", std::filesystem::perms::owner_all);
    std::string client = " { servers { 127.0.0.1 { port " + std::to_string(server.port) + "; timeout 60; } } } ";
    std::string clients;
    for (const char *name : { "a", "b" }) {
        clients += std::string("client ") + name + client;
        router_write(router, "/var/etc/keld.conf", "system { services { outbound-ssh { " + clients + "} } }\n");
        if (router.started.empty()) router_start(router, "keld", { "-N" });
        else kill(router.started[0].pid, SIGHUP);
        ASSERT_TRUE(peer_accept(server));
        ASSERT_TRUE(peer_expect(server, "\n2\n"));
    }
    EXPECT_TRUE(std::filesystem::exists(router.root + "/var/etc/sshd_config_obssh.b"));
    EXPECT_EQ(router_stop(router, router.started[0]), 0);
    EXPECT_TRUE(peer_expect_end(server));
    EXPECT_FALSE(std::filesystem::exists(router.root + "/var/etc/sshd_config_obssh.b"));
    EXPECT_TRUE(within_s(LIMIT_S, [] { return waitpid(-1, nullptr, WNOHANG) < 0; })) << "a process was left";
}
