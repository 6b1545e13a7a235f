/*
 * Peer: the other end of a TCP connection, word for word, for tests that say what goes over the wire.
 *
 * It listens as a server or connects as a client, sends frames and waits for octets. It keeps no rules: what a test
 * does not send is not sent.
 */
#pragma once

#include <map>
#include <stdint.h>
#include <string>

struct peer {
    ~peer();
    int listen_fd = -1;
    int fd = -1;
    uint16_t port = 0;                    // that it listens on
    std::string received;                 // all octets so far
    size_t consumed = 0;                  // of these, up to the end of what was last expected
    std::map<unsigned, uint32_t> seqno;   // next sequence number of each channel
};

/* address: in host order, where it listens. */
void peer_listen(struct peer &peer, uint32_t address = 0x7f000001);
bool peer_accept(struct peer &peer);
bool peer_connect(struct peer &peer, const std::string &port);

/* Waits for text behind what was expected before; what lies between is passed over. A failure is reported with what
 * came. */
bool peer_expect(struct peer &peer, const std::string &text);
/* Waits for the end of the stream. */
bool peer_expect_end(struct peer &peer);
void peer_send(struct peer &peer, const std::string &octets);
/* Sends one whole frame, payload and trailer included: peer_frame(p, "RPY", 0, 0, "<greeting/>"). */
void peer_frame(struct peer &peer, const std::string &type, unsigned channel, unsigned msgno,
                const std::string &payload);
void peer_hang_up(struct peer &peer);
