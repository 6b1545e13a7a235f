/*
 * Bulk mode: how it is entered, what a batch holds, where the kernel's stops and short answers end up, and the one case
 * that never ends.
 */
#include "tests/lib/librtsock/scripted_kernel.h"

#include "lib/librtsock/bulk.h"

#include <setjmp.h>

#define SELF "3 ERROR rtslib_set_sync_mode: "
#define READ "rtslib_read_and_decode_bulk_iov: "

class BulkTest : public LibTest {
protected:
    ~BulkTest() override { rtslib_close(cookie); }
    rtslib_cookie *cookie = open();

    /* asks: a letter for each entry, 'a' for one that wants a reply. */
    void make(const std::string &asks)
    {
        messages.assign(asks.size(), {});
        entries.assign(asks.size(), {});
        for (size_t i = 0; i < asks.size(); i++) {
            messages[i].rts_hdr.rtsh_type = 1;
            messages[i].tid = uint16_t(i);
            entries[i].msg = &messages[i];
            entries[i].reply = asks[i] == 'a' ? static_cast<void *>(&entries[i].reply) : nullptr;
        }
    }
    /* What became of each: rTID, wERROR, eERROR, "-" for nothing. Releases the replies. */
    std::string outcome()
    {
        std::string out;
        for (rtslib_iov &e : entries) {
            std::string one;
            if (e.reply != nullptr && !rtslib_iov_asks(&e)) {
                one = "r" + std::to_string(static_cast<rtb_msg *>(e.reply)->tid);
                rtslib_msg_idl_release(cookie, e.reply);
            }
            if (e.write_err != 0) one += "w" + std::to_string(e.write_err);
            if (e.read_err != 0) one += "e" + std::to_string(e.read_err);
            out += (out.empty() ? "" : " ") + (one.empty() ? "-" : one);
        }
        return out;
    }
    std::vector<rtb_msg> messages;
    std::vector<rtslib_iov> entries;
};

static const ssize_t one_message = ssize_t(table_reply(0).size());

/* One datagram with the replies of these tables. */
static octets pack(const std::vector<uint16_t> &tids)
{
    octets out;
    for (uint16_t tid : tids) {
        octets reply = table_reply(tid);
        out.insert(out.end(), reply.begin(), reply.end());
    }
    return out;
}

