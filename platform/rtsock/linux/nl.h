/*
 * Netlink: questions to the host's kernel, and bounded reading of what it says. Internal to the Linux kernel.
 *
 * Results are 0 or the target's error numbers, unless told otherwise. What is not there (ESRCH, ENODEV, ENODATA, ...)
 * is TARGET_ENOENT, whatever the host calls it.
 */
#pragma once

#include <linux/netlink.h>

#include <stddef.h>
#include <stdint.h>

extern "C" {

enum {
    NL_BUFFER_SIZE = 65536,     // of what is received; no datagram of rtnetlink is larger
    NL_REQUEST_MAX = 16384,     // octets of a request
};

/* A socket for questions. Zeroed, it is closed; the first question opens it. */
struct nl {
    uint8_t *buffer;   // NL_BUFFER_SIZE octets; null while it is closed
    int fd;
    uint32_t seq;      // of the question asked last
};

/* A request in the making. Sits on the caller's stack. */
struct nl_request {
    size_t length;   // so far; beyond NL_REQUEST_MAX it did not fit, and asking gives EMSGSIZE
    alignas(struct nlmsghdr) uint8_t octets[NL_REQUEST_MAX];
};

/* An attribute of a message; octets is null if it was absent. */
struct nl_attr {
    const uint8_t *octets;
    size_t length;
};

/* Takes one message, which lasts as long as the call. 0, or an error that ends what is asked and becomes its result. */
typedef int (*nl_take_func)(const struct nlmsghdr *message, void *context);
/* A question that has many answers may have to be asked again; restart forgets what came so far. It is called before
 * the first time too. */
struct nl_sink {
    nl_take_func take;
    void (*restart)(void *context);   // may be null
    void *context;
};

void nl_close(struct nl *nl);
/* Opens it now. Opening happens with the first question anyway. */
[[nodiscard]] int nl_open(struct nl *nl);

/* Begins a request: type and flags of the message, and the fixed part that its type has. */
void nl_begin(struct nl_request *request, uint16_t type, uint16_t flags, const void *fixed, size_t length);
void nl_put(struct nl_request *request, uint16_t attr, const void *octets, size_t length);
void nl_put_u32(struct nl_request *request, uint16_t attr, uint32_t value);
/* Attributes put between the two are inside attr. nest is what nl_nest_begin gave. */
size_t nl_nest_begin(struct nl_request *request, uint16_t attr);
void nl_nest_end(struct nl_request *request, size_t nest);

/* Asks and waits: answers go to take, which may be null; the kernel's error or its acknowledgement ends it. */
[[nodiscard]] int nl_ask(struct nl *nl, struct nl_request *request, nl_take_func take, void *context);
/* Asks for all there are. If they changed meanwhile it starts over, a few times; then what came last stands. */
[[nodiscard]] int nl_dump(struct nl *nl, struct nl_request *request, const struct nl_sink *sink);

/* Hands the messages of a datagram to take, until one is broken or take's result is not 0, which is the result. */
int nl_messages(const uint8_t *octets, size_t length, nl_take_func take, void *context);
/* The fixed part of a message, or null if it is shorter. */
const void *nl_fixed(const struct nlmsghdr *message, size_t length);
/* Attributes by number, count of them, behind a fixed part of so many octets; a number above is passed over, of two
 * with the same number the last one counts, and a broken one ends it. */
void nl_attrs(const struct nlmsghdr *message, size_t fixed, struct nl_attr *attrs, size_t count);
/* The same for what is inside an attribute. */
void nl_nested(struct nl_attr outer, struct nl_attr *attrs, size_t count);
/* Takes the next attribute off the front of rest. False at the end, or where the rest is broken. */
bool nl_next_attr(struct nl_attr *rest, uint16_t *number, struct nl_attr *attr);

/* The value, or otherwise if the attribute is absent or too short. */
uint32_t nl_u32(struct nl_attr attr, uint32_t otherwise);
/* Copies up to size octets, the rest zero. Octets copied. */
size_t nl_copy(struct nl_attr attr, void *to, size_t size);
/* A text, cut to size with its terminator. Its length. */
size_t nl_text(struct nl_attr attr, char *to, size_t size);

/* The target's number for an error of netlink, given as the host's. */
int nl_error(int host);

}   // extern "C"
