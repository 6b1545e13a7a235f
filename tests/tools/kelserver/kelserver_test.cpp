/*
 * kelserver, with the peer in the router's place: what it prints, what it sends, what it makes of commands.
 */
#include "tests/support/peer.h"
#include "tests/support/router.h"

#include <gtest/gtest.h>
#include <sys/socket.h>

#define MIME "Content-Type: application/beep+xml\r\n\r\n"
#define NOTIFICATION_URI KELD_URI_BASE "/beep/tkel-notification/1.0"
#define SCRIPT_URI KELD_URI_BASE "/beep/TARNESCRIPT"

/* The router's part up to a confirmed notification channel 1. */
static void attach(struct peer &peer, const std::string &port)
{
    ASSERT_TRUE(peer_connect(peer, port));
    peer_frame(peer, "RPY", 0, 0, MIME "<greeting></greeting>");
    peer_expect(peer, "<greeting>\n<profile uri='" NOTIFICATION_URI "' /><profile uri='" SCRIPT_URI "' /></greeting>");
    peer_frame(peer, "MSG", 0, 1,
               MIME "<start number='1'>\n<profile uri='" NOTIFICATION_URI "' ><![CDATA[<hostname>r1</hostname>"
                    "<os>TARNE</os><release>1\x9b[2J</release>]]></profile></start>");
    peer_expect(peer, "RPY 0 1 . ");
    peer_expect(peer, "<![CDATA[<keepalive>30</keepalive>]]></profile>END\r\n");
}

class kelserver_test : public testing::Test {
protected:
    struct router router;
    struct peer peer;
    struct kelserver server = kelserver_start(router, { "--keepalive", "30" });
};

TEST_F(kelserver_test, prints_and_answers_what_a_router_sends)
{
    attach(peer, server.port);
    EXPECT_TRUE(printed(server.process, "#1 greeting seen\n"));
    // What a router sends must not steer the terminal.
    EXPECT_TRUE(printed(server.process, "hostname r1, os TARNE, release 1?[2J; told keepalive 30 s\n"));

    static const struct { const char *message, *line; } rows[] = {
        { MIME "<keepalive/>", "channel 1: keepalive\n" },
        { MIME "<notification whatishappening=\"added\">\n<interface><name>ge-0/0/0.0</name></interface>\n"
               "<interface><name>lo0.16</name></interface>\n</notification>",
          "channel 1: notification: added ge-0/0/0.0 lo0.16\n" },
        { "\a\r\n?", "channel 1: unknown message: ?  ?\n" },
    };
    unsigned msgno = 0;
    for (const auto &row : rows) {
        peer_frame(peer, "MSG", 1, msgno, row.message);
        peer_expect(peer, "RPY 1 " + std::to_string(msgno++) + " . 0 0\r\nEND\r\n");
        EXPECT_TRUE(printed(server.process, row.line));
    }
    peer_frame(peer, "MSG", 1, msgno, MIME "<close-connection/>");
    peer_expect(peer, "RPY 1 3 . 0 0\r\nEND\r\n");
    EXPECT_TRUE(peer_expect_end(peer));
    EXPECT_TRUE(printed(server.process, "session ended: the router asked for it\n"));
}

TEST_F(kelserver_test, commands_reach_the_router)
{
    router_write(router, "/call.xml", "<rpc><get-software-information/></rpc>");
    std::string rpc = "rpc " + router.root + "/call.xml";
    attach(peer, server.port);

    type_line(server.process, rpc);   // refused first, as by a router that does not serve the profile
    peer_expect(peer, "MSG 0 1 . ");
    peer_expect(peer, "<start number='2'>\n<profile uri='" SCRIPT_URI "' /></start>END\r\n");
    peer_frame(peer, "ERR", 0, 1, MIME "<error code='521' />");
    EXPECT_TRUE(printed(server.process, "the router refused the management script channel: [521] no text\n"));

    type_line(server.process, rpc);
    peer_expect(peer, "MSG 0 2 . ");
    peer_expect(peer, "<start number='2'>\n");
    peer_frame(peer, "RPY", 0, 2, MIME "<profile uri='" SCRIPT_URI "' />");
    peer_expect(peer, "MSG 2 0 . 0 76\r\n" MIME "<rpc><get-software-information/></rpc>END\r\n");
    peer_frame(peer, "RPY", 2, 0, MIME "<rpc-reply>\n</rpc-reply>\n");
    EXPECT_TRUE(printed(server.process, "channel 2: reply, 63 octets, the last\n  | <rpc-reply>\n  | </rpc-reply>\n"));

    type_line(server.process, "close 2");
    peer_expect(peer, "<close number='2' code='200' />END\r\n");
    peer_frame(peer, "RPY", 0, 3, "<ok/>");
    EXPECT_TRUE(printed(server.process, "channel 2: the router closed it\n"));
    type_line(server.process, rpc);
    EXPECT_TRUE(printed(server.process, "rpc: no channel can be opened any more after a close"));

    type_line(server.process, "redirect 192.0.2.1 4000");
    peer_expect(peer, MIME "<redirect><address>192.0.2.1</address><port>4000</port></redirect>END\r\n");
    peer_frame(peer, "RPY", 1, 0, "");
    EXPECT_TRUE(peer_expect_end(peer));
    EXPECT_TRUE(printed(server.process, "session ended: the router has its redirect\n"));
}

