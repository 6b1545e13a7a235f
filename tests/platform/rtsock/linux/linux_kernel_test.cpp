/*
 * The library over the host's own kernel, in a network namespace that the test makes for itself. What the host does not
 * permit or lacks skips the tests that need it.
 *
 * The namespace: lo, a pair of links va and vb, and a pair va.5 and vb5, of which the first counts as unit 5 of va.
 */
#include "lib/librtsock/rtslib.h"
#include "lib/librtsock/rtslib_nexthop.h"
#include "lib/librtsock/rtslib_route.h"
#include "platform/rtsock/linux/lx.h"
#include "platform/rtsock/linux/rtsock_linux.h"
#include "platform/target.h"

#include <arpa/inet.h>
#include <errno.h>
#include <fcntl.h>
#include <poll.h>
#include <sched.h>
#include <stdlib.h>
#include <sys/stat.h>
#include <sys/utsname.h>
#include <unistd.h>

#include <algorithm>
#include <functional>
#include <linux/rtnetlink.h>
#include <gtest/gtest.h>
#include <string>
#include <vector>

using octets = std::vector<uint8_t>;

static bool run(const std::string &command)
{
    return system((command + " >/dev/null 2>&1").c_str()) == 0;
}

static void write_file(const std::string &path, const std::string &text)
{
    FILE *file = fopen(path.c_str(), "w");
    if (file == nullptr) return;
    fputs(text.c_str(), file);
    fclose(file);
}

/* Why there is no namespace of our own, or empty. The unprivileged need a user namespace for it, as root of which they
 * then act. */
static std::string enter_namespace()
{
    if (!run("ip -V")) return "no ip command";
    if (unshare(CLONE_NEWNET) == 0) return "";
    std::string uid = std::to_string(getuid()), gid = std::to_string(getgid());
    if (unshare(CLONE_NEWUSER | CLONE_NEWNET) != 0) return std::string("no namespace: ") + strerror(errno);
    write_file("/proc/self/setgroups", "deny");
    write_file("/proc/self/uid_map", "0 " + uid + " 1");
    write_file("/proc/self/gid_map", "0 " + gid + " 1");
    return "";
}

static octets address(const std::string &text)
{
    octets out(16);
    bool v6 = text.find(':') != std::string::npos;
    EXPECT_EQ(inet_pton(v6 ? AF_INET6 : AF_INET, text.c_str(), out.data()), 1) << text;
    out.resize(v6 ? 16 : 4);
    return out;
}

static std::string text_of(uint8_t family, const uint8_t *value, uint32_t length)
{
    uint8_t whole[16] = {};
    char text[INET6_ADDRSTRLEN] = "";
    std::copy_n(value, std::min<uint32_t>(length, 16), whole);
    return inet_ntop(family == TARGET_AF_INET6 ? AF_INET6 : AF_INET, whole, text, sizeof text);
}

/* The target's sockaddr of an address, or of an interface for a number. */
static octets sockaddr_of(const std::string &text)
{
    if (text.empty()) return { 0 };
    if (text.find_first_of(".:") == std::string::npos)
        return { 4, TARGET_AF_LINK, uint8_t(atoi(text.c_str())), 0 };
    octets a = address(text), out(a.size() == 4 ? 4 : 8);
    out[1] = a.size() == 4 ? TARGET_AF_INET : TARGET_AF_INET6;
    out.insert(out.end(), a.begin(), a.end());
    out.resize(a.size() == 4 ? 16 : 28);
    out[0] = uint8_t(out.size());
    return out;
}

struct prefix_text {
    octets octets_;
    uint16_t bits;
    uint8_t family;
    prefix_text(const char *given)   // NOLINT: written as text in rows
    {
        const std::string text = given;
        size_t slash = text.find('/');
        octets_ = address(text.substr(0, slash));
        bits = uint16_t(slash == std::string::npos ? octets_.size() * 8 : size_t(atoi(text.c_str() + slash + 1)));
        family = octets_.size() == 4 ? TARGET_AF_INET : TARGET_AF_INET6;
    }
};

static std::string root;
static std::string no_namespace = "not tried";

class LinuxKernel : public testing::Test {
protected:
    static void SetUpTestSuite()
    {
        char folder[] = "/tmp/linux_kernel_test.XXXXXX";
        root = mkdtemp(folder);
        setenv("KELD_ROOT", root.c_str(), 1);
        no_namespace = enter_namespace();
        if (!no_namespace.empty()) return;
        run("mkdir -p " + root + "/etc/iproute2/rt_tables.d " + root + "/usr/share/iproute2");
        write_file(root + "/etc/iproute2/rt_tables", "# tables\n255 local\n254 main\n253 default\n0 unspec\n"
                   "100 blue # site\n70000 far\n0x65 green\n102\nwords only\n");
        write_file(root + "/etc/iproute2/rt_tables.d/a.conf", "200 red\n100 navy\n201 blue\n");
        write_file(root + "/etc/iproute2/rt_tables.d/a.txt", "202 ignored\n");
        write_file(root + "/usr/share/iproute2/rt_tables", "300 host\n");
        bool links = run("ip link add va type veth peer name vb && ip link add va.5 type veth peer name vb5 && "
                         "for l in lo va vb va.5 vb5; do ip link set $l up; done && "
                         "ip address add 192.0.2.1/24 brd + dev va && "
                         "ip address add 192.0.2.9 peer 203.0.113.1/32 dev va.5");
        run("ip address add 2001:db8::1/64 dev va nodad");
        if (!links) no_namespace = "no veth links";
    }
    static void TearDownTestSuite() { run("rm -rf " + root); }
    void SetUp() override
    {
        if (!no_namespace.empty()) GTEST_SKIP() << no_namespace;
        rtsock_set_kernel(&rtsock_linux);
        cookie = rtslib_open(1);
        ASSERT_NE(cookie, nullptr);
    }
    void TearDown() override
    {
        if (cookie != nullptr) rtslib_close(cookie);
    }

