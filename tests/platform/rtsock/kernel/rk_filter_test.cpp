/*
 * Filters over messages: what holds, and programs that are damaged.
 */
#include "lib/librtsock/filter/rts_filter.h"
#include "lib/librtsock/idl/idl.h"
#include "platform/rtsock/kernel/rk.h"
#include "platform/rtsock/kernel/rk_filter.h"

#include <array>
#include <gtest/gtest.h>
#include <random>
#include <stdlib.h>
#include <string.h>
#include <sys/socket.h>
#include <unistd.h>

using filter = std::array<uint8_t, RTS_FILTER_BLOCK_SIZE>;

static rt_msg route;
static rt_nh_entry entry;
static idl_sockaddr_gen gateway;
static uint8_t prefix[] = { 10, 1, 0, 0 };
static uint8_t sockaddr[] = { 16, 2, 0, 0, 10, 0, 0, 1, 0, 0, 0, 0, 0, 0, 0, 0 };
static char ifname[] = "ge-0/0/0";

static void make_route()
{
    gateway = { sockaddr, sizeof sockaddr };
    entry.addrs = &gateway;
    entry.addrs_len = 1;
    route.rts_hdr.rtsh_type = 2;
    route.rts_hdr.rtsh_op = 1;
    route.tid = 5;
    route.nhidx = UINT32_MAX;
    route.af = 2;
    route.rt_flags = 6;
    route.prefix = prefix;
    route.prefix_len = sizeof prefix;
    route.ifname = ifname;
    route.ifname_len = sizeof ifname;
    route.nh_entries = &entry;
    route.nh_entries_len = 1;
}

static int holds(const char *text)
{
    filter block;
    EXPECT_EQ(rts_filter_string_parse(text, block.data(), block.size()), 0);
    EXPECT_TRUE(rk_filter_is_sound(block.data(), block.size())) << text;
    return rk_filter_holds(block.data(), block.size(), 2, &route);
}

TEST(Filter, HoldsByRows)
{
    make_route();
    const struct {
        const char *text;
        int holds;
    } rows[] = {
        { "op == RTM_ADD && tid == 5", 1 }, { "op == RTM_DELETE && tid == 5", 0 }, { "tid == 5 && nothing == 1", 0 },
        { "op == RTM_DELETE || tid == 5", 1 }, { "tid == 5 || tid == 6 || tid == 7", 1 },
        { "(tid == 6 && tid == 5) || family == AF_INET", 1 }, { "tid == 5 && (tid == 6 || tid == 7)", 0 },
        { "tid == 6 || tid == 7 && tid == 5 || tid == 5", 1 },
        { "dst == 10.1.0.0", 1 }, { "dst == 10.1.0.0/16", 1 }, { "dst != 10.1.0.1", 1 }, { "dst == 10.1.0.0/64", 1 },
        { "dst == 2001:db8::1", 0 }, { "nh_entries.addrs == 10.0.0.1", 1 }, { "nh_entries.addrs.sa == 10.0.0.2", 0 },
        { "ifname ~ \"0/0\"", 1 }, { "ifname ~ \"xe\"", 0 }, { "ifname == \"ge-0/0/0\"", 1 }, { "ifname == \"ge\"", 0 },
        { "(rt_flags & 4) != NULL", 1 }, { "rt_flags & 1", 0 }, { "tid + 1 == 6", 1 }, { "tid - 6 < 0", 1 },
        { "$.rts_hdr.rtsh_op >= 1", 1 }, { "rts_hdr->rtsh_type <= 1", 0 }, { "nothing.at.all == 0", 1 },
        { "opaque == 5", 0 }, { "opaque == \"x\"", 0 }, { "opaque == 0", 1 }, { "dst == 5", 0 },
        { "prefix == dst", 1 },
        { "nhidx == 4294967295", 1 }, { "(nhidx & 2147483648) == 2147483648", 1 }, { "nhidx > 1", 1 },
        { "rts_hdr.type == 2", 0 }, { "AF_INET6 == AF_ATM", 0 }, { "tid > 5", 0 },
        { "ifname", 1 }, { "rts_hdr && 0", 0 }, { "4294967295 < 0", 1 },
    };
    for (const auto &row : rows) EXPECT_EQ(holds(row.text), row.holds) << row.text;
}

TEST(Filter, KeepsEventsBack)
{
    rk_kernel kernel = {};
    int pair[2];
    void *state = nullptr;
    struct rts_filter_registration registration = {};
    ASSERT_EQ(socketpair(AF_UNIX, SOCK_SEQPACKET | SOCK_NONBLOCK, 0, pair), 0);
    ASSERT_EQ(rk_client_open(&kernel, pair[1], &state), 0);
    registration.listen_lo = 1;
    EXPECT_EQ(rts_filter_string_parse("op == RTM_DELETE && type == 2", registration.filter, RTS_FILTER_BLOCK_SIZE), 0);
    EXPECT_EQ(rk_client_setsockopt(state, RTSOCK_FILTERS, &registration, sizeof registration), 0);
    for (uint8_t op : { 1, 3 }) {   // the header is filled in for each
        rt_msg record = {};
        record.rts_hdr.rtsh_op = 9;
        rk_event_all(&kernel, nullptr, 1, 0, 2, op, &record);
    }
    std::array<uint8_t, 4096> got;
    ssize_t count = recv(pair[0], got.data(), got.size(), 0);
    rts_msg message = {};
    ASSERT_GT(idr_decode_rts_msg_0(&message, got.data(), size_t(count), [](size_t s, void *) { return calloc(1, s); },
                                   nullptr), 0);
    const auto *told = static_cast<rt_msg *>(message.msg);
    EXPECT_EQ(told->rts_hdr.rtsh_op, 3);
    EXPECT_EQ(told->rts_hdr.rtsh_seq, 1U) << "the first event that goes out";
    idr_release_rts_msg_0(&message, [](void *memory, void *) { free(memory); }, nullptr);
    EXPECT_EQ(recv(pair[0], got.data(), got.size(), 0), -1);
    memset(registration.filter + 16, 0xff, 32);
    EXPECT_EQ(rk_client_setsockopt(state, RTSOCK_FILTERS, &registration, sizeof registration), -1);
    rk_client_close(state);
    close(pair[0]);
    close(pair[1]);
}

TEST(Filter, DamagedProgramsAreToldAndBounded)
{
    make_route();
    filter block = {};
    EXPECT_EQ(rk_filter_holds(block.data(), block.size(), 2, &route), 1);
    EXPECT_EQ(rk_filter_holds(block.data(), 3, 2, &route), -1);
    EXPECT_EQ(rts_filter_string_parse("tid == 5 && op == 1 || $.af == 2", block.data(), block.size()), 0);
    std::minstd_rand random(1);
    for (int i = 0; i < 20000; i++) {
        filter hurt = block;
        for (int n = 0; n < 3; n++) hurt[16 + random() % 400] = uint8_t(random() % 4 != 0 ? random() % 20 : random());
        int result = rk_filter_holds(hurt.data(), hurt.size(), 2, &route);
        EXPECT_TRUE(result >= -1 && result <= 1);
        (void)rk_filter_is_sound(hurt.data(), hurt.size());
    }
    // A jump back to the operator that it comes from.
    EXPECT_EQ(rts_filter_string_parse("0 && 1", block.data(), block.size()), 0);
    uint32_t back = uint32_t(-16);
    memcpy(&block[16], &back, sizeof back);
    EXPECT_EQ(rk_filter_holds(block.data(), block.size(), 2, &route), -1);
}