TEST_F(BulkTest, Outcomes)
{
    const octets broken = [] { octets o = table_reply(0); o[4] -= 4; return o; }();
    const octets beyond = [] { octets o = table_reply(0); o[4] += 4; return o; }();
    const octets short_one(20);
    const struct {
        const char *asks;
        uint32_t room;                     // of wbuf, in messages; 0: as it is
        std::deque<ssize_t> takes;
        int write_errno;
        rtsock_bulk_status status;
        std::deque<std::vector<octets>> replies;
        size_t writes;
        const char *outcome;
        lines reports;                     // how they begin
    } rows[] = {
        { "aaaaa", 0, {}, 0, {}, { { pack({ 10, 11, 12 }), pack({ 13, 14 }) } }, 1, "r10 r11 r12 r13 r14", {} },
        { "-a-a", 0, {}, 0, {}, { { pack({ 11, 13 }) } }, 1, "- r11 - r13", {} },
        { "-----", 2, {}, 0, {}, {}, 3, "- - - - -", {} },
        { "aa-aa", 2, {}, 0, {}, { { pack({ 1, 2 }) }, {}, {} }, 2, "r1 r2 - e35 -",
          { "3 ERROR " READ "read() errno 35, fd ",
            "3 ERROR " READ "read error, return failure on msg 3\n" } },
        // The kernel stops at the third of five, at the first.
        { "aaaaa", 0, { 2 * one_message }, 0, { 17, 2, 0 }, { { pack({ 7, 8 }) } }, 1, "r7 r8 w17 - -", {} },
        { "aaaaa", 0, { 0 }, 0, { 17, 0, 0 }, {}, 1, "w17 - - - -", {} },
        // A write fails: with the kernel's reason, without one, without a status.
        { "-----", 2, { TAKE_ALL, -1 }, ENOBUFS, { 5, 1, 0 }, {}, 2, "- - - w5 -", {} },
        { "-----", 0, { -1 }, ENOBUFS, { 0, 4, 0 }, {}, 1, "- - - - w55", {} },
        { "--", 0, { -1 }, ENOBUFS, { 99, 1, 0 }, {}, 1, "w1 -",
          { "3 ERROR Failed to get bulk write info Operation not permitted",
            "3 ERROR rtslib_write_bulk_iov: get_bulkw_info failed (1) when rtslib_write_sys returned errno(55)" } },
        { "--", 0, { 5 }, ENOSPC, { 99, 1, 0 }, {}, 1, "w1 -",
          { "3 ERROR Failed to get bulk write info Operation not permitted",
            "3 ERROR rtslib_write_bulk_iov: get_bulkw_info failed (1) when rtslib_write_sys returned 5" } },
        { "-", 0, { 5 }, ENOSPC, { 17, 0, 0 }, {}, 1, "w28", {} },
        { "-", 0, { 5 }, 0, {}, {}, 1, "w22",
          { "3 ERROR rtslib_set_iov_err: errno is 0 when non-zero is expected!\n" } },
        { "-", 0, { 9999 }, 0, {}, {}, 1, "-", { "4 FATAL ERROR rtslib_write_bulk_iov: wrote 232 bytes, got 9999!" } },
        // A status that no array has.
        { "a-", 0, { 5 }, 0, { 17, 3000000000, 0 }, {}, 1, "- -",
          { "4 FATAL ERROR rtslib_set_iov_err: attempt to write to idx 2147483647 when size of iov is 2\n",
            "4 FATAL ERROR " READ "Invalid input: start = 0, end = 2147483646, range = 2\n" } },
        // Replies: none, too many, broken, beyond what was read, no message at all.
        { "-a", 0, {}, 0, {}, {}, 1, "- e35", { "3 ERROR " READ "read() errno 35, fd ",
          "3 ERROR " READ "read error, return failure on msg 1\n" } },
        { "aa", 0, {}, 0, {}, { { pack({ 1, 2, 3 }) } }, 1, "r1e22 r2",
          { "3 ERROR " READ "232 bytes to read and 2 of 2 msgs were read while end of iov(0-1)\n" } },
        { "aa", 0, {}, 0, {}, { { broken } }, 1, "e22 -",
          { "0 DEBUG", "4 FATAL ERROR " READ "IDL decoding error(22) for msg 0\n" } },
        { "aa", 0, {}, 0, {}, { { beyond } }, 1, "e22 -",
          { "0 DEBUG", "4 FATAL ERROR " READ "IDL decoding error(22) for msg 0\n" } },
        { "a", 0, {}, 0, {}, { { short_one } }, 1, "e5",
          { "4 FATAL ERROR rtslib_bulkmsg_idl_decode: msg read too small for header: 20\n",
            "4 FATAL ERROR " READ "IDL decoding error(5) for msg 0\n" } },
        { "a", 0, {}, 0, {}, { { octets(1) } }, 1, "e22",
          { "4 FATAL ERROR rtslib_bulkmsg_idl_decode: Invalid/Corrupted common receive buffer\n",
            "4 FATAL ERROR " READ "IDL decoding error(22) for msg 0\n" } },
    };
    ASSERT_EQ(rtslib_set_sync_mode(cookie, RTS_SYNC_BULK_ENABLE), 0);
    int number = 0;
    for (const auto &row : rows) {
        SCOPED_TRACE(number++);
        make(row.asks);
        kernel.takes = row.takes;
        kernel.write_errno = row.write_errno;
        kernel.status = row.status;
        kernel.refused = row.status.error == 99 ? int(RTSOCK_BULK_STATUS) : -1;
        kernel.replies = row.replies;
        kernel.written.clear();
        EXPECT_EQ(rtslib_set_bulk_buffer(cookie, row.room != 0 ? row.room * uint32_t(one_message) + 3 : 0x80000), 0);
        EXPECT_EQ(rtslib_msg_writev_idl(cookie, uint32_t(entries.size()), entries.data(), nullptr), 0);
        EXPECT_EQ(kernel.written.size(), row.writes);
        EXPECT_EQ(outcome(), row.outcome);
        lines seen = take_reports();
        ASSERT_EQ(seen.size(), row.reports.size()) << (seen.empty() ? "" : seen.back());
        for (size_t i = 0; i < seen.size(); i++)
            EXPECT_EQ(seen[i].substr(0, row.reports[i].size()), row.reports[i]);
    }
}

TEST_F(BulkTest, MasksGoBothWays)
{
    ASSERT_EQ(rtslib_set_sync_mode(cookie, RTS_SYNC_BULK_ENABLE), 0);
    make("aa");
    map_rtb_msg all;
    memset(&all, 0xff, sizeof all);
    all.rts_hdr = {};
    void *masks[] = { &all, nullptr };
    octets both = table_reply(3, 0, true), second = table_reply(4);
    both.insert(both.end(), second.begin(), second.end());
    kernel.replies = { { both } };
    EXPECT_EQ(rtslib_msg_writev_idl(cookie, 2, entries.data(), masks), 0);
    EXPECT_EQ(kernel.written[0][0], 0x11);
    EXPECT_TRUE(masks[0] != nullptr && masks[0] != &all && masks[1] == nullptr);
    EXPECT_EQ(outcome(), "r3 r4");
}