TEST_F(kelserver_test, bad_commands_get_one_line_and_change_nothing)
{
    static const struct { std::string line, answer; } rows[] = {
        { std::string(5000, 'x'), "a command of more than 4096 octets was skipped\n" },
        { "frobnicate", "no such command: 'frobnicate'; there are rpc, redirect, close, ssh, ssh-close, quit, help\n" },
        { "redirect 192.0.2.1", "usage: redirect ADDRESS PORT\n" },
        { "redirect 192.0.2.999 1", "redirect: ADDRESS is not an IPv4 address" },
        { "close 65536", "close: CHANNEL is not a number from 0 to 65535\n" },
        { "close 9", "close: there is no such channel" },
        { "rpc /nonexistent", "rpc: the file cannot be read\n" },
        { "ssh", "usage: ssh TEXT\n" },
        { "ssh uptime", "ssh: no router has an outbound SSH session\n" },
    };
    type_line(server.process, "close 1");
    EXPECT_TRUE(printed(server.process, "close: no router is connected\n"));
    attach(peer, server.port);
    for (const auto &row : rows) {
        type_line(server.process, row.line);
        EXPECT_TRUE(printed(server.process, row.answer)) << row.line;
    }
    type_line(server.process, "quit");
    EXPECT_EQ(router_stop(router, server.process, 0), 0);
    EXPECT_TRUE(peer_expect_end(peer));
}

TEST_F(kelserver_test, serves_several_routers_and_steers_the_last)
{
    struct peer second;
    attach(peer, server.port);
    attach(second, server.port);
    type_line(server.process, "close 0");   // waits for the router's word
    peer_expect(second, "<close number='0' code='200' />END\r\n");
    peer_frame(second, "RPY", 0, 1, "<ok/>");
    EXPECT_TRUE(peer_expect_end(second));
    EXPECT_TRUE(printed(server.process, "#2 session ended: closed from here\n"));
    peer_frame(peer, "MSG", 1, 0, MIME "<keepalive/>");
    peer_expect(peer, "RPY 1 0 . 0 0\r\nEND\r\n");
    EXPECT_TRUE(printed(server.process, "#1 channel 1: keepalive\n"));
    peer_hang_up(peer);
    EXPECT_TRUE(printed(server.process, "#1 session ended: the router closed the connection\n"));
}

TEST_F(kelserver_test, end_of_input_stops_nothing_and_bad_options_do)
{
    close(server.process.input);
    EXPECT_TRUE(printed(server.process, "standard input ended; serving goes on\n"));
    attach(peer, server.port);
    server.process.input = -1;
    for (struct process &process : router.started) process.input = -1;
    EXPECT_EQ(router_stop(router, server.process), 0);

    static const struct { std::vector<std::string> options; int status; const char *prints; } rows[] = {
        { { "--port", "70000" }, 64, "--port wants 0 to 65535: '70000'" },
        { { "--ssh-secret", "/nonexistent" }, 64, "--ssh-secret wants a file with a secret: '/nonexistent'" },
        { { "--tls", "/nonexistent.pem" }, 1, "/nonexistent.pem: error:" },
        { { "--help" }, 0, "usage: kelserver" },
    };
    for (const auto &row : rows) {
        std::string output;
        EXPECT_EQ(router_run(router, "kelserver", row.options, &output), row.status);
        EXPECT_NE(output.find(row.prints), std::string::npos) << output;
    }
}

TEST(kelserver_ssh, believes_and_hands_over_or_hangs_up_with_a_reason)
{
    using std::string_literals::operator""s;
    static const char front[] = "MSG-ID: DEVICE-CONN-INFO\r\nMSG-VER: V1\r\nDEVICE-ID: r\x1b\r\n";
    struct router router;
    router_write(router, "/secret", "s3cret\nand more");
    struct kelserver server = kelserver_start(router, { "--accept-ssh", "0", "--ssh-secret", router.root + "/secret" });
    ASSERT_TRUE(printed(server.process, "outbound SSH is taken on 127.0.0.1 port "));
    std::string text = file_read(server.process.output_path);
    std::string port = text.substr(text.rfind(' ') + 1);

    static const struct { std::string rest, line; } rows[] = {
        { "", "outbound SSH ended: the router hung up in the middle of its identification\n" },
        { "\r\n", "outbound SSH ended: the router hung up before its SSH server spoke\n" },
        { "\r\nSSH-2.0-x\r\n", "outbound SSH ended: HMAC absent: " },
        { "HOST-KEY: k\0\r\nHMAC: 3e48575537919d9187078407ecb88e44b1d674e4\r\n\r\nSSH-2.0-x\r\n"s,
          "outbound SSH ended: HMAC mismatch: " },
        { "HOST-KEY k\r\n", "outbound SSH ended: this is no identification: " },
    };
    for (const auto &row : rows) {
        struct peer peer;
        ASSERT_TRUE(peer_connect(peer, port));
        peer_send(peer, front + row.rest);
        shutdown(peer.fd, SHUT_WR);
        EXPECT_TRUE(printed(server.process, row.line)) << row.line;
    }
    EXPECT_TRUE(printed(server.process, "DEVICE-ID: r?\n"));

    // The real ssh takes the conversation up where the identification ends.
    struct peer peer;
    ASSERT_TRUE(peer_connect(peer, port));
    peer_send(peer, front + "\r\nHMAC: 3e48575537919d9187078407ecb88e44b1d674e4\r\n\r\nSSH-2.0-x\r\n"s);
    EXPECT_TRUE(printed(server.process, "HMAC matches: "));
    EXPECT_TRUE(peer_expect(peer, "SSH-2.0-"));
    peer_hang_up(peer);
    EXPECT_TRUE(printed(server.process, "outbound SSH ended: ssh ended with status 255\n"));
    EXPECT_EQ(router_stop(router, server.process), 0);
}
