/*
 * Questions to the host's kernel over netlink.
 *
 * A question carries a number, and what comes back under another one is passed over. A question that is given up ends
 * the socket, and the next one makes a new one. Answers go to the asker as they come, so a table of any size needs one buffer. An answer that
 * the asker refuses is remembered, and the rest of what was asked for still read, so that the socket is clean.
 *
 * The kernel answers in the call that asks, or at the next read; there is nothing to wait for, but a limit stands all
 * the same, so that a client never hangs here.
 */
#include "platform/rtsock/linux/nl.h"

#include "platform/process/process.h"
#include "platform/target.h"

#include <errno.h>
#include <stdlib.h>
#include <string.h>
#include <sys/socket.h>
#include <sys/time.h>
#include <unistd.h>

namespace {

enum {
    DUMP_TRIES = 3,
    ANSWER_LIMIT_S = 5,
    SAME_NUMBERS = 34,   // errors up to here are the same on host and target, with few exceptions
};

/* How far a question has got. */
struct exchange {
    uint32_t seq;
    nl_take_func take;
    void *context;
    int error;          // the first that occurred
    bool done;          // the kernel has said its last word
    bool interrupted;   // what was asked for changed meanwhile
};

void set_options(int fd)
{
    const int on = 1;
    const struct timeval limit = { ANSWER_LIMIT_S, 0 };
    // Older kernels lack the first two: they then hand out more than was asked for, and readers look for themselves.
    (void)setsockopt(fd, SOL_NETLINK, NETLINK_GET_STRICT_CHK, &on, sizeof on);
    (void)setsockopt(fd, SOL_NETLINK, NETLINK_CAP_ACK, &on, sizeof on);
    (void)setsockopt(fd, SOL_SOCKET, SO_RCVTIMEO, &limit, sizeof limit);
}

void keep_error(struct exchange *exchange, int error)
{
    if (exchange->error == 0)
        exchange->error = error;
}

/* The kernel's word on how it went: an error or an acknowledgement, or the end of a dump. Both begin with a number. */
void finish(struct exchange *exchange, const struct nlmsghdr *message)
{
    exchange->done = true;
    const void *fixed = nl_fixed(message, sizeof(int32_t));
    int32_t negative = 0;
    if (fixed != nullptr)
        memcpy(&negative, fixed, sizeof negative);
    if (negative < 0)
        keep_error(exchange, nl_error(-negative));
}

int take_answer(const struct nlmsghdr *message, void *context)
{
    auto *exchange = static_cast<struct exchange *>(context);
    if (message->nlmsg_seq != exchange->seq)
        return 0;
    if ((message->nlmsg_flags & NLM_F_DUMP_INTR) != 0)
        exchange->interrupted = true;
    if (message->nlmsg_type == NLMSG_ERROR || message->nlmsg_type == NLMSG_DONE)
        finish(exchange, message);
    else if (message->nlmsg_type >= NLMSG_MIN_TYPE && exchange->take != nullptr && exchange->error == 0)
        exchange->error = exchange->take(message, exchange->context);
    return 0;
}

int send_request(struct nl *nl, struct nl_request *request)
{
    auto *header = reinterpret_cast<struct nlmsghdr *>(request->octets);
    header->nlmsg_len = uint32_t(request->length);
    header->nlmsg_seq = ++nl->seq;
    ssize_t sent;
    do
        sent = send(nl->fd, request->octets, request->length, 0);
    while (sent < 0 && errno == EINTR);
    return sent < 0 ? nl_error(errno) : 0;
}

/* One datagram of answers. */
int receive(struct nl *nl, struct exchange *exchange)
{
    ssize_t count;
    do
        count = recv(nl->fd, nl->buffer, NL_BUFFER_SIZE, 0);
    while (count < 0 && errno == EINTR);
    if (count < 0)
        return nl_error(errno == EAGAIN ? ETIMEDOUT : errno);
    return nl_messages(nl->buffer, size_t(count), take_answer, exchange);
}

int converse(struct nl *nl, struct nl_request *request, struct exchange *exchange)
{
    int error = request->length > NL_REQUEST_MAX ? int(TARGET_EMSGSIZE) : nl_open(nl);
    if (error == 0)
        error = send_request(nl, request);
    exchange->seq = nl->seq;
    while (error == 0 && !exchange->done)
        error = receive(nl, exchange);
    // A socket on which a dump was given up takes no other; the next question makes a new one.
    if (error != 0 && !exchange->done)
        nl_close(nl);
    return error != 0 ? error : exchange->error;
}

}   // namespace