    /* Asks with a record as the library's own operations do; the reply as text, or the error as "error N". */
    template <typename record>
    std::string ask(uint8_t type, uint8_t op, const std::function<void(record *)> &fill,
                    const std::function<std::string(const record &)> &tell)
    {
        record request = {};
        request.rts_hdr.rtsh_type = type;
        request.rts_hdr.rtsh_version = rtslib_versions[1 + type];
        request.rts_hdr.rtsh_op = op;
        request.rts_hdr.rtsh_seq = ++cookie->seq;
        fill(&request);
        void *reply = nullptr;
        int error = rtslib_msg_write_idl(cookie, &request, nullptr);
        bool answered = op == RTM_OP_GET || op == RTM_OP_GETNEXT || op == RTM_OP_ADD_GET;
        if (error == 0 && answered) error = rtslib_long_msg_read_idl(cookie, &reply, nullptr);
        return finish<record>(error, reply, tell);
    }
    template <typename record>
    std::string finish(int error, void *reply, const std::function<std::string(const record &)> &tell)
    {
        if (error != 0) return "error " + std::to_string(error);
        if (reply == nullptr) return "done";
        std::string text = tell(*static_cast<record *>(reply));
        rtslib_msg_idl_release(cookie, reply);
        return text;
    }

    static std::string name_of(uint32_t index)
    {
        char name[IFNAMSIZ];
        lx_name_of(static_socket(), index, name);
        return name;
    }
    static uint32_t index_of(const char *name) { return lx_index_of(static_socket(), name); }
    static int static_socket()
    {
        static int fd = socket(AF_INET, SOCK_DGRAM, 0);
        return fd;
    }
    static std::string tell_route(const rt_msg &m)
    {
        std::string text = text_of(m.af, m.prefix, m.prefix_len) + "/" + std::to_string(m.prefix_bits) + " tid" +
                           std::to_string(m.tid) + " type" + std::to_string(m.rt_type) + " nh" +
                           std::to_string(m.nh_type);
        for (uint32_t i = 0; i < m.nh_entries_len; i++) {
            const rt_nh_entry &e = m.nh_entries[i];
            text += " " + name_of(e.ifidx);
            if (e.addrs_len != 0) {
                const uint8_t *sa = e.addrs[0].sa;
                text += " via " + text_of(sa[1], sa + (sa[1] == TARGET_AF_INET ? 4 : 8), sa[0] - 8);
            }
        }
        return text;
    }
    std::string route(uint16_t tid, const prefix_text &p, uint8_t op, uint8_t type = 0)
    {
        void *reply = nullptr;
        int error = rtslib_rtm_get(cookie, tid, p.family, p.octets_.data(), p.bits, type, 0, 0, 0, op, &reply, nullptr);
        return finish<rt_msg>(error, reply, tell_route);
    }
    int add(uint16_t tid, const prefix_text &p, const std::string &gateway, uint8_t nh_type = 2, uint32_t nhidx = 0,
            uint16_t *index = nullptr)
    {
        return rtslib_rtm_add(cookie, tid, p.family, 1, 0, nh_type, 0, 0, 0, 0, nhidx, 0, 0, p.octets_.data(), p.bits,
                              sockaddr_of(gateway).data(), index);
    }
    int remove(uint16_t tid, const prefix_text &p)
    {
        return rtslib_rtm_delete_prefix(cookie, tid, p.family, 0, 0, p.octets_.data(), p.bits, 0);
    }
    std::string match(uint16_t tid, const prefix_text &p, uint32_t *nhidx = nullptr)
    {
        void *reply = nullptr;
        int error = rtslib_rtmatch_by_prefix(cookie, tid, p.family, 0, p.octets_.data(), p.bits, &reply, nullptr);
        return finish<rtm_msg>(error, reply, [nhidx](const rtm_msg &m) {
            if (nhidx != nullptr) *nhidx = m.nhidx;
            return text_of(m.af, m.prefix, m.prefix_len) + "/" + std::to_string(m.prefix_bits) + " nh" +
                   std::to_string(m.nh_type) + " " + name_of(m.ifidx);
        });
    }

    rtslib_cookie *cookie = nullptr;
};

