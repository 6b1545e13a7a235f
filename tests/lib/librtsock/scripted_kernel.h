/*
 * A kernel that does what a test tells it, sinks that keep what the library reports, and memory hooks that count blocks
 * and run out on demand. One of each for the process; LibTest puts them back for every test.
 */
#pragma once

#include "lib/librtsock/rtslib.h"
#include "platform/log/log.h"
#include "platform/rtsock/rtsock.h"

#include <errno.h>
#include <stdlib.h>
#include <stdio.h>
#include <string.h>
#include <unistd.h>

#include <algorithm>
#include <deque>
#include <gtest/gtest.h>
#include <map>
#include <string>
#include <utility>
#include <vector>

using octets = std::vector<uint8_t>;
using lines = std::vector<std::string>;

enum { TAKE_ALL = -2 };

struct script {
    octets versions{ rtslib_versions, rtslib_versions + RTSLIB_TYPES + 1 };
    int refused = -1;                       // this option fails with EPERM
    std::deque<ssize_t> takes;              // results of writes to come; without one everything is taken
    int write_errno = 0;
    std::deque<std::vector<octets>> replies;   // what the writes to come are answered with
    struct rtsock_bulk_status status = {};
    std::vector<octets> written;
    std::map<int, octets> options;          // as set last
    lines sysctls;
    int peer = -1, opened = 0, closed = 0;
    std::pair<int, uint32_t> bound{ -1, 0 };
    int bind_errno = 0;
};
inline script kernel;

inline int refuse(int error)
{
    errno = error;
    return -1;
}

template <typename value_type> value_type pop(std::deque<value_type> *queue, value_type otherwise)
{
    if (queue->empty()) return otherwise;
    value_type first = queue->front();
    return queue->pop_front(), first;
}

inline const rtsock_kernel scripted_kernel = {
    "script",
    [](int peer, void **) { return kernel.peer = peer, kernel.opened++, 0; },
    [](void *) { kernel.closed++; },
    [](void *, const void *data, size_t length) -> ssize_t {
        const auto *from = static_cast<const uint8_t *>(data);
        kernel.written.emplace_back(from, from + length);
        for (const octets &reply : pop(&kernel.replies, {}))
            EXPECT_EQ(send(kernel.peer, reply.data(), reply.size(), 0), ssize_t(reply.size()));
        ssize_t count = pop(&kernel.takes, ssize_t(TAKE_ALL));
        errno = kernel.write_errno;
        return count == TAKE_ALL ? ssize_t(length) : count;
    },
    [](void *, int option, void *value, socklen_t *length) {
        if (option == kernel.refused) return refuse(EPERM);
        if (option == RTSOCK_BULK_STATUS) return memcpy(value, &kernel.status, sizeof kernel.status), 0;
        *length = std::min(*length, socklen_t(kernel.versions.size()));
        memcpy(value, kernel.versions.data(), *length);
        return 0;
    },
    [](void *, int option, const void *value, socklen_t length) {
        if (option == kernel.refused) return refuse(EPERM);
        const auto *from = static_cast<const uint8_t *>(value);
        kernel.options[option] = { from, from + length };
        return 0;
    },
    [](const int *, unsigned, void *, size_t *) { return refuse(ENOENT); },
    [](const char *name, void *, size_t *, const void *set, size_t length) {
        uint32_t words[3] = {};
        memcpy(words, set, std::min(length, sizeof words));
        kernel.sysctls.push_back(name + std::string(words[0] == uint32_t(getpid()) ? " own " : " other ") +
                                 std::to_string(int(words[1])) + " " + std::to_string(words[2]));
        return refuse(ENOENT);
    },
    [](int fd, uint32_t table) {
        kernel.bound = { fd, table };
        return kernel.bind_errno != 0 ? refuse(kernel.bind_errno) : 0;
    },
    [](int, uint32_t) { return 0; },
    nullptr,
    nullptr,
};

/* "SEVERITY TEXT" as a cookie's sink got it, "PRIORITY TEXT" as the system log did. */
inline lines reports, logged;

inline void sink(rtslib_cookie *, uintptr_t context, int severity, const char *text)
{
    EXPECT_EQ(context, 7U);
    EXPECT_EQ(strncmp(text, "rtslib: ", 8), 0);
    reports.push_back(std::to_string(severity) + " " + (text + 8));
    errno = EXDEV;   // which must not be seen behind a report
}

/* Blocks by memory id, and how many more the hooks give. */
inline std::map<uint16_t, int> blocks;
inline int allowance;
inline rtslib_cookie last_cookie;   // as it was when it was freed

inline bool take(uint16_t id)
{
    if (allowance-- > 0) return blocks[id]++, true;
    return allowance = 0, errno = ENOMEM, false;
}

inline void give(uint16_t id, void *block)
{
    if (block == nullptr) return;
    if (id == MEMID_RTSLIB_COOKIE) last_cookie = *static_cast<rtslib_cookie *>(block);
    if (--blocks[id] == 0) blocks.erase(id);
    free(block);
}

class LibTest : public testing::Test {
protected:
    LibTest()
    {
        kernel = {};
        reports = logged = {};
        blocks = {};
        allowance = 1000;
        rtsock_set_kernel(&scripted_kernel);
        logging_register_logfunc([](int level, const char *, const char *const *, const char *format, va_list args) {
            logged.push_back(std::to_string(level) + " " + va_arg(args, const char *) + (format + strlen("%s")));
        });
        rtslib_malloc = [](uint16_t id, size_t size) { return take(id) ? malloc(size) : nullptr; };
        rtslib_calloc = [](uint16_t id, size_t n, size_t size) { return take(id) ? calloc(n, size) : nullptr; };
        rtslib_realloc = [](uint16_t id, void *old, size_t size) -> void * {
            if (!take(id)) return nullptr;
            blocks[id] -= old != nullptr ? 1 : 0;
            return realloc(old, size);
        };
        rtslib_free = give;
    }
    ~LibTest() override
    {
        EXPECT_TRUE(blocks.empty()) << blocks.begin()->first;
        EXPECT_EQ(kernel.opened, kernel.closed);
    }

    rtslib_cookie *open()
    {
        rtslib_cookie *cookie = rtslib_cookie_create();
        if (cookie == nullptr) return nullptr;
        rtslib_lib_error_register(cookie, 7, sink);
        return rtslib_set_defaults(cookie, 3);
    }
    /* What was reported since the last call. */
    static lines take_reports() { return std::exchange(reports, {}); }
};

/* A raw message that says it is of that length. */
inline octets raw(size_t size, uint32_t length, uint32_t seq = 1)
{
    octets message(std::max<size_t>(size, RTSLIB_HDR_SIZE));
    memcpy(&message[8], &length, sizeof length);
    memcpy(&message[12], &seq, sizeof seq);
    message.resize(size);
    return message;
}

/* Any message as IDR or, with every field present, as TLV. */
inline octets wire(void *record, uint32_t type, bool tlv = false)
{
    rts_msg message = { type, record };
    octets out(1 << 20);
    int32_t length = tlv ? tlv_encode_rts_msg_0(&message, nullptr, out.data(), out.size())
                         : idr_encode_rts_msg_0(&message, out.data(), out.size());
    out.resize(size_t(length));
    return out;
}

/* A routing table as the kernel tells of it. */
inline octets table_reply(uint16_t tid, uint16_t tenant = 0, bool tlv = false)
{
    rtb_msg table = {};
    table.rts_hdr.rtsh_type = 1;
    table.tid = tid;
    table.tenant = tenant;
    return wire(&table, 1, tlv);
}
