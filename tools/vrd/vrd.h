/*
 * vrd: a small management daemon. Clients connect to a Unix socket, log in, greet, and call; each call gets one reply.
 */
#pragma once

#include "platform/ev/ev.h"
#include "tools/vrd/call_reader.h"

#include <deque>
#include <set>
#include <string>

struct client {
    int fd = -1;                  // owned
    unsigned number = 0;          // for people
    evFileID read_id = nullptr;   // null while a reply is on its way: one call at a time is worked on
    evFileID write_id = nullptr;
    evTimerID quiet_id = nullptr; // runs while part of a call is there
    enum { LOGIN, DECLARATION, HELLO, CALLS } phase = LOGIN;
    std::string line;             // of the phases before CALLS
    std::string user = "?";
    struct call_reader reader;
    std::deque<struct call> calls;   // read, and not answered
    std::string output;           // of the reply being written
    size_t written = 0;           // of output
};

struct vrd {
    evContext ev = nullptr;
    std::set<struct client *> clients;
    unsigned next_number = 1;
};
extern struct vrd vrd;

enum { CLIENTS_MAX = 256 };

/* A line on standard output, "HH:MM:SS #NUMBER TEXT"; client may be null. */
[[gnu::format(printf, 2, 3)]] void say(const struct client *client, const char *format, ...);
/* text with what is not printable ASCII as '?', cut to 100 octets. */
std::string printable(const std::string &text);

/* Takes fd, and serves who is there until it hangs up. */
void client_accept(int fd);
void client_free(struct client *client);

/* The whole reply to the call. *name is what was called, or "?". */
std::string call_answer(const struct call &call, std::string *name);
