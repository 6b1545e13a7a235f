/*
 * The connection: what opening does with the kernel's version table, with refusals and without memory, and what is left
 * behind then; the sizes of buffers; sequence numbers.
 */
#include "tests/lib/librtsock/scripted_kernel.h"

#include <fcntl.h>

#define UPGRADE ",a reboot or software upgrade may be required\n"
#define BUFFERS "3 ERROR rtslib_set_"

class CookieTest : public LibTest {
protected:
    /* A failed connect leaves the read buffer and, if it came so far, the socket. */
    static void expect_leak(bool with_socket)
    {
        EXPECT_EQ(blocks, (std::map<uint16_t, int>{ { MEMID_RTSLIB_READ_BUFFER, 1 } }));
        rtslib_free(MEMID_RTSLIB_READ_BUFFER, last_cookie.read_buffer);
        EXPECT_EQ(last_cookie.socket >= 0, with_socket);
        if (with_socket) { EXPECT_EQ(rtsock_close(last_cookie.socket), 0); }
    }
};

TEST_F(CookieTest, OpenSetsTheConnectionUp)
{
    rtslib_cookie *cookie = open();
    EXPECT_TRUE(take_reports().empty());
    EXPECT_EQ(fcntl(cookie->socket, F_GETFL) & O_NONBLOCK, O_NONBLOCK);
    EXPECT_EQ(fcntl(cookie->socket, F_GETFD), FD_CLOEXEC);
    EXPECT_EQ(kernel.options[RTSOCK_SENDER_ID], octets{ 3 });
    EXPECT_EQ(memcmp(cookie->version_info, kernel.versions.data(), kernel.versions.size()), 0);
    EXPECT_EQ(cookie->seq, 1U);
    ASSERT_EQ(rtslib_set_sync_mode(cookie, RTS_SYNC_BULK_ENABLE), 0);
    EXPECT_EQ(cookie->wbuf_sz, 0x80000U);
    EXPECT_EQ(cookie->rbuf_sz, 0x80000U);
    rtslib_close(cookie);
    rtslib_close(nullptr);
    rtslib_cookie_destroy(nullptr);
    EXPECT_EQ(rtslib_set_sender_id(nullptr, 3), 22);
}

TEST_F(CookieTest, VersionTableAndRefusals)
{
    const struct {
        void (*prepare)(void);
        lines reports;
        bool opens;
        int error;
    } rows[] = {
        { [] { kernel.versions[1] = 97; }, { "4 FATAL ERROR interface version mismatch: kernel=97 library=98" UPGRADE },
          false, ECONNREFUSED },
        { [] { kernel.versions[0] = 111; kernel.versions.resize(131); },
          { "2 WARNING kernel has new unknown messages: expected 110 got 111" UPGRADE }, true, 0 },
        { [] { kernel.versions[0] = 100; kernel.versions[110] = 5; },
          { "3 ERROR kernel does not support all messages: expected 110 got 100" UPGRADE,
            "2 WARNING version mismatch for msg rts-err (109): expected 0 got 5" UPGRADE }, true, 0 },
        { [] { kernel.versions[3] = 103; kernel.versions[2] = 97; },
          { "2 WARNING version mismatch for msg rttable (1): expected 98 got 97" UPGRADE,
            "2 WARNING version mismatch for msg route (2): expected 104 got 103" UPGRADE }, true, 0 },
        { [] { kernel.refused = RTSOCK_VERSIONS; },
          { "4 FATAL ERROR version sockopt failed: Operation not permitted" }, false, EPERM },
        { [] { kernel.refused = RTSOCK_SENDER_ID; },
          { "2 WARNING setsockopt(ROUTE_SENDER_ID) failed, Operation not permitted" }, true, 0 },
        { [] { rtsock_set_kernel(nullptr); },
          { "3 ERROR rtslib_connect(): Failed to open a new routing socket with errno 19\n" }, false, ENODEV },
    };
    for (const auto &row : rows) {
        kernel = {};
        rtsock_set_kernel(&scripted_kernel);
        row.prepare();
        rtslib_cookie *cookie = open();
        int error = errno;
        EXPECT_EQ(take_reports(), row.reports);
        EXPECT_EQ(cookie != nullptr, row.opens) << row.reports[0];
        rtslib_close(cookie);
        if (row.opens) continue;
        EXPECT_EQ(error, row.error) << row.reports[0];
        expect_leak(kernel.opened != 0);
    }
    rtsock_set_kernel(&scripted_kernel);
    kernel.versions[1] = 97;
    EXPECT_EXIT((void)rtslib_open(3), testing::ExitedWithCode(1), "FATAL ERROR interface version mismatch: kernel=97");
}

