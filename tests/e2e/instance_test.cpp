/*
 * Outbound SSH through a routing instance, on networks of the test's own: the server is in a network namespace that
 * the router's main table has no route to. The instance is a named table with a rule, or a VRF device.
 */
#include "tests/support/peer.h"
#include "tests/support/router.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sched.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

enum { SERVER = 0x0a090002 };   // 10.9.0.2

static bool sh(const std::string &command)
{
    return system((command + " >/dev/null 2>&1").c_str()) == 0;
}

/* Goes over into a network namespace and comes back at the end. */
struct visit {
    explicit visit(pid_t host) : home(open("/proc/self/ns/net", O_RDONLY | O_CLOEXEC))
    {
        int fd = open(("/proc/" + std::to_string(host) + "/ns/net").c_str(), O_RDONLY | O_CLOEXEC);
        EXPECT_EQ(setns(fd, CLONE_NEWNET), 0);
        close(fd);
    }
    ~visit()
    {
        EXPECT_EQ(setns(home, CLONE_NEWNET), 0);
        close(home);
    }
    int home;
};

/* A process that holds a namespace of its own, -1 if that may not be. */
static pid_t namespace_start()
{
    int ready[2];
    if (pipe2(ready, O_CLOEXEC) < 0) return -1;
    pid_t pid = fork();
    if (pid == 0) {
        prctl(PR_SET_PDEATHSIG, SIGKILL);
        char made = unshare(CLONE_NEWNET) == 0 ? 'y' : 'n';
        (void)!write(ready[1], &made, 1);
        for (;;) pause();
    }
    char made = 'n';
    (void)!read(ready[0], &made, 1);
    close(ready[0]);
    close(ready[1]);
    return made == 'y' ? pid : -1;
}

class instance_e2e : public testing::Test {
protected:
    void SetUp() override
    {
        for (pid_t &host : hosts) host = namespace_start();
        if (hosts[1] < 0) GTEST_SKIP() << "network namespaces are not permitted here";
        there = std::make_unique<visit>(hosts[0]);
        std::string server = std::to_string(hosts[1]);
        ASSERT_TRUE(sh("ip link set lo up && ip link add v0 type veth peer name v1 && ip link set v1 netns " + server));
        ASSERT_TRUE(sh("ip address add 10.9.0.1/24 dev v0 noprefixroute && ip link set v0 up"));
        visit at_server(hosts[1]);
        ASSERT_TRUE(sh("ip address add 10.9.0.2/24 dev v1 && ip link set v1 up && ip link set lo up"));
        peer_listen(peer, SERVER);
    }
    void TearDown() override
    {
        if (!router.started.empty()) { EXPECT_EQ(router_stop(router, keld), 0); }
        there.reset();
        for (pid_t host : hosts) {
            if (host > 0) kill(host, SIGKILL), waitpid(host, nullptr, 0);
        }
    }
    /* The daemon's client comes by way of the instance. */
    void meet(const std::string &stanza)
    {
        router_write(router, "/var/etc/keld.conf",
                     "system { services { outbound-ssh { " + stanza + " client a { device-id r1; servers { 10.9.0.2 "
                     "{ port " + std::to_string(peer.port) + "; retry 3; timeout 1; } } } traceoptions { flag all; } "
                     "} } }\n");
        if (router.started.empty())
            keld = router_start(router, "keld", { "-N" });
        else
            kill(keld.pid, SIGHUP);
    }
    pid_t hosts[2] = { -1, -1 };   // the router's namespace, the server's
    std::unique_ptr<visit> there;
    struct peer peer;
    struct router router;
    struct process keld;
};

static constexpr char front[] = "MSG-ID: DEVICE-CONN-INFO\r\nMSG-VER: V1\r\nDEVICE-ID: r1\r\n\r\n";

TEST_F(instance_e2e, connection_uses_the_routes_of_a_named_table)
{
    router_write(router, "/etc/iproute2/rt_tables", "254 main\n100 blue\n");
    ASSERT_TRUE(sh("ip route add 10.9.0.0/24 dev v0 src 10.9.0.1 table 100 && ip rule add fwmark 100 lookup 100"));
    meet("");
    std::string port = std::to_string(peer.port);
    EXPECT_TRUE(traced(router, "Connection to: 10.9.0.2 port: " + port + " failed: Error - Network is unreachable"));
    meet("routing-instance red;");
    EXPECT_TRUE(traced(router, "Setting routing instance = red failed"));
    meet("routing-instance blue;");
    ASSERT_TRUE(peer_accept(peer));
    EXPECT_TRUE(peer_expect(peer, front));
    EXPECT_TRUE(traced(router, "Setting routing instance = blue successful"));
}

TEST_F(instance_e2e, connection_uses_the_routes_of_a_vrf_device)
{
    if (!sh("ip link add blue type vrf table 101")) GTEST_SKIP() << "this kernel has no VRF devices";
    ASSERT_TRUE(sh("ip link set blue up && ip link set v0 master blue"));
    ASSERT_TRUE(sh("ip route add 10.9.0.0/24 dev v0 src 10.9.0.1 table 101"));
    meet("routing-instance blue;");
    ASSERT_TRUE(peer_accept(peer));
    EXPECT_TRUE(peer_expect(peer, front));
}