TEST_F(LinuxKernel, NamesInstancesAndBindsSockets)
{
    const struct {
        const char *name;
        int32_t index;
        int error;
    } names[] = {
        { "main", 254, 0 }, { "default", 254, 0 }, { "local", 255, 0 }, { "blue", 100, 0 }, { "green", 101, 0 },
        { "red", 200, 0 }, { "host", 300, 0 }, { "navy", -1, ENOENT }, { "far", -1, ENOENT },
        { "ignored", -1, ENOENT }, { "unspec", -1, ENOENT }, { "words", -1, ENOENT },
    };
    for (const auto &row : names) {
        errno = 0;
        EXPECT_EQ(vrf_getindexbyvrfname(row.name, nullptr, TARGET_AF_INET), row.index) << row.name;
        EXPECT_EQ(errno == ENOENT, row.error == ENOENT) << row.name;
    }
    EXPECT_EQ(vrf_getindexbyvrfname("blue", nullptr, TARGET_AF_ISO), -1);
    EXPECT_EQ(errno, EOPNOTSUPP);
    auto index = [this](uint16_t tid, uint8_t op) {
        void *reply = nullptr;
        int error = rtslib_rtbm_get_by_index(cookie, TARGET_AF_INET6, tid, op, &reply, nullptr);
        return finish<rtb_msg>(error, reply, [](const rtb_msg &m) { return std::to_string(m.tid) + " " + m.name; });
    };
    EXPECT_EQ(index(0, RTM_OP_GET), "254 main");
    EXPECT_EQ(index(100, RTM_OP_GET), "100 blue");
    EXPECT_EQ(index(102, RTM_OP_GET), "error 2");
    std::string walk, step;
    for (uint16_t tid = 0; (step = index(tid, RTM_OP_GETNEXT)) != "error 2"; tid = uint16_t(atoi(step.c_str())))
        walk += step + ",";
    EXPECT_EQ(walk, "100 blue,101 green,200 red,254 main,255 local,300 host,");
    EXPECT_EQ(rtslib_rtbm_add(cookie, "new", 400, TARGET_AF_INET, 0), TARGET_EOPNOTSUPP);

    // The mark, with its rule, makes look-ups use the table.
    ASSERT_TRUE(run("ip rule add fwmark 100 lookup 100 && ip route add 198.51.100.0/24 dev vb table 100"));
    struct sockaddr_in to = { AF_INET, htons(9), { inet_addr("198.51.100.7") }, {} };
    auto connects = [&to](const char *instance) {
        int fd = socket(AF_INET, SOCK_DGRAM, 0);
        EXPECT_EQ(vrf_setsocketbyvrfname(fd, instance, nullptr), 0) << strerror(errno);
        int result = connect(fd, reinterpret_cast<struct sockaddr *>(&to), sizeof to);
        close(fd);
        return result == 0;
    };
    EXPECT_FALSE(connects("main"));
    EXPECT_TRUE(connects("blue"));
    int unruled = socket(AF_INET, SOCK_DGRAM, 0);
    EXPECT_EQ(vrf_setsocketbyvrfname(unruled, "red", nullptr), -1);
    EXPECT_EQ(errno, ENETUNREACH) << "a mark without a rule would lead to the main table";
    close(unruled);
    int fd = socket(AF_INET, SOCK_DGRAM, 0), bound = 0;
    socklen_t length = sizeof bound;
    EXPECT_EQ(rtsock_socket_option(fd, 0, 107, index_of("vb")), 0);
    EXPECT_EQ(getsockopt(fd, SOL_SOCKET, SO_BINDTOIFINDEX, &bound, &length), 0);
    EXPECT_EQ(uint32_t(bound), index_of("vb"));
    EXPECT_EQ(rtsock_socket_option(fd, 0, 107, 9999), -1);
    close(fd);
    run("ip rule del fwmark 100; ip route flush table 100");
}

TEST_F(LinuxKernel, VrfDevicesAreInstances)
{
    if (!run("ip link add vrf7 type vrf table 700")) GTEST_SKIP() << "no VRF devices here";
    run("ip link set vrf7 up && ip link set vb5 master vrf7 && ip route add 198.51.100.0/24 dev vb5 table 700");
    EXPECT_EQ(vrf_getindexbyvrfname("vrf7", nullptr, TARGET_AF_INET), 700);
    EXPECT_EQ(match(700, "198.51.100.9"), "198.51.100.0/24 nh7 vb5");
    int fd = socket(AF_INET, SOCK_DGRAM, 0);
    char name[IFNAMSIZ] = "";
    socklen_t length = sizeof name;
    EXPECT_EQ(vrf_setsocketbyvrfname(fd, "vrf7", nullptr), 0);
    EXPECT_EQ(getsockopt(fd, SOL_SOCKET, SO_BINDTODEVICE, name, &length), 0);
    EXPECT_STREQ(name, "vrf7");
    close(fd);
    run("ip link del vrf7");
}