TEST_F(BulkTest, InputThatCannotBeSent)
{
    make("a");
    EXPECT_EQ(rtslib_msg_writev_idl(nullptr, 1, entries.data(), nullptr), 22);
    EXPECT_EQ(rtslib_msg_writev_idl(cookie, 1, entries.data(), nullptr), 0);
    EXPECT_EQ(take_reports(), (lines{
        "4 FATAL ERROR rtslib_msg_writev_idl: iobuf not initialized for bulk write!\n",
        "4 FATAL ERROR rtslib_bulkmsg_idl_encode: Invalid/Corrupted common send buffer\n",
        "4 FATAL ERROR rtslib_msg_writev_idl: Cookie buffer(0) not big enough for even one message(0)\n" }));
    ASSERT_EQ(rtslib_set_sync_mode(cookie, RTS_SYNC_BULK_ENABLE), 0);
    EXPECT_EQ(rtslib_msg_writev_idl(cookie, 0, entries.data(), nullptr), 0);
    EXPECT_EQ(rtslib_set_bulk_buffer(cookie, 100), 0);
    EXPECT_EQ(rtslib_msg_writev_idl(cookie, 1, entries.data(), nullptr), 0);
    EXPECT_EQ(take_reports()[1],
              "4 FATAL ERROR rtslib_msg_writev_idl: Cookie buffer(100) not big enough for even one message(0)\n");
    EXPECT_EQ(outcome(), "w40");
    EXPECT_TRUE(kernel.written.empty());
}

static jmp_buf way_out;

TEST_F(BulkTest, EntryThatDoesNotFitAndAsksIsWaitedForEndlessly)
{
    static int failing_reads;
    ASSERT_EQ(rtslib_set_sync_mode(cookie, RTS_SYNC_BULK_ENABLE), 0);
    make("aa");
    EXPECT_EQ(rtslib_set_bulk_buffer(cookie, uint32_t(one_message)), 0);
    kernel.replies = { { pack({ 1 }) } };
    rtslib_lib_error_register(cookie, 0, [](rtslib_cookie *, uintptr_t, int, const char *) {
        if (++failing_reads == 100) longjmp(way_out, 1);
    });
    if (setjmp(way_out) == 0) {
        rtslib_msg_writev_idl(cookie, 2, entries.data(), nullptr);
        ADD_FAILURE() << "came back";
    }
    EXPECT_EQ(outcome(), "r1 -");
}

TEST_F(BulkTest, SyncMode)
{
    EXPECT_EQ(rtslib_set_sync_mode(nullptr, 1), -1);
    EXPECT_EQ(rtslib_set_sync_mode(cookie, 2), -1);
    kernel.refused = RTSOCK_SYNC_MODE;
    EXPECT_EQ(rtslib_set_sync_mode(cookie, 1), -1);
    kernel.refused = -1;
    EXPECT_EQ(rtslib_set_bulk_buffer(cookie, 100), 22);
    allowance = 0;
    EXPECT_EQ(rtslib_set_sync_mode(cookie, 1), -1);
    allowance = 1;
    EXPECT_EQ(rtslib_set_sync_mode(cookie, 1), -1);   // leaves wbuf, so that no further call succeeds
    allowance = 9;
    EXPECT_EQ(rtslib_set_sync_mode(cookie, 1), -1);
    EXPECT_EQ(cookie->sync_mode, 1U);
    EXPECT_EQ(rtslib_set_sync_mode(cookie, 0), 0);
    EXPECT_EQ(kernel.options[RTSOCK_SYNC_MODE], (octets{ 0, 0, 0, 0 }));
    EXPECT_EQ(take_reports(), (lines{ SELF "Unsupported setting for sync mode 2",
                                      SELF "Failed to set sync mode Operation not permitted",
                                      SELF "Failed to allocate wbuf", SELF "Failed to allocate rbuf",
                                      SELF "RTS_SYNC_BULK_ENABLE has already been set!" }));
}

TEST_F(BulkTest, StatusAndPacing)
{
    octets out(12);
    kernel.status = { 1, 2, 3 };
    EXPECT_EQ(rtslib_get_bulkw_info(cookie, nullptr), 22);
    EXPECT_EQ(rtslib_get_bulkw_info(cookie, out.data()), 0);
    EXPECT_EQ(out, (octets{ 1, 0, 0, 0, 2, 0, 0, 0, 3, 0, 0, 0 }));
    EXPECT_EQ(rtslib_set_io_min_elapse(nullptr, 5, 0), -1);
    EXPECT_EQ(rtslib_set_io_min_elapse(cookie, 5, 0), 0);
    EXPECT_EQ(rtslib_set_io_min_elapse(cookie, 6, 1), 0);
    EXPECT_EQ(kernel.options[RTSOCK_SEND_PACING][0] * 10 + kernel.options[RTSOCK_RECEIVE_PACING][0], 56);
    EXPECT_EQ(rtslib_set_io_min_elapse(cookie, 6, 2), 0);
    kernel.refused = RTSOCK_RECEIVE_PACING;
    EXPECT_EQ(rtslib_set_io_min_elapse(cookie, 6, 1), -1);
    EXPECT_EQ(take_reports(), (lines{ "4 FATAL ERROR Illegal socket type: 2",
                                      "3 ERROR failed to set asnyc rcv min elapsed time Operation not permitted" }));
}