int nl_error(int host)
{
    static constexpr int absent[] = { ESRCH, ENODEV, ENXIO, ENODATA };
    for (int one : absent) {
        if (host == one)
            return TARGET_ENOENT;
    }
    int target = target_errno_from_host(host);
    // A number of the host's own must not be taken for the target's error of that number.
    return target == host && host > SAME_NUMBERS ? int(TARGET_EIO) : target;
}

int nl_open(struct nl *nl)
{
    if (nl->buffer != nullptr)
        return 0;
    int fd = platform_lift_fd(socket(AF_NETLINK, SOCK_RAW | SOCK_CLOEXEC, NETLINK_ROUTE));
    if (fd < 0)
        return nl_error(errno);
    nl->buffer = static_cast<uint8_t *>(malloc(NL_BUFFER_SIZE));
    if (nl->buffer == nullptr) {
        close(fd);
        return TARGET_ENOMEM;
    }
    nl->fd = fd;
    set_options(fd);
    // Until something was received, dumps come in small pieces, and one that does not fit ends the dump.
    struct nl_request hello;
    nl_begin(&hello, NLMSG_NOOP, 0, "", 0);
    return nl_ask(nl, &hello, nullptr, nullptr);
}

void nl_close(struct nl *nl)
{
    if (nl->buffer == nullptr)
        return;
    close(nl->fd);
    free(nl->buffer);
    nl->buffer = nullptr;
}

void nl_begin(struct nl_request *request, uint16_t type, uint16_t flags, const void *fixed, size_t length)
{
    auto *header = reinterpret_cast<struct nlmsghdr *>(request->octets);
    *header = {};
    header->nlmsg_type = type;
    header->nlmsg_flags = flags | NLM_F_REQUEST;
    memset(request->octets + NLMSG_HDRLEN, 0, NLMSG_ALIGN(length));
    memcpy(request->octets + NLMSG_HDRLEN, fixed, length);
    request->length = NLMSG_HDRLEN + NLMSG_ALIGN(length);
}

void nl_put(struct nl_request *request, uint16_t attr, const void *octets, size_t length)
{
    size_t needed = NLA_HDRLEN + NLA_ALIGN(length);
    if (request->length > NL_REQUEST_MAX || needed > NL_REQUEST_MAX - request->length) {
        request->length = NL_REQUEST_MAX + 1;
        return;
    }
    uint8_t *at = request->octets + request->length;
    const struct nlattr head = { uint16_t(NLA_HDRLEN + length), attr };
    memset(at, 0, needed);
    memcpy(at, &head, sizeof head);
    if (length != 0)
        memcpy(at + NLA_HDRLEN, octets, length);
    request->length += needed;
}

void nl_put_u32(struct nl_request *request, uint16_t attr, uint32_t value)
{
    nl_put(request, attr, &value, sizeof value);
}

size_t nl_nest_begin(struct nl_request *request, uint16_t attr)
{
    size_t nest = request->length;
    nl_put(request, attr | NLA_F_NESTED, nullptr, 0);
    return nest;
}

void nl_nest_end(struct nl_request *request, size_t nest)
{
    if (request->length > NL_REQUEST_MAX)
        return;
    auto length = uint16_t(request->length - nest);
    memcpy(request->octets + nest, &length, sizeof length);
}

int nl_ask(struct nl *nl, struct nl_request *request, nl_take_func take, void *context)
{
    reinterpret_cast<struct nlmsghdr *>(request->octets)->nlmsg_flags |= NLM_F_ACK;
    struct exchange exchange = { 0, take, context, 0, false, false };
    return converse(nl, request, &exchange);
}

int nl_dump(struct nl *nl, struct nl_request *request, const struct nl_sink *sink)
{
    reinterpret_cast<struct nlmsghdr *>(request->octets)->nlmsg_flags |= NLM_F_DUMP;
    for (int tries = 1;; tries++) {
        struct exchange exchange = { 0, sink->take, sink->context, 0, false, false };
        if (sink->restart != nullptr)
            sink->restart(sink->context);
        int error = converse(nl, request, &exchange);
        if (error != 0 || !exchange.interrupted || tries == DUMP_TRIES)
            return error;
    }
}