TEST_F(LinuxKernel, RoutesAreAddedFoundAndDeleted)
{
    std::string va = std::to_string(index_of("va"));
    const struct {
        uint16_t tid;
        const char *prefix, *gateway;
        uint8_t nh_type;
        int error;
        const char *told;
    } rows[] = {
        { 0, "10.1.0.0/16", "192.0.2.2", 2, 0, "10.1.0.0/16 tid0 type1 nh2 va via 192.0.2.2" },
        { 0, "10.1.0.0/16", "192.0.2.3", 2, TARGET_EEXIST, "10.1.0.0/16 tid0 type1 nh2 va via 192.0.2.2" },
        { 254, "10.1.128.0/17", "192.0.2.3", 2, 0, "10.1.128.0/17 tid254 type1 nh2 va via 192.0.2.3" },
        { 100, "10.1.2.0/24", "192.0.2.4", 2, 0, "10.1.2.0/24 tid100 type1 nh2 va via 192.0.2.4" },
        { 100, "0.0.0.0/0", "192.0.2.5", 2, 0, "0.0.0.0/0 tid100 type1 nh2 va via 192.0.2.5" },
        { 100, "10.1.2.0/25", va.c_str(), 2, 0, "10.1.2.0/25 tid100 type1 nh7 va" },
        { 100, "10.9.0.0/16", "", 0, 0, "10.9.0.0/16 tid100 type1 nh0" },
        { 100, "10.8.0.0/16", "", 1, 0, "10.8.0.0/16 tid100 type1 nh1" },
        { 100, "10.7.0.0/16", "", 9, TARGET_EINVAL, "error 2" },
        { 100, "10.7.0.0/16", "198.18.0.1", 2, 51, "error 2" },   // ENETUNREACH: no way to the gateway
        { 0, "2001:db8:1::/48", "2001:db8::2", 2, 0, "2001:db8:1::/48 tid0 type1 nh2 va via 2001:db8::2" },
        { 100, "2001:db8:1::/48", "2001:db8::3", 2, 0, "2001:db8:1::/48 tid100 type1 nh2 va via 2001:db8::3" },
    };
    for (const auto &row : rows) {
        EXPECT_EQ(add(row.tid, row.prefix, row.gateway, row.nh_type), row.error) << row.prefix << " " << row.tid;
        EXPECT_EQ(route(row.tid, row.prefix, RTM_OP_GET), row.told);
    }
    uint16_t index = 7;
    EXPECT_EQ(add(100, "10.1.3.0/24", "192.0.2.4", 2, 0, &index), 0);
    EXPECT_EQ(index, 0);   // Linux has no indexes of routes
    EXPECT_TRUE(run("ip route add 10.6.0.0/16 table 100 nexthop via 192.0.2.2 nexthop via 203.0.113.1 dev va.5"));
    EXPECT_EQ(route(100, "10.6.0.0/16", RTM_OP_GET),
              "10.6.0.0/16 tid100 type1 nh3 va via 192.0.2.2 va.5 via 203.0.113.1");
    const struct {
        uint16_t tid;
        const char *prefix, *told;
    } matches[] = {
        { 0, "10.1.200.1", "10.1.128.0/17 nh2 va" }, { 0, "10.1.128.0/16", "10.1.0.0/16 nh2 va" },
        { 0, "10.200.0.1", "error 2" },              { 0, "192.0.2.1", "192.0.2.1/32 nh8 va" },
        { 100, "10.1.2.3", "10.1.2.0/25 nh7 va" },   { 100, "10.9.0.1", "10.9.0.0/16 nh0 " },
        { 100, "198.18.0.1", "0.0.0.0/0 nh2 va" },   { 0, "2001:db8:1::5", "2001:db8:1::/48 nh2 va" },
        { 100, "2001:db8:1::5", "2001:db8:1::/48 nh2 va" }, { 100, "2001:db8:2::5", "error 2" },
        { 103, "10.1.2.3", "error 2" },
    };
    for (bool ruled : { false, true }) {   // the host's look-up serves with a rule, the table itself without
        if (ruled) run("ip rule add fwmark 100 lookup 100; ip -6 rule add fwmark 100 lookup 100");
        for (const auto &row : matches) EXPECT_EQ(match(row.tid, row.prefix), row.told) << row.prefix << ruled;
    }
    run("ip rule del fwmark 100; ip -6 rule del fwmark 100");
    auto change = [this](const char *prefix, uint32_t ifindex) {
        prefix_text p(prefix);
        return ask<rt_msg>(2, RTM_OP_CHANGE, [&p, ifindex](rt_msg *m) {
            m->af = p.family, m->prefix_bits = p.bits, m->ifidx = ifindex;
            m->prefix = p.octets_.data(), m->prefix_len = uint32_t(p.octets_.size());
        }, tell_route);
    };
    EXPECT_EQ(change("10.1.0.0/16", index_of("vb")), "done");
    EXPECT_EQ(route(0, "10.1.0.0/16", RTM_OP_GET), "10.1.0.0/16 tid0 type1 nh7 vb");
    EXPECT_EQ(change("10.2.0.0/16", index_of("vb")), "error 2");
    EXPECT_EQ(change("10.1.0.0/16", 9999), "error 2");
    EXPECT_EQ(remove(0, "10.1.0.0/16"), 0);
    EXPECT_EQ(remove(0, "10.1.0.0/16"), TARGET_ENOENT);
    EXPECT_EQ(remove(100, "2001:db8:1::/48"), 0);
    EXPECT_EQ(route(0, "2001:db8:1::/48", RTM_OP_GET).substr(0, 5), "2001:");
    EXPECT_EQ(remove(0, "10.1.128.0/17") + remove(0, "2001:db8:1::/48"), 0);
    // The host's rules come first; a route for a type of service is not that of its prefix; the host's own are safe.
    EXPECT_TRUE(run("ip route add 10.5.0.0/16 via 192.0.2.2 && ip rule add to 10.5.0.0/16 blackhole && "
                    "ip route add 10.4.0.0/16 tos 0x10 via 192.0.2.3 && ip route add 10.4.0.0/16 via 192.0.2.4"));
    EXPECT_EQ(match(0, "10.5.0.1"), "error 2");
    EXPECT_EQ(route(0, "10.4.0.0/16", RTM_OP_GET), "10.4.0.0/16 tid0 type1 nh2 va via 192.0.2.4");
    prefix_text connected("192.0.2.0/24");
    EXPECT_EQ(rtslib_rtm_delete_prefix(cookie, 0, TARGET_AF_INET, 1, 0, connected.octets_.data(), 24, 0),
              TARGET_ENOENT);
    run("ip rule del to 10.5.0.0/16 blackhole; ip route del 10.5.0.0/16; ip route del 10.4.0.0/16");
    run("ip route del 10.4.0.0/16 tos 0x10; ip route flush table 100");
}

