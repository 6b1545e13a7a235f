/*
 * A daemon and its server, on the wire over TCP. The peer plays the server word for word.
 */
#include "tests/support/peer.h"
#include "tests/support/router.h"

#include <gtest/gtest.h>
#include <unistd.h>

#define MIME "Content-Type: application/beep+xml\r\n\r\n"
#define NOTIFICATION_URI KELD_URI_BASE "/beep/tkel-notification/1.0"

static std::string server_at(uint16_t port)
{
    return "servers { 127.0.0.1 { port " + std::to_string(port) + "; } }";
}

/* Up to the <start> of the notification channel, which the peer has to answer. */
static void meet(struct peer &peer)
{
    ASSERT_TRUE(peer_accept(peer));
    peer_frame(peer, "RPY", 0, 0, MIME "<greeting><profile uri='" NOTIFICATION_URI "' /></greeting>");
    peer_expect(peer, "RPY 0 0 . 0 ");
    peer_expect(peer, MIME "<greeting>\n<profile uri='" NOTIFICATION_URI "' />");
    peer_expect(peer, "</greeting>END\r\n");
    peer_expect(peer, "MSG 0 1 . ");
    peer_expect(peer, MIME "<start number='1'>\n<profile uri='" NOTIFICATION_URI "' ><![CDATA[");
}

TEST(session, comes_up_takes_a_redirect_and_asks_for_its_end_on_reload)
{
    struct router router;
    struct peer peer;
    peer_listen(peer);
    router_configure(router, server_at(peer.port));
    struct process keld = router_start(router, "keld", { "-N" });
    meet(peer);
    char name[256] = "";
    gethostname(name, sizeof name);
    peer_expect(peer, std::string("<hostname>") + name + "</hostname><os>TARNE</os><release>" KELD_RELEASE
                          "</release>]]></profile></start>END\r\n");
    peer_frame(peer, "RPY", 0, 1,
               MIME "<profile uri='" NOTIFICATION_URI "' ><![CDATA[<keepalive>45</keepalive>]]></profile>");

    // Every order is answered with an empty reply, one that means nothing as well.
    peer_frame(peer, "MSG", 1, 0, MIME "<redirect><address>192.0.2.1</address><port>4000</port></redirect>");
    peer_expect(peer, "RPY 1 0 . 0 0\r\nEND\r\n");
    peer_frame(peer, "MSG", 1, 1, "?");
    peer_expect(peer, "RPY 1 1 . 0 0\r\nEND\r\n");

    router_configure(router, "");
    kill(keld.pid, SIGHUP);
    peer_expect(peer, "MSG 1 0 . 0 57\r\n" MIME "<close-connection/>END\r\n");
    peer_frame(peer, "RPY", 1, 0, "");
    peer_hang_up(peer);

    // Without servers it stays idle; the first one that comes back is tried at once.
    struct peer next;
    peer_listen(next);
    EXPECT_TRUE(traced(router, "clean up session"));
    router_configure(router, server_at(next.port));
    kill(keld.pid, SIGHUP);
    meet(next);
    EXPECT_EQ(router_stop(router, keld), 0);
    EXPECT_EQ(file_read(router.root + "/var/log/messages"), "");
}

TEST(session, lives_without_its_notification_channel)
{
    struct router router;
    struct peer peer;
    peer_listen(peer);
    router_configure(router, server_at(peer.port));
    router_start(router, "keld", { "-N" });
    meet(peer);
    peer_frame(peer, "ERR", 0, 1, MIME "<error code='550'>not today</error>");
    EXPECT_TRUE(logged(router, "KELD_CHANNEL_START_FAIL: Notification channel could not be started (550): not today"));
    peer_frame(peer, "MSG", 0, 0, MIME "<start number='2'><profile uri='urn:unheard-of' /></start>");
    peer_expect(peer, "ERR 0 0 . ");
    peer_expect(peer, "<error code='521' />END\r\n");
    peer_frame(peer, "MSG", 0, 1, MIME "<close number='0' code='200' />");
    peer_expect(peer, "<ok/>END\r\n");
}
