/*
 * vrd: called by a server through a real daemon, and by clients on its socket.
 */
#include "tests/support/router.h"

#include <filesystem>
#include <gtest/gtest.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

static const char interfaces[] = "interfaces { ge-0/0/0 { unit 0 { description \"a<b> & S\xc3\xbc\x64\"; } "
                                 "unit 100 { disable; } } }";

static struct process vrd_start(struct router &router)
{
    struct process vrd = router_start(router, "vrd", {});
    EXPECT_TRUE(printed(vrd, "listening on "));
    return vrd;
}

TEST(vrd, answers_a_servers_calls_through_the_daemon)
{
    struct router router;
    struct kelserver server = kelserver_start(router);
    router_configure(router, "servers { 127.0.0.1 { port " + server.port + "; user deploy; } }", interfaces);
    struct process keld = router_start(router, "keld", { "-N" });
    ASSERT_TRUE(printed(server.process, "opened: notification"));
    auto call = [&](const std::string &text) {
        router_write(router, "/call.xml", text);
        type_line(server.process, "rpc " + router.root + "/call.xml");
    };

    call("<rpc><get-software-information/></rpc>");
    EXPECT_TRUE(printed(server.process, "the router refused the management script channel: [521]"));
    EXPECT_TRUE(logged(router, "KELD_MGMT_DAEMON_FAIL: This should not happen: Could not connect to vrd\n"));

    struct process vrd = vrd_start(router);
    call("<rpc><get-software-information/></rpc>");
    EXPECT_TRUE(printed(server.process, "<release>" KELD_RELEASE "</release></software-information></rpc-reply>\n"));
    EXPECT_TRUE(printed(vrd, "#1 login: user deploy logname keld host "));
    EXPECT_TRUE(printed(vrd, "#1 user deploy: get-software-information, "));
    // Far larger than the window, in frames that are not.
    call("<rpc><!--" + std::string(100000, 'x') + "--><get-interface-information/></rpc>");
    EXPECT_TRUE(printed(server.process, "<logical-interface><name>ge-0/0/0.0</name><admin-status>up</admin-status>"
                                        "<description>a&lt;b&gt; &amp; S&#252;d</description></logical-interface>"));
    call("no call at all");
    EXPECT_TRUE(printed(server.process, "this is no call: &lt;rpc&gt; is missing"));

    EXPECT_EQ(router_stop(router, vrd), 0);
    EXPECT_TRUE(logged(router, "KELD_MGMT_SOCKET_IO: management daemon I/O failure: Connection reset by peer\n"));
    // The daemon has closed the channel, and the next call opens another.
    vrd = vrd_start(router);
    EXPECT_TRUE(within_s(LIMIT_S, [&] {
        call("<rpc><get-system-uptime-information/></rpc>");
        return printed(server.process, "<up-time seconds=");
    }));
    EXPECT_EQ(router_stop(router, keld), 0);
}

/* --- clients of its own ------------------------------------------------------------------------------------------- */

static const std::string greeting = "user a logname b\n<?xml version=\"1.0\"?>\n<hello/>\n";

static void client_send(int fd, const std::string &text)
{
    (void)send(fd, text.data(), text.size(), MSG_NOSIGNAL);
}

static int client_connect(const struct router &router, const std::string &text)
{
    struct sockaddr_un address = { AF_UNIX, {} };
    (router.root + "/var/run/vrd.sock").copy(address.sun_path, sizeof address.sun_path - 1);
    int fd = socket(AF_UNIX, SOCK_STREAM, 0);
    struct timeval limit = { LIMIT_S, 0 };
    EXPECT_EQ(setsockopt(fd, SOL_SOCKET, SO_RCVTIMEO, &limit, sizeof limit), 0);
    EXPECT_EQ(connect(fd, reinterpret_cast<struct sockaddr *>(&address), sizeof address), 0);
    client_send(fd, text);
    return fd;
}

/* What comes, up to end, or the end of the stream. */
static std::string client_read(int fd, const std::string &end)
{
    std::string all;
    for (char octets[4096]; !all.ends_with(end);) {
        ssize_t got = read(fd, octets, sizeof octets);
        if (got <= 0) return all + (got == 0 ? "<end>" : strerror(errno));
        all.append(octets, size_t(got));
    }
    return all;
}