TEST_F(LinuxKernel, WalksGoByPrefixAndSeeOneMoment)
{
    enum { TABLE = 120, MANY = 3000 };
    std::string batch;
    for (int i = MANY - 1; i >= 0; i--)
        batch += "route add blackhole 10." + std::to_string(i / 250) + "." + std::to_string(i % 250) +
                 ".0/24 table 120\n";
    batch += "route add blackhole default table 120\nroute add blackhole 10.0.0.0/8 table 120\n"
             "route add blackhole 10.0.0.0/24 table 120 metric 5\n";
    write_file(root + "/batch", batch);
    ASSERT_TRUE(run("ip -batch " + root + "/batch"));
    const char *expected[] = { "10.0.0.0/8", "10.0.0.0/24", "10.0.1.0/24" };
    std::string at = "0.0.0.0/0", step;
    EXPECT_EQ(route(TABLE, at.c_str(), RTM_OP_GET), "0.0.0.0/0 tid120 type1 nh0");   // itself not behind 0/0
    EXPECT_EQ(route(TABLE, at.c_str(), RTM_OP_GET, 7), "error 2");
    EXPECT_EQ(route(TABLE, at.c_str(), RTM_OP_GETNEXT, 7), "error 2");
    int count = 0;
    while ((step = route(TABLE, at.c_str(), RTM_OP_GETNEXT)) != "error 2" && count <= MANY + 1) {
        at = step.substr(0, step.find(' '));
        if (count < int(std::size(expected))) { EXPECT_EQ(at, expected[count]); }
        if (count++ == 10) run("ip route flush table 120");   // the walk goes on in what it saw
    }
    EXPECT_EQ(count, MANY + 1);
    EXPECT_EQ(route(TABLE, "0.0.0.0/0", RTM_OP_GETNEXT), "error 2");
    EXPECT_EQ(route(0, "0.0.0.0/0", RTM_OP_GET, 7), "192.0.2.0/24 tid0 type7 nh7 va");
    EXPECT_EQ(route(TABLE, "::/0", RTM_OP_GETNEXT), "error 2");
}

TEST_F(LinuxKernel, NextHopsAreObjectsOrThoseOfRoutes)
{
    uint8_t family = TARGET_AF_INET;
    auto tell = [](const rnh_msg &m) {
        std::string text = std::to_string(m.idx & 0x7fffffff) + (m.idx >> 31 ? "r" : "") + " nh" +
                           std::to_string(m.nh) + " " + name_of(m.ifidx);
        if (m.addr_len != 0) text += " " + text_of(m.addr[1], m.addr + (m.addr[1] == TARGET_AF_INET ? 4 : 8), 16);
        for (uint32_t i = 0; i < m.nhidx_list_len; i++)
            text += " " + std::to_string(m.nhidx_list[i]) + "*" + std::to_string(m.weights[i]);
        return text;
    };
    auto get = [&](uint32_t index, uint8_t op) {
        void *reply = nullptr;
        int error = rtslib_rnhm_get_by_index(cookie, index, family, op, &reply, nullptr);
        return finish<rnh_msg>(error, reply, tell);
    };
    ASSERT_EQ(add(0, "10.3.0.0/16", "192.0.2.33"), 0);
    uint32_t named = 0;
    EXPECT_EQ(match(0, "10.3.1.1", &named), "10.3.0.0/16 nh2 va");
    EXPECT_EQ(get(named, RTM_OP_GET), "0r nh2 va 192.0.2.33");
    EXPECT_EQ(get(named + 1, RTM_OP_GET), "error 2");
    EXPECT_EQ(add(0, "10.4.0.0/16", "", 2, named), 0);
    EXPECT_EQ(route(0, "10.4.0.0/16", RTM_OP_GET), "10.4.0.0/16 tid0 type1 nh2 va via 192.0.2.33");
    octets prefix = address("10.3.1.1");
    void *reply = nullptr;
    EXPECT_EQ(rtslib_rtmatch_fwding_nh_ifindex(cookie, 0, family, 0, prefix.data(), 32, &reply, nullptr), 0);
    rtslib_msg_idl_release(cookie, reply);
    EXPECT_EQ(rtslib_rnhm_subunit_nhdelete_by_index(cookie, named, family), TARGET_EOPNOTSUPP);
    if (run("ip nexthop add id 10 via 192.0.2.40 dev va && ip nexthop add id 20 blackhole && ip nexthop add id 11 via "
            "192.0.2.41 dev va && ip nexthop add id 30 group 10,2/11")) {
        std::string walk;
        for (uint32_t i : { 0U, 10U, 11U, 20U, 30U, uint32_t(named) }) walk += get(i, RTM_OP_GETNEXT) + ",";
        EXPECT_EQ(walk, "10 nh2 va 192.0.2.40,11 nh2 va 192.0.2.41,20 nh0 ,30 nh3  10*2 11*1,"
                        "0r nh2 va 192.0.2.33,error 2,");
        EXPECT_EQ(get(30, RTM_OP_GET), "30 nh3  10*2 11*1");
        EXPECT_EQ(add(0, "10.5.0.0/16", "", 2, 10), 0);
        EXPECT_EQ(match(0, "10.5.0.1", &named), "10.5.0.0/16 nh2 va");
        EXPECT_EQ(named, 10U);
        uint32_t va = index_of("va");
        void *made = nullptr;
        ASSERT_EQ(rtslib_rnhm_subunit_nhadd(cookie, &va, family, &made, nullptr), 0);
        uint32_t index = static_cast<rnh_msg *>(made)->idx;
        rtslib_msg_idl_release(cookie, made);
        EXPECT_EQ(get(index, RTM_OP_GET), std::to_string(index) + " nh2 va");
        for (uint32_t i : { index, 30U, 20U, 10U, 11U })
            EXPECT_EQ(rtslib_rnhm_subunit_nhdelete_by_index(cookie, i, family), 0) << i;
        EXPECT_EQ(rtslib_rnhm_subunit_nhdelete_by_index(cookie, index, family), TARGET_ENOENT);
        EXPECT_EQ(get(10, RTM_OP_GET), "error 2");
    }
    EXPECT_EQ(rtslib_rnhm_service_delete_by_index(cookie, 1, family), TARGET_ENOENT);
    EXPECT_EQ(remove(0, "10.3.0.0/16") + remove(0, "10.4.0.0/16"), 0);
}

