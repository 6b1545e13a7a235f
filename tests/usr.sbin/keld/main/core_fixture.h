/*
 * A daemon core in the test's own process: the real loop, engine and configuration reader under a scratch root, with a
 * clock that only the test moves and calls that can be made to fail. The server is a struct peer in the same thread:
 * nothing waits for it, turns() runs the loop until it has no more to do.
 */
#pragma once

#include "tests/support/peer.h"
#include "usr.sbin/keld/main/keld.h"

#include <gtest/gtest.h>
#include <string>

/* Calls that fail while their bit is set in failing, with ENOMEM; SSL_connect gives 0. */
enum {
    FAIL_SOCKET = 1, FAIL_BIND = 2, FAIL_CONNECT = 4, FAIL_KEEPALIVE_TIMER = 8, FAIL_SESSION = 16, FAIL_HANDSHAKE = 32
};
extern int failing;

class core : public testing::Test {
protected:
    void SetUp() override;
    void TearDown() override;
    void restart();   // between the rows of a table

    /* Commits a stanza with the servers, "ADDRESS { ... } ..."; with none, a stanza without. PORT stands for the
     * peer's. */
    void configure(std::string servers, const std::string &more = "");
    /* Configures, reads and arms the first attempt, as start-up does; runs it. */
    void start(const std::string &servers, const std::string &more = "");
    void reload();

    void turns();
    /* Lets the time pass, a second at a time, and runs what falls due. */
    void pass(int seconds);
    /* Has the peer accept and greet, and confirm the channel with the piggyback text. */
    void greet();
    void confirm(const char *piggyback);
    void answer(const char *type, unsigned channel, unsigned msgno, const std::string &payload);
    /* How often the peer has received text so far. */
    size_t heard(const std::string &text);
    /* How many lines "SEVERITY TEXT" with text were logged. */
    size_t logged(const std::string &text) const;

    std::string root;
    struct peer server;   // listens on PORT of 127.0.0.1
};
