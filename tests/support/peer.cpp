/*
 * Peer: sockets and waits; peer.h tells what for. All reads are bounded by poll with a limit.
 */
#include "tests/support/peer.h"
#include "tests/support/router.h"

#include <arpa/inet.h>
#include <gtest/gtest.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

enum { MS_PER_S = 1000 };

static struct sockaddr_in local_address(uint16_t port)
{
    struct sockaddr_in address = {};
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    address.sin_port = htons(port);
    return address;
}

static bool readable(int fd)
{
    struct pollfd entry = { fd, POLLIN, 0 };
    return poll(&entry, 1, int{ LIMIT_S } * MS_PER_S) == 1;
}

peer::~peer()
{
    peer_hang_up(*this);
    if (listen_fd >= 0) close(listen_fd);
}

void peer_listen(struct peer &peer, uint32_t at)
{
    struct sockaddr_in address = local_address(0);
    address.sin_addr.s_addr = htonl(at);
    socklen_t size = sizeof address;
    struct sockaddr *generic = reinterpret_cast<struct sockaddr *>(&address);
    peer.listen_fd = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    ASSERT_EQ(bind(peer.listen_fd, generic, sizeof address), 0);
    ASSERT_EQ(listen(peer.listen_fd, 1), 0);
    ASSERT_EQ(getsockname(peer.listen_fd, generic, &size), 0);
    peer.port = ntohs(address.sin_port);
}

bool peer_accept(struct peer &peer)
{
    if (!readable(peer.listen_fd)) return false;
    peer.fd = accept4(peer.listen_fd, nullptr, nullptr, SOCK_CLOEXEC);
    return peer.fd >= 0;
}

bool peer_connect(struct peer &peer, const std::string &port)
{
    struct sockaddr_in address = local_address(static_cast<uint16_t>(std::stoi(port)));
    peer.fd = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    return connect(peer.fd, reinterpret_cast<struct sockaddr *>(&address), sizeof address) == 0;
}

/* Octets read, 0 at the end of the stream, -1 if nothing came within the limit. */
static ssize_t read_more(struct peer &peer)
{
    char octets[4096];
    if (!readable(peer.fd)) return -1;
    ssize_t count = read(peer.fd, octets, sizeof octets);
    if (count > 0) peer.received.append(octets, static_cast<size_t>(count));
    return count;
}

bool peer_expect(struct peer &peer, const std::string &text)
{
    for (;;) {
        size_t at = peer.received.find(text, peer.consumed);
        if (at != std::string::npos) {
            peer.consumed = at + text.size();
            return true;
        }
        if (read_more(peer) <= 0) {
            ADD_FAILURE() << "expected \"" << text << "\", got \"" << peer.received.substr(peer.consumed) << "\"";
            return false;
        }
    }
}

bool peer_expect_end(struct peer &peer)
{
    for (;;) {
        ssize_t count = read_more(peer);
        if (count <= 0) return count == 0;
    }
}

void peer_send(struct peer &peer, const std::string &octets)
{
    EXPECT_EQ(send(peer.fd, octets.data(), octets.size(), MSG_NOSIGNAL), static_cast<ssize_t>(octets.size()));
}

void peer_frame(struct peer &peer, const std::string &type, unsigned channel, unsigned msgno,
                const std::string &payload)
{
    uint32_t &seqno = peer.seqno[channel];
    peer_send(peer, type + " " + std::to_string(channel) + " " + std::to_string(msgno) + " . " + std::to_string(seqno) +
                        " " + std::to_string(payload.size()) + "\r\n" + payload + "END\r\n");
    seqno += static_cast<uint32_t>(payload.size());
}

void peer_hang_up(struct peer &peer)
{
    if (peer.fd >= 0) close(peer.fd);
    peer.fd = -1;
}