TEST_F(LinuxKernel, InterfacesByIndexNameAndUnit)
{
    auto device = [this](uint8_t op, const std::function<void(ifdev_msg *)> &fill) {
        return ask<ifdev_msg>(5, op, fill, [](const ifdev_msg &m) {
            return m.name + std::string(m.flags & 1 ? " up" : " down") + (m.idx == index_of(m.name) ? "" : " odd");
        });
    };
    auto unit = [this](uint8_t op, const std::function<void(ifl_msg *)> &fill) {
        return ask<ifl_msg>(6, op, fill, [](const ifl_msg &m) {
            return m.name + ("." + std::to_string(m.unit)) + " on " + name_of(m.ifd_idx) + " " + name_of(m.ifl_idx) +
                   (m.flags & 1 ? " up" : " down");
        });
    };
    static char va[] = "va", gone[] = "gone", va5[] = "va.5";
    auto named = [](char *name, uint32_t which = 0) {
        return [name, which](auto *m) {
            m->name = name;
            m->name_len = uint32_t(strlen(name) + 1);
            if constexpr (requires { m->unit; }) m->unit = which;
            if constexpr (requires { m->subunit; }) { m->subunit = which; m->af = TARGET_AF_INET; }
        };
    };
    EXPECT_EQ(device(RTM_OP_GET, named(va)), "va up");
    EXPECT_EQ(device(RTM_OP_GET, named(gone)), "error 2");
    EXPECT_EQ(device(RTM_OP_GET, named(va5)), "error 2");   // a unit is no device
    EXPECT_EQ(device(RTM_OP_GET, [](ifdev_msg *m) { m->idx = uint16_t(index_of("vb")); }), "vb up");
    EXPECT_EQ(device(RTM_OP_GET, [](ifdev_msg *m) { m->snmpid = index_of("lo"); }), "lo up");
    EXPECT_EQ(device(RTM_OP_GETNEXT, [](ifdev_msg *) {}), "lo up");
    EXPECT_EQ(device(RTM_OP_GETNEXT, named(va)), "vb up");
    EXPECT_EQ(device(RTM_OP_GETNEXT, [](ifdev_msg *m) { m->idx = 65535; }), "error 2");
    EXPECT_EQ(unit(RTM_OP_GET, named(va, 5)), "va.5 on va va.5 up");
    EXPECT_EQ(unit(RTM_OP_GET, named(va, 0)), "va.0 on va va up");
    EXPECT_EQ(unit(RTM_OP_GET, named(va, 6)), "error 2");
    EXPECT_EQ(unit(RTM_OP_GET, [](ifl_msg *m) { m->ifl_idx = index_of("va.5"); }), "va.5 on va va.5 up");
    EXPECT_EQ(unit(RTM_OP_GET, [](ifl_msg *m) { m->ifd_idx = index_of("va"); m->unit = 5; }), "va.5 on va va.5 up");
    EXPECT_EQ(unit(RTM_OP_GETNEXT, named(va, 0)), "va.5 on va va.5 up");
    EXPECT_EQ(unit(RTM_OP_GETNEXT, named(va, 5)), "vb.0 on vb vb up");
    EXPECT_EQ(unit(RTM_OP_CHANGE, named(va, 5)), "error 45");   // not about the flags
    EXPECT_EQ(unit(RTM_OP_CHANGE, [&](ifl_msg *m) { named(va, 5)(m); m->change = 1; }), "done");
    EXPECT_EQ(unit(RTM_OP_GET, named(va, 5)), "va.5 on va va.5 down");
    EXPECT_EQ(unit(RTM_OP_CHANGE, [&](ifl_msg *m) { named(va, 5)(m); m->change = m->flags = 1; }), "done");
    EXPECT_EQ(unit(RTM_OP_CHANGE, [&](ifl_msg *m) { named(va, 5)(m); m->privflags = 1; }), "error 45");
    EXPECT_EQ(unit(RTM_OP_ADD, named(va, 6)), "error 45");
    auto family = [this](uint8_t op, const std::function<void(iff_msg *)> &fill) {
        return ask<iff_msg>(7, op, fill, [](const iff_msg &m) {
            return name_of(m.ifl_idx) + " " + std::to_string(m.af) + " tid" + std::to_string(m.tid);
        });
    };
    EXPECT_EQ(family(RTM_OP_GET, named(va, 5)), "va.5 2 tid254");
    EXPECT_EQ(family(RTM_OP_GETNEXT, named(va)), "va 28 tid254");
    EXPECT_EQ(family(RTM_OP_GET, [](iff_msg *m) { m->ifl_idx = index_of("va"); m->af = TARGET_AF_ISO; }), "error 2");

    // The whole tables, in one value.
    const int names[][6] = { { 4, 17, 0, 0, 3, 1 }, { 4, 17, 0, 0, 3, 2 } };
    const char *all[] = { "lo vb va vb5 ", "lo.0 vb.0 va.0 vb5.0 va.5 " };
    for (int kind = 0; kind < 2; kind++) {
        size_t size = 0, small = 10;
        ASSERT_EQ(rtsock_sysctl(names[kind], 6, nullptr, &size), 0);
        octets value(size);
        EXPECT_EQ(rtsock_sysctl(names[kind], 6, value.data(), &small), -1);
        EXPECT_EQ(errno, ENOMEM);
        ASSERT_EQ(rtsock_sysctl(names[kind], 6, value.data(), &size), 0);
        std::string found;
        for (size_t at = 0; at < size;) {
            void *message = nullptr;
            uint32_t length;
            memcpy(&length, &value[at + 4], sizeof length);
            ASSERT_EQ(rtslib_msg_idl_decode(cookie, &value[at], size - at, &message, nullptr), 0);
            const auto *d = static_cast<ifdev_msg *>(message);
            const auto *u = static_cast<ifl_msg *>(message);
            found += kind == 0 ? d->name + std::string(" ") : u->name + ("." + std::to_string(u->unit)) + " ";
            rtslib_msg_idl_release(cookie, message);
            at += length + IDL_ENVELOPE_SIZE;
        }
        for (const std::string part : { "lo", "va", "vb" }) EXPECT_NE(found.find(part), std::string::npos);
        EXPECT_EQ(found.size(), strlen(all[kind])) << found;
    }
}