TEST(vrd, every_call_gets_one_reply_line_by_line)
{
    struct router router;
    router_configure(router, "", std::string(interfaces) +
                     " system { services { outbound-ssh { client nms { device-id r1; secret \"s3cret\"; } } } }");
    struct process vrd = vrd_start(router);
    int fd = client_connect(router, greeting);
    EXPECT_EQ(client_read(fd, "\n"), "<hello server=\"vrd\" release=\"" KELD_RELEASE "\"/>\n");
    const struct { std::string call, reply; } rows[] = {
        { "<rpc message-id='1'>\n<get-configuration>\n</get-configuration >x</rpc>", "is not closed" },
        { "<rpc><get-configuration a='</rpc>'><![CDATA[</rpc>]]></get-configuration></rpc>",
          "<client>\n<name>nms</name>\n<device-id>r1</device-id>\n<secret hidden=\"hidden\"/>\n</client>\n" },
        { "<?xml version='1.0'?><!-- </rpc> <rpc> -->\n<rpc><!-- --><get-interface-information/> </rpc>\n",
          "<name>ge-0/0/0.100</name>\n<admin-status>down</admin-status>\n" },
        { "<rpc><reboot/></rpc>", "there is no call &apos;reboot&apos;; there are get-software-information, " },
        { "<rpc/>", "there is no call in &lt;rpc&gt;" },
        { "<rpc>text</rpc>", "the name of a call is expected" },
        { "<rpc><a/><b/></rpc>", "more than one call" },
        { "text <rpc><a/></rpc>", "something else in front of &lt;rpc&gt;" },
        { "<rpc><a>" + std::string(1 << 20, 'x') + "</a></rpc>", "the call is longer than 1 MiB" },
        { "</rpc><a/>\ntext", "this is no call: &lt;rpc&gt; is missing" },
    };
    for (const auto &row : rows) {
        client_send(fd, row.call);
        std::string reply = client_read(fd, "</rpc-reply>\n");
        EXPECT_EQ(reply.find("<rpc-reply>\n"), 0u);
        EXPECT_NE(reply.find(row.reply), reply.npos) << row.call.substr(0, 60) << "\n" << reply;
    }
    std::filesystem::remove(router.root + "/var/etc/keld.conf");
    client_send(fd, "<rpc><get-configuration/></rpc>");
    EXPECT_NE(client_read(fd, "</rpc-reply>\n").find("<error-message>/var/etc/keld.conf: "), std::string::npos);
    close(fd);
    EXPECT_TRUE(printed(vrd, "#1 ended: the client hung up\n"));
}

TEST(vrd, a_deaf_client_holds_up_nobody_and_a_strange_one_is_sent_away)
{
    struct router router;
    std::string many, calls;
    for (int i = 0; i < 3000; i++) many += " ge-0/0/" + std::to_string(i) + " { unit 0; }";
    for (int i = 0; i < 100; i++) calls += "<rpc><get-configuration/></rpc>";
    router_configure(router, "", "interfaces {" + many + " }");
    struct process vrd = vrd_start(router);
    int deaf = client_connect(router, greeting + calls);

    const struct { std::string lines, reason; } rows[] = {
        { "GET / HTTP/1.1\n", "the login line does not begin with \"user\"\n" },
        { "user a\n<rpc>\n", "is no XML declaration\n" },
        { "user a\n<?xml ?>\n<rpc>\n", "is no <hello>\n" },
        { "user " + std::string(5000, 'a'), "longer than 4096 octets\n" },
    };
    for (const auto &row : rows) {
        int strange = client_connect(router, row.lines);
        EXPECT_EQ(client_read(strange, "\n"), "<end>");
        EXPECT_TRUE(printed(vrd, row.reason));
        close(strange);
    }
    int fd = client_connect(router, greeting + "<rpc><get-software-information/></rpc>");
    EXPECT_NE(client_read(fd, "</rpc-reply>\n").find("<release>"), std::string::npos);
    for (int i = 0; i < 100; i++)
        ASSERT_TRUE(client_read(deaf, "</rpc-reply>\n").ends_with("</rpc-reply>\n")) << "the deaf one wakes up";

    std::string output;
    EXPECT_EQ(router_run(router, "vrd", {}, &output), 1);
    EXPECT_NE(output.find("another vrd runs"), std::string::npos) << output;
    EXPECT_EQ(router_run(router, "vrd", { "stray" }, &output), 64);
    EXPECT_EQ(router_stop(router, vrd), 0);
    EXPECT_FALSE(std::filesystem::exists(router.root + "/var/run/vrd.sock"));
    close(deaf);
    close(fd);
}
