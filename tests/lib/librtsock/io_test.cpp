/*
 * Messages one at a time: writing, the four reads over what a kernel may send, and the envelope both ways.
 */
#include "tests/lib/librtsock/scripted_kernel.h"

#include <sys/socket.h>

#define SMALL "4 FATAL ERROR msg read too small for header: "
#define SHORT "4 FATAL ERROR msg read too short got "
#define LONG "2 WARNING msg read too long got "
#define SEQ "4 FATAL ERROR request/reply seq mismatch: (1 != 9)\n"

static int recv_error;

#pragma GCC diagnostic ignored "-Wmissing-declarations"
extern "C" {
decltype(recv) __real_recv;
ssize_t __wrap_recv(int fd, void *buffer, size_t size, int flags)
{
    ssize_t count = __real_recv(fd, buffer, size, flags);
    return recv_error != 0 ? refuse(recv_error) : count;
}
}

class IoTest : public LibTest {
protected:
    ~IoTest() override { rtslib_close(cookie); }
    static void deliver(const octets &message)
    {
        EXPECT_EQ(send(kernel.peer, message.data(), message.size(), 0), ssize_t(message.size()));
    }
    void drain() const
    {
        uint8_t octet;
        while (rtsock_read(cookie->socket, &octet, 1) >= 0)
            continue;
    }
    rtslib_cookie *cookie = open();
};

static octets envelope(uint32_t magic, uint32_t length, uint32_t type, size_t body)
{
    const uint32_t words[] = { magic, length, type };
    octets out(sizeof words + body);
    memcpy(out.data(), words, sizeof words);
    return out;
}

TEST_F(IoTest, Write)
{
    const struct {
        uint32_t length;
        ssize_t taken;
        int error, result;
        lines reports;
    } rows[] = {
        { 10, TAKE_ALL, 0, 0, {} },
        { 10, 11, 0, 0, {} },
        { 10, 4, 0, 0, { "4 FATAL ERROR wrote 10 byte to routing socket, got 4" } },
        { 1, 0, 0, 0, { "4 FATAL ERROR wrote 1 bytes to routing socket, got 0" } },
        { 10, -1, EAGAIN, 35, {} },
        { 10, -1, ENOBUFS, 55, {} },
    };
    for (const auto &row : rows) {
        kernel.takes = { row.taken };
        kernel.write_errno = row.error;
        cookie->enable_kbt = row.error == ENOBUFS;
        EXPECT_EQ(rtslib_write(cookie, "0123456789", row.length), row.result);
        EXPECT_EQ(take_reports(), row.reports);
        EXPECT_EQ(kernel.written.back().size(), row.length);
    }
    EXPECT_EQ(kernel.sysctls, (lines{ "debug.enable_kbt own -1 1", "debug.enable_kbt own -1 0" }));
}

TEST_F(IoTest, NormalAndLongReads)
{
    struct outcome {
        int result;
        uint32_t length;
        lines reports;
    };
    const struct {
        octets message;   // empty: none
        outcome normal, lengthy;
    } rows[] = {
        { {}, { 35, 0, {} }, { 35, 0, {} } },
        { raw(3, 3), { 5, 0, { SMALL "3\n" } }, { 35, 0, {} } },
        { raw(23, 23), { 5, 0, { SMALL "23\n" } }, { 35, 0, {} } },
        { raw(120, 100), { 0, 100, { LONG "(120), expected 100\n" } }, { 0, 100, {} } },
        { raw(100, 120), { 5, 0, { SHORT "(100), expected 120\n" } }, { 5, 0, { SHORT "(100), expected 120\n" } } },
        { raw(16384, 16384), { 0, 16384, {} }, { 0, 16384, {} } },
        { raw(16385, 16385), { 5, 0, { "4 FATAL ERROR msg read too large for rtsock message: 16385\n" } },
          { 0, 16385, {} } },
        { raw(24, 24, 9), { -2, 24, { SEQ } }, { -2, 24, { SEQ } } },
        { envelope(0x5022, 0, 1, 0), { 5, 0, { SMALL "12\n" } }, { 35, 0, {} } },
        { envelope(0x5011, 4, 1, 20), { 0, 32, {} }, { 5, 0, { SMALL "16\n" } } },
        { raw(24, 0), { 5, 0, { LONG "(24), expected 0\n", SMALL "0\n" } }, { 22, 0, {} } },
        { raw(24, 0xffffffff), { 5, 0, { SHORT "(24), expected -1\n" } }, { 22, 0, {} } },
        { raw(24, 0x7ffffffe), { 5, 0, { SHORT "(24), expected 2147483646\n" } }, { 22, 0, {} } },
    };
    octets room(RTSLIB_MSG_MAX);
    for (const auto &row : rows) {
        uint32_t length = 0;
        if (!row.message.empty()) deliver(row.message);
        EXPECT_EQ(rtslib_msg_read(cookie, room.data(), &length), row.normal.result);
        EXPECT_EQ(length, row.normal.length);
        EXPECT_TRUE(std::equal(room.begin(), room.begin() + length, row.message.begin()));
        EXPECT_EQ(take_reports(), row.normal.reports);
        void *out = cookie;
        if (!row.message.empty()) deliver(row.message);
        EXPECT_EQ(rtslib_long_msg_read(cookie, &out, &length), row.lengthy.result);
        EXPECT_EQ(length, row.lengthy.length);
        EXPECT_EQ(out != nullptr, length != 0);
        EXPECT_EQ(take_reports(), row.lengthy.reports);
        rtslib_msg_free(cookie, out);
        drain();
    }
    EXPECT_EQ(rtslib_msg_read(nullptr, room.data(), nullptr), 22);
    EXPECT_EQ(rtslib_msg_read(cookie, nullptr, nullptr), 22);
}