TEST_F(LinuxKernel, Addresses)
{
    auto fill = [](const char *name, const char *local, const char *destination) {
        return [=](ifa_msg *m) {
            static prefix_text l("0.0.0.0"), d("0.0.0.0");
            m->ifl_idx = index_of(name);
            m->af = TARGET_AF_INET;
            if (*local) {
                l = local;
                m->local = l.octets_.data(), m->local_len = uint32_t(l.octets_.size()), m->local_bits = l.bits;
                m->af = l.family;
            }
            if (*destination) {
                d = destination;
                m->dest = d.octets_.data(), m->dest_len = uint32_t(d.octets_.size()), m->dest_bits = d.bits;
            }
        };
    };
    const struct {
        uint8_t op;
        const char *name, *local, *destination, *told;
    } rows[] = {
        { RTM_OP_GET, "va", "", "", "va 192.0.2.1/32 192.0.2.0/24 b192.0.2.255" },
        { RTM_OP_GET, "va.5", "", "203.0.113.1/32", "va.5 192.0.2.9/32 203.0.113.1/32" },
        { RTM_OP_GET, "va", "192.0.2.8", "", "error 2" },
        { RTM_OP_GET, "va", "2001:db8::1", "", "va 2001:db8::1/128 2001:db8::/64" },
        { RTM_OP_GETNEXT, "", "", "", "lo 127.0.0.1/32 127.0.0.0/8" },
        { RTM_OP_GETNEXT, "va", "192.0.2.1", "", "va.5 192.0.2.9/32 203.0.113.1/32" },
        { RTM_OP_GETNEXT, "va.5", "192.0.2.9", "", "error 2" },
        { RTM_OP_ADD, "vb", "198.51.100.1", "198.51.100.0/25", "done" },
        { RTM_OP_ADD, "vb", "198.51.100.1", "198.51.100.0/25", "error 17" },
        { RTM_OP_GET, "vb", "198.51.100.1", "", "vb 198.51.100.1/32 198.51.100.0/25" },
        { RTM_OP_ADD, "vb", "198.51.100.1", "198.51.100.0/24", "done" },
        { RTM_OP_GETNEXT, "vb", "198.51.100.1", "198.51.100.0/24", "vb 198.51.100.1/32 198.51.100.0/25" },
        { RTM_OP_DELETE, "vb", "198.51.100.1", "198.51.100.0/25", "done" },
        { RTM_OP_DELETE, "vb", "198.51.100.1", "", "done" },
        { RTM_OP_DELETE, "vb", "198.51.100.1", "", "error 2" },
        { RTM_OP_DELETE, "vb", "198.51.100.1", "198.51.100.0/25", "error 2" },
        { RTM_OP_ADD, "vb", "198.51.100.0/24", "", "error 22" },
        { RTM_OP_CHANGE, "vb", "198.51.100.1", "", "error 45" },
    };
    for (const auto &row : rows) {
        std::string told = ask<ifa_msg>(8, row.op, fill(row.name, row.local, row.destination), [](const ifa_msg &m) {
            std::string text = name_of(m.ifl_idx) + " " + text_of(m.af, m.local, m.local_len) + "/" +
                               std::to_string(m.local_bits) + " " + text_of(m.af, m.dest, m.dest_len) + "/" +
                               std::to_string(m.dest_bits);
            return m.broadcast_len != 0 ? text + " b" + text_of(m.af, m.broadcast, m.broadcast_len) : text;
        });
        EXPECT_EQ(told, row.told) << int(row.op) << row.name << row.local;
    }
}