TEST_F(CookieTest, OpenWithoutMemory)
{
    for (int allowed = 0; allowed < 3; allowed++) {
        allowance = allowed;
        EXPECT_EQ(open(), nullptr);
        EXPECT_EQ(errno, ENOMEM);
        if (allowed == 2) expect_leak(true);
        EXPECT_TRUE(blocks.empty());
    }
    EXPECT_EQ(logged, (lines{ "3 rtslib: ERROR Failed to allocate memory for rtslib_cookie\n\n",
                              "3 rtslib: ERROR Failed to allocate memory for rtslib cookie read_buffer\n\n" }));
    EXPECT_EQ(take_reports(), lines{ "2 WARNING Malloc failure for version_info" });
}

TEST_F(CookieTest, SetBuffers)
{
    rtslib_cookie *cookie = open();
    EXPECT_EQ(rtslib_set_buffers(nullptr, 1, 1), 22);
    EXPECT_EQ(rtslib_set_buffers(cookie, 0, 1), 22);
    EXPECT_EQ(rtslib_set_buffers(cookie, 1, -1), 22);
    EXPECT_EQ(take_reports(), (lines{ "3 ERROR Attempted to set an invalid send buffer size 0\n",
                                      "3 ERROR Attempted  to set an invalid receive buffer size -1\n" }));
    EXPECT_EQ(rtslib_set_buffers(cookie, 4096, 4096), 0);
    EXPECT_EQ(cookie->rbuf_data, nullptr);
    ASSERT_EQ(rtslib_set_sync_mode(cookie, RTS_SYNC_BULK_ENABLE), 0);
    EXPECT_EQ(cookie->rbuf_sz, 4096U);
    EXPECT_EQ(rtslib_set_buffers(cookie, 100, 9000), 0);
    EXPECT_EQ(cookie->rbuf_sz, 9000U);
    EXPECT_EQ(cookie->wbuf_sz, 4096U);
    allowance = 0;
    EXPECT_EQ(rtslib_set_buffers(cookie, 100, 9001), 12);
    EXPECT_EQ(rtslib_set_bulk_buffer(cookie, 9001), 12);
    EXPECT_EQ(take_reports(), (lines{ BUFFERS "buffers: Failed to re-allocate rbuf Cannot allocate memory",
                                      BUFFERS "bulk_buffer: Failed to re-allocate wbuf Cannot allocate memory" }));
    EXPECT_EQ(cookie->rbuf_sz, 9000U);
    int fd = std::exchange(cookie->socket, 0);
    EXPECT_EQ(rtslib_set_buffers(cookie, 1, 1), 9);
    cookie->socket = fd;
    EXPECT_TRUE(take_reports().empty());
    rtslib_close(cookie);
}

TEST_F(CookieTest, SequenceNumbers)
{
    static uint64_t mismatch;
    rtslib_cookie *cookie = open();
    uint32_t next;
    EXPECT_EQ(rtslib_seq_get_next(cookie, &next), 0);
    EXPECT_EQ(next, 2U);
    EXPECT_EQ(rtslib_seq_get_next(nullptr, &next), 22);
    EXPECT_EQ(rtslib_seq_get_next(cookie, nullptr), 22);
    const struct {
        bool async, stats, enveloped;
        uint32_t received;
        int result;
        uint32_t seq;   // then; 2 before
        lines reports;
    } rows[] = {
        { false, false, false, 2, 0, 2, {} },
        { false, false, true, 9, 0, 2, {} },
        { false, true, false, 0, -2, 2, { "4 FATAL ERROR request/reply seq mismatch: (2 != 0)\n" } },
        { true, false, false, 2, 0, 3, {} },
        { true, true, false, 0, 0, 2, {} },
        { true, true, false, 7, -2, 8, { "3 ERROR async message seq mismatch: (2 != 7)\n" } },
        { true, false, true, 9, 0, 2, {} },
    };
    for (const auto &row : rows) {
        octets message = row.enveloped ? table_reply(1) : raw(24, 24, row.received);
        cookie->seq = 2;
        cookie->async_info = row.async ? reinterpret_cast<rtslib_async_info *>(&next) : nullptr;
        rtslib_set_used_by_stats(cookie, row.stats);
        EXPECT_EQ(rtslib_check_read_seq(cookie, message.data()), row.result);
        EXPECT_EQ(cookie->seq, row.seq);
        EXPECT_EQ(take_reports(), row.reports);
    }
    cookie->async_info = nullptr;
    EXPECT_EQ(rtslib_seq_error_register(nullptr, 0, nullptr), 22);
    auto remember = [](rtslib_cookie *, uintptr_t context, uint32_t expected, uint32_t received) {
        mismatch = context * 100 + expected * 10 + received;
    };
    EXPECT_EQ(rtslib_seq_error_register(cookie, 5, remember), 0);
    EXPECT_EQ(rtslib_check_read_seq(cookie, raw(24, 24, 6).data()), -2);
    EXPECT_EQ(mismatch, 526U);
    EXPECT_TRUE(reports.empty());
    rtslib_close(cookie);
}