TEST_F(IoTest, PeekAndErrorsOfReading)
{
    deliver(table_reply(1));
    EXPECT_EQ(rtslib_peek_pkt_len(cookie->socket), int32_t(table_reply(1).size()));
    void *out;
    allowance = 0;
    EXPECT_EQ(rtslib_long_msg_read(cookie, &out, nullptr), 12);
    recv_error = EMSGSIZE;
    EXPECT_DEATH(rtslib_peek_pkt_len(cookie->socket), "rtslib_io:713: rtslib_peek_pkt_len: .*errno != EMSGSIZE");
    recv_error = ENOBUFS;
    EXPECT_EQ(rtslib_msg_read(cookie, &out, nullptr), 55);
    recv_error = 0;
    EXPECT_EQ(take_reports(), lines{ "4 FATAL ERROR read failed: (55) No buffer space available" });
}

TEST_F(IoTest, DecodingReads)
{
    using road = int (*)(rtslib_cookie *, void **, void *, size_t);
    const road roads[] = {
        [](rtslib_cookie *c, void **m, void *, size_t) { return rtslib_msg_read_idl(c, m, nullptr); },
        [](rtslib_cookie *c, void **m, void *a, size_t n) { return rtslib_msg_read_idl_pa(c, m, nullptr, a, n); },
        [](rtslib_cookie *c, void **m, void *, size_t) { return rtslib_long_msg_read_idl(c, m, nullptr); },
        [](rtslib_cookie *c, void **m, void *a, size_t n) { return rtslib_long_msg_read_idl_pa(c, m, nullptr, a, n); },
    };
    const struct {
        octets message;
        size_t arena;
        int results[4];
        const char *decoded;   // by road: y or n
    } rows[] = {
        { {}, 4096, { 35, 35, 35, 35 }, "nnnn" },
        { table_reply(5), 4096, { 0, 0, 0, 0 }, "yyyy" },
        { table_reply(5), 64, { 0, 12, 0, 0 }, "ynyn" },
        { envelope(0x5022, 16, 1, 16), 4096, { 22, 22, 22, 0 }, "nnnn" },   // a body too short for its record
        { envelope(0x5022, 16, 9, 16), 4096, { 0, 0, 0, 0 }, "nnnn" },      // no codec
        { raw(24, 24), 4096, { 45, 45, 45, 0 }, "nnnn" },
        { raw(24, 24, 9), 4096, { -2, -2, -2, -2 }, "nnnn" },
    };
    alignas(16) uint8_t arena[4096];
    for (const auto &row : rows) {
        for (size_t i = 0; i < std::size(roads); i++) {
            void *message = nullptr;
            if (!row.message.empty()) deliver(row.message);
            EXPECT_EQ(roads[i](cookie, &message, arena, row.arena), row.results[i]) << i;
            EXPECT_EQ(message != nullptr ? 'y' : 'n', row.decoded[i]) << i;
            if (message != nullptr) { EXPECT_EQ(static_cast<rtb_msg *>(message)->tid, 5); }
            if (message != arena) rtslib_msg_idl_release(cookie, message);
        }
    }
    EXPECT_EQ(rtslib_msg_read_idl(nullptr, nullptr, nullptr), 12);
}