TEST_F(LinuxKernel, ChangesComeAsEvents)
{
    const uint32_t on = 1, none[] = { 0, 0 }, classes[] = { 0x1 | 0x2 | 0x14 | 0x28 | 0x2000 | 0x200380, 0 };
    int fd = cookie->socket;
    // Of what came, that which contains a word: the host has things of its own to tell at any time.
    int count_heard = 0;
    auto heard = [this, fd, &count_heard](const std::string &word) {
        std::string text;
        struct pollfd wait = { fd, POLLIN, 0 };
        octets buffer(0x10000);
        while (poll(&wait, 1, 0) == 1) {
            ssize_t count = rtsock_read(fd, buffer.data(), buffer.size());
            for (ssize_t at = 0; at < count;) {
                void *message = nullptr;
                uint32_t length;
                memcpy(&length, &buffer[size_t(at) + 4], sizeof length);
                EXPECT_EQ(rtslib_msg_idl_decode(cookie, &buffer[size_t(at)], size_t(count - at), &message, nullptr), 0);
                const auto *h = static_cast<rts_hdr *>(message);
                std::string one = std::to_string(h->rtsh_type) + ":" + std::to_string(h->rtsh_op);
                if (h->rtsh_type == 2) one += " " + tell_route(*static_cast<rt_msg *>(message));
                count_heard += one.find(word) != std::string::npos;
                if (one.find(word) != std::string::npos && text.find(one) == std::string::npos) text += one + ",";
                rtslib_msg_idl_release(cookie, message);
                at += length + IDL_ENVELOPE_SIZE;
            }
        }
        return text;
    };
    auto contains = [](const std::string &text, const char *part) { return text.find(part) != std::string::npos; };
    ASSERT_EQ(rtsock_setsockopt(fd, RTSOCK_LEVEL, RTSOCK_ASYNC_MODE, &on, sizeof on), 0);
    ASSERT_EQ(rtsock_setsockopt(fd, RTSOCK_LEVEL, RTSOCK_LISTEN_BITS, classes, sizeof classes), 0);
    run("ip address add 192.0.2.77/32 dev va && ip address del 192.0.2.77/32 dev va");
    std::string text = heard("");
    EXPECT_TRUE(contains(text, "8:1,") && contains(text, "8:3,")) << text;
    EXPECT_TRUE(contains(text, "2:1 192.0.2.77/32 tid255 type7 nh8 va,")) << text;
    run("ip route add 10.66.0.0/16 via 192.0.2.2 && ip route replace 10.66.0.0/16 via 192.0.2.3 && "
        "ip route del 10.66.0.0/16");
    EXPECT_EQ(heard("10.66"), "2:1 10.66.0.0/16 tid254 type1 nh2 va via 192.0.2.2,2:2 10.66.0.0/16 tid254 type1 nh2 va via "
                              "192.0.2.3,2:3 10.66.0.0/16 tid254 type1 nh2 va via 192.0.2.3,");
    run("ip rule add fwmark 100 lookup 100 && ip rule del fwmark 100");
    EXPECT_EQ(heard("1:2"), "1:2,");
    run("ip link add ve type veth peer name vf && ip link del ve");
    text = heard("");
    for (const char *part : { "5:1,6:1,", "6:3,5:3," }) EXPECT_TRUE(contains(text, part)) << text;
    EXPECT_TRUE(contains(text, "7:1,") && contains(text, "7:3,")) << text;
    // Far more than one read takes out of the host.
    std::string batch;
    for (int i = 0; i < 2000; i++)
        batch += "route add blackhole 10.77." + std::to_string(i / 250) + "." + std::to_string(i % 250) +
                 " table 121\n";
    write_file(root + "/batch", batch);
    run("ip -batch " + root + "/batch");
    count_heard = 0;
    EXPECT_EQ(heard("2:1 10.77.7.249"), "2:1 10.77.7.249/32 tid121 type1 nh0,");
    run("ip route flush table 121");
    heard("2:3 10.77");
    EXPECT_EQ(count_heard, 1 + 2000);
    run("ip route add blackhole 10.67.0.0/16");
    ASSERT_EQ(rtsock_setsockopt(fd, RTSOCK_LEVEL, RTSOCK_LISTEN_BITS, none, sizeof none), 0);
    run("ip route del blackhole 10.67.0.0/16");
    struct pollfd wait = { fd, POLLIN, 0 };
    EXPECT_EQ(poll(&wait, 1, 0), 0) << "what nobody wants any more keeps nobody awake";
}