TEST_F(IoTest, DecoderRefusals)
{
    octets surplus = envelope(0x5022, 100, 1, 16);
    octets odd = envelope(0x5033, 16, 1, 16);
    octets garbled = envelope(0x5011, 16, 1, 16);
    std::fill(garbled.begin() + IDL_ENVELOPE_SIZE, garbled.end(), 0xff);
    const struct {
        octets message;
        size_t length;
        int result;
        lines reports;
    } rows[] = {
        { odd, 3, 45, { "3 ERROR Failed to peek magic" } },
        { surplus, 4, 45, { "3 ERROR Failed to peek message" } },
        { raw(24, 24), 24, 45, {} },
        { odd, 28, 45, {} },
        { surplus, 28, 22, { "0 DEBUG IDL IDR Decode Error 0(Invalid Buffer Size)" } },
        { garbled, 28, 22, { "0 DEBUG IDL TLV Decode Error -1(Garbled Message)" } },
    };
    void *message = nullptr;
    for (const auto &row : rows) {
        EXPECT_EQ(rtslib_msg_idl_decode(cookie, row.message.data(), row.length, &message, nullptr), row.result);
        EXPECT_EQ(take_reports(), row.reports);
    }
    octets good = table_reply(1);
    good.resize(good.size() + 8);
    ASSERT_EQ(rtslib_msg_idl_decode(cookie, good.data(), good.size(), &message, nullptr), 0);
    EXPECT_EQ(static_cast<rts_hdr *>(message)->rtsh_msglen, good.size());   // what was given, surplus included
    rtslib_msg_idl_release(cookie, std::exchange(message, nullptr));
    uint8_t arena[8];
    EXPECT_EQ(rtslib_msg_idl_decode_pa(cookie, good.data(), good.size(), &message, nullptr, arena, sizeof arena), 12);
    EXPECT_EQ(rtslib_msg_idl_decode_pa(cookie, good.data(), 3, &message, nullptr, arena, sizeof arena), 22);
    EXPECT_EQ(take_reports(), lines{ "0 DEBUG IDL IDR Decode Error -2(Allocation Failure)" });
    allowance = 0;
    EXPECT_EQ(rtslib_msg_idl_decode(cookie, good.data(), good.size(), &message, nullptr), 12);
    EXPECT_EQ(take_reports(), lines{ "3 ERROR Allocation Failure" });
    EXPECT_EQ(message, nullptr);
}

TEST_F(IoTest, EncoderGrowsToTheExactSize)
{
    std::string name(20000, 'n');
    rtb_msg table = {};
    table.rts_hdr.rtsh_type = 1;
    table.name = name.data();
    table.name_len = uint32_t(name.size());
    void *out;
    uint32_t length, needed = uint32_t(wire(&table, 1).size());
    allowance = 2;
    ASSERT_EQ(rtslib_msg_idl_encode(cookie, &table, nullptr, &out, &length), 0);
    EXPECT_EQ(allowance, 0);
    EXPECT_EQ(length, needed);
    EXPECT_EQ(rtslib_msglen, needed);
    rtslib_msg_free(cookie, out);
    allowance = 1;
    EXPECT_EQ(rtslib_msg_idl_encode(cookie, &table, nullptr, &out, &length), 12);
    EXPECT_EQ(take_reports(), lines{ "3 ERROR Allocation Failure for (" + std::to_string(needed) + ") bytes" });
    EXPECT_TRUE(out == nullptr && length == 0);
    octets room(needed);
    EXPECT_EQ(rtslib_msg_idl_encode_pa(cookie, &table, room.data(), &length), 22);
    EXPECT_EQ(take_reports(), lines{ "3 ERROR Invalid parameters" });
    for (int result : { 12, 0 }) {   // the first call tells what is needed
        length = result != 0 ? 100 : length;
        EXPECT_EQ(rtslib_msg_idl_encode_pa(cookie, &table, room.data(), &length), result);
        EXPECT_EQ(length, needed);
    }
}

TEST_F(IoTest, DecoderGrowsUntilItFits)
{
    alignas(16) uint8_t table_of_items[RTSM_INFO_TABLE];
    rts_msg_info item = {};
    item.tag = 104;
    rt_msg route = {};
    uint8_t *cursor = nullptr;
    EXPECT_EQ(rtsm_info_user_add(&route.rts_hdr, &item, &cursor), 12);
    cursor = table_of_items;
    for (int i = 0; i < RTSM_INFO_MAX; i++)
        EXPECT_EQ(rtsm_info_user_add(&route.rts_hdr, &item, &cursor), 0);
    EXPECT_EQ(rtsm_info_user_add(&route.rts_hdr, &item, &cursor), 12);
    EXPECT_EQ(cursor, table_of_items + RTSM_INFO_TABLE);

    constexpr uint32_t items = 500;   // sixteen octets each on the way
    item.tag = 30;
    std::vector<rts_msg_info *> table(items, &item);
    route.rts_hdr.rtsh_info = table.data();
    route.rts_hdr.rtsh_info_len = items;
    octets sent = wire(&route, 2);
    ASSERT_LE(sent.size(), size_t(RTSLIB_MSG_MAX));
    void *message = nullptr;
    ASSERT_EQ(rtslib_msg_idl_decode(cookie, sent.data(), sent.size(), &message, nullptr), 0);
    EXPECT_EQ(static_cast<rt_msg *>(message)->rts_hdr.rtsh_info_len, items);
    EXPECT_EQ(blocks[76], 2);   // the version table and this
    size_t needed = sizeof route + items * (sizeof(void *) + sizeof item);
    lines growth = take_reports();
    ASSERT_EQ(growth.size(), (needed - RTSLIB_MSG_MAX + 1023) / 1024);
    EXPECT_EQ(growth[0], "0 DEBUG Insufficient buffer. Growing the buffer and retrying");
    rtslib_msg_idl_release(cookie, message);
}
