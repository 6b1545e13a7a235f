/*
 * Routes, matches, next hops and their statistics: what the kernel gets, decoded again, and what comes back.
 */
#include "lib/librtsock/rtslib_raw.h"
#include "platform/target.h"
#include "tests/lib/librtsock/scripted_kernel.h"

#include <sys/time.h>

namespace {

void *message, *mask;
const uint8_t prefix[] = { 10, 1, 0xff, 0xff };
const uint8_t gateway[] = { 16, 2, 0, 0, 10, 0, 0, 1, 0, 0, 0, 0, 0, 0, 0, 0 };

std::string hex(const uint8_t *from, uint32_t length)
{
    std::string text;
    char digits[4];
    for (uint32_t i = 0; i < length; i++) text.append(digits, size_t(snprintf(digits, sizeof digits, "%02x", from[i])));
    return text;
}

template <typename... types> std::string join(types... values)
{
    std::string text;
    ((text += std::to_string(values) + " "), ...);
    return text;
}

std::string body(const rt_msg &m)
{
    std::string text = join(m.tid, m.af, m.rt_type, m.rt_flags, m.nh_type, m.nh_flags, m.aux_byte, m.aux_word1,
                            m.aux_word2, m.nhidx, m.prefix_bits) + hex(m.prefix, m.prefix_len);
    for (uint32_t i = 0; i < m.nh_entries_len; i++)
        text += " via " + hex(m.nh_entries[i].addrs->sa, m.nh_entries[i].addrs->sa_len);
    if (m.opaque_len != 0)
        text += " opaque " + join(m.opaque_marker, m.dflags) + hex(m.opaque, m.opaque_len);
    return text;
}

std::string body(const rnh_msg &m)
{
    std::string text = join(m.idx, m.ifidx, m.af, m.nh, m.infotype, m.aux_byte1, m.aux_byte2, m.aux_half1, m.aux_half2,
                            m.aux_word, m.tunnel_id, m.owner, m.trailing_word) + hex(m.entries, m.entries_len);
    for (uint32_t i = 0; i < m.services_len; i++)
        text += " service " + hex(reinterpret_cast<const uint8_t *>(&m.services[i].id_word), 4) + " " +
                join(m.services[i].count, m.services[i].kind, m.services[i].owner) +
                std::string(reinterpret_cast<const char *>(m.services[i].name));
    for (uint32_t i = 0; i < m.ifidx_list_len; i++) text += " if" + std::to_string(m.ifidx_list[i]);
    return text;
}

std::string body(const rnhs_msg &m)
{
    return join(m.af, m.key_type, m.aux_byte1, m.aux_byte2, m.aux_half, m.key_word1, m.key_word2, m.aux_word,
                m.labels_len) + hex(m.addr, m.addr_len) + " " + hex(m.addr_octets, m.addr_octets_len);
}

/* What the kernel got last, with what all requests of a type share: "type.version.hdrlen op flag | body". */
std::string sent(rtslib_cookie *cookie, size_t back = 0)
{
    const octets &o = kernel.written[kernel.written.size() - 1 - back];
    void *decoded = nullptr;
    EXPECT_EQ(rtslib_msg_idl_decode(cookie, o.data(), o.size(), &decoded, nullptr), 0);
    const auto *h = static_cast<rts_hdr *>(decoded);
    if (h == nullptr) return "";
    EXPECT_EQ(h->rtsh_seq, cookie->seq - back);
    std::string text = std::to_string(h->rtsh_type) + "." + std::to_string(h->rtsh_version) + "." +
                       std::to_string(h->rtsh_hdrlen) + " op" + join(h->rtsh_op, h->rtsh_flag) + "| ";
    const auto *m = static_cast<rtm_msg *>(decoded);
    const auto *g = static_cast<mgr_msg *>(decoded);
    switch (h->rtsh_type) {
    case 2: text += body(*static_cast<rt_msg *>(decoded)); break;
    case 10: text += body(*static_cast<rnh_msg *>(decoded)); break;
    case 12: text += join(m->tid, m->af, m->aux_byte, m->prefix_bits) + hex(m->prefix, m->prefix_len); break;
    case 13: text += join(g->tid, g->af, g->prefix_bits) + hex(g->prefix, g->prefix_len); break;
    case 21: text += body(*static_cast<rnhs_msg *>(decoded)); break;
    }
    rtslib_msg_idl_release(cookie, decoded);
    return text;
}

octets nexthop_reply(uint32_t idx, uint8_t nh, uint32_t infotype = 0, uint32_t ifidx = 0, uint32_t marker = 0)
{
    rnh_msg hop = {};
    hop.rts_hdr.rtsh_type = 10;
    hop.idx = idx;
    hop.nh = nh;
    hop.infotype = infotype;
    hop.ifidx = ifidx;
    hop.marker = marker;
    rts_msg_info item = {};
    rts_msg_info *items = &item;
    item.tag = 0x2000018;
    item.u.rnhtlv_ifidx.ifidx = 77;
    if (marker != 0) hop.rts_hdr.rtsh_info = &items, hop.rts_hdr.rtsh_info_len = 1;
    return wire(&hop, 10);
}

octets route_reply(uint16_t ack_index)
{
    rt_msg route = {};
    route.rts_hdr.rtsh_type = 2;
    route.ack_index = ack_index;
    return wire(&route, 2);
}

octets match_reply(uint32_t nhidx)
{
    rtm_msg match = {};
    match.rts_hdr.rtsh_type = 12;
    match.nhidx = nhidx;
    return wire(&match, 12);
}

using call = int (*)(rtslib_cookie *);
uint16_t ack;
uint32_t index_out;
const uint32_t ifidx[] = { 7, 8 };
const uint32_t labels[] = { 5 };
const rtslib_service service = { 0xf2345678, 9, 1, 3, "svc" };
const rtslib_service single = { 1, 0, 5, 0, nullptr };
const rtslib_nh_key odd_key = { 5, 0, 0, 0, 0, nullptr, nullptr, 0, nullptr, 0, 0, 0 };
uint32_t many[513];
const rtslib_nh_key key = { 3, 1, 2, 3, 4, gateway, labels, 1, prefix, 3, 5, 6 };

TEST_F(LibTest, ObjectRequests)
{
    static const std::string longer(70, 'x');
    const struct {
        call run;
        bool replies;
        int result;
        std::string sent;
    } rows[] = {
        { [](auto *c) { return rtslib_rtm_add(c, 5, 2, 1, 3, 2, 4, 6, 7, 8, 9, 0, 0, prefix, 17, nullptr, nullptr); },
          false, 0, "2.104.240 op1 0 | 5 2 1 3 2 4 6 7 8 9 17 0a01ff00" },
        { [](auto *c) { return rtslib_rtm_add(c, 5, 2, 1, 0, 0, 0, 0, 0, 0, 0, 7, 8, prefix, 32, gateway, &ack); },
          true, 0, "2.104.240 op8 2 | 5 2 1 0 0 0 0 0 0 0 32 0a01ffff via 100200000a0000010000000000000000 opaque 9 32766 "
          "00010004000000070002000400000008" },
        { [](auto *c) { return rtslib_rtm_delete_prefix(c, 5, 2, 1, 3, prefix, 8, 9); }, false, 0,
          "2.104.240 op3 0 | 5 2 1 3 0 0 0 9 0 0 8 0a000000" },
        { [](auto *c) { return rtslib_rtm_get(c, 5, 2, prefix, 0, 1, 3, 4, 6, 3, nullptr, nullptr); }, false, 0,
          "2.104.240 op3 0 | 5 2 1 3 0 0 6 4 0 0 0 " },
        { [](auto *c) { return rtslib_rtm_get(c, 5, 2, prefix, 0, 1, 3, 4, 6, 4, nullptr, nullptr); }, false, 22, "" },
        { [](auto *c) { return rtslib_rtm_get_by_type(c, 28, 3, 5, &message, &mask); }, true, 0,
          "2.104.240 op5 0 | 0 28 3 0 0 0 0 0 0 0 0 " },
        { [](auto *c) { return rtslib_rtmatch_by_prefix(c, 5, 2, 3, prefix, 32, &message, &mask); }, true, 0,
          "12.99.52 op4 0 | 5 2 3 32 0a01ffff" },
        { [](auto *c) { return rtslib_mgrm_get(c, 5, 2, prefix, 16, 5, &message, &mask); }, true, 0,
          "13.99.0 op5 0 | 5 2 16 0a010000" },
        { [](auto *c) { return rtslib_rnhm_get_by_index(c, 9, 2, 4, &message, &mask); }, true, 0,
          "10.109.732 op4 0 | 9 0 2 0 0 0 0 0 0 0 0 0 1024 " },
        { [](auto *c) { return rtslib_rnhm_subunit_nhadd(c, ifidx, 2, &message, &mask); }, true, 0,
          "10.109.732 op8 0 | 0 7 2 2 0 0 0 0 0 0 0 0 0 " },
        { [](auto *c) { return rtslib_rnhm_iflnh_delete_by_index(c, 9, 2); }, false, 0,
          "10.109.732 op3 0 | 9 0 2 2 17 0 0 0 0 0 0 0 0 " },
        { [](auto *c) { uint8_t four = 4; return rtslib_rnhm_iflnh_add(c, 7, 2, 3, 1, &four, &index_out, 6); }, true, 0,
          "10.109.732 op8 0 | 0 7 2 2 17 0 0 3 0 6 0 0 0 0100" },
        { [](auto *c) { uint8_t five = 5; return rtslib_rnhm_iflnh_add(c, 7, 2, 3, 1, &five, &index_out, 6); }, false,
          45, "" },
        { [](auto *c) { return rtslib_rnhm_l2tp_service_add(c, ifidx, 2, 3, longer.c_str(), 4, 5, 6, 7, &message,
                                                            &mask); }, true, 0,
          "10.109.732 op8 0 | 0 7 2 22 5 3 5 6 7 0 4 0 0  service 04000050 1 0 0 " + longer.substr(0, 31) +
              "-4-6-7 if7" },
        { [](auto *c) { return rtslib_rnhm_service_add(c, ifidx, 2, 2, &service, &message, &mask); }, true, 0,
          "10.109.732 op8 0 | 0 7 2 22 5 0 0 0 0 0 0 3 0  service 78563492 2 1 3 svc if7 if8" },
        { [](auto *c) { return rtslib_rnhm_service_add(c, ifidx, 2, 2, &single, &message, &mask); }, false, 22, "" },
        { [](auto *c) { return rtslib_rnhm_service_add(c, ifidx, 0, 2, &service, &message, &mask); }, false, 22, "" },
        { [](auto *c) { return rtslib_rnhm_service_add(c, many, 513, 2, &service, &message, &mask); }, false, 22, "" },
        { [](auto *c) { return rtslib_rnhsm_get(c, 2, 4, &odd_key, &message, &mask); }, false, 45, "" },
        { [](auto *c) { return rtslib_rnhsm_get(c, 2, 4, &key, &message, &mask); }, true, 0,
          "21.101.224 op4 0 | 2 3 1 6 5 2 3 4 1 100200000a0000010000000000000000 0a01ff" },
    };
    rtslib_cookie *cookie = open();
    cookie->rnhm_get_flag = 1;
    std::fill(std::begin(many), std::end(many), 1);
    for (const auto &row : rows) {
        SCOPED_TRACE(row.sent);
        size_t before = kernel.written.size();
        message = mask = nullptr;
        kernel.replies = { { row.sent.rfind("2.", 0) == 0 ? route_reply(9) : nexthop_reply(3, 2) } };
        if (!row.replies) kernel.replies.clear();
        EXPECT_EQ(row.run(cookie), row.result);
        EXPECT_EQ(kernel.written.size(), before + (row.result == 0 ? 1 : 0));
        if (row.result == 0) { EXPECT_EQ(sent(cookie), row.sent); }
        rtslib_msg_idl_release(cookie, message);
        EXPECT_EQ(rtslib_msg_read_idl(cookie, &message, nullptr), TARGET_EAGAIN) << "one request, one reply";
        std::map<uint16_t, int> before_failure = blocks;
        allowance = 0;
        if (row.result == 0) { EXPECT_EQ(row.run(cookie), TARGET_ENOMEM); }
        allowance = 1000;
        EXPECT_EQ(blocks, before_failure);
        EXPECT_EQ(row.run(nullptr), TARGET_EINVAL);
    }
    EXPECT_TRUE(index_out == 3 && ack == 9);
    rtslib_close(cookie);
}

TEST_F(LibTest, WalksOverNextHops)
{
    rtslib_cookie *cookie = open();
    kernel.replies = { { nexthop_reply(3, 2) }, { nexthop_reply(5, 3) }, { nexthop_reply(6, 22) } };
    EXPECT_EQ(rtslib_rnhm_service_get_by_owner(cookie, 0, 2, 1, 9, &message, nullptr), 0);
    EXPECT_EQ(static_cast<rnh_msg *>(message)->idx, 6U);
    EXPECT_EQ(sent(cookie), "10.109.732 op5 0 | 5 0 2 22 5 1 0 0 0 0 0 9 0 ");
    rtslib_msg_idl_release(cookie, message);

    kernel.replies = { { nexthop_reply(3, 3) } };
    kernel.takes = { TAKE_ALL, -1 };
    kernel.write_errno = ENOENT;
    EXPECT_EQ(rtslib_rnhm_service_get_by_index(cookie, 0, 2, 5, &message, &mask), TARGET_ENOENT);
    EXPECT_EQ(message, nullptr);
    kernel.write_errno = 0;

    uint32_t seq = cookie->seq;
    kernel.replies = { { nexthop_reply(3, 2) } };
    EXPECT_EQ(rtslib_rnhm_iflnh_get_by_index(cookie, 5, 0, 2, &message, &mask), TARGET_EINVAL) << "no second request";
    EXPECT_EQ(cookie->seq, seq + 2);

    const struct {
        uint32_t nhidx, ifidx, marker;
        int result;
        uint32_t found;
    } rows[] = { { 0, 0, 0, -1, 0 }, { 4, 9, 1, 0, 9 }, { 4, 0, 1, 0, 77 }, { 4, 0, 0, 0, 0 } };
    for (const auto &row : rows) {
        kernel.replies = { { match_reply(row.nhidx) }, { nexthop_reply(4, 2, 0, row.ifidx, row.marker) } };
        EXPECT_EQ(rtslib_rtmatch_fwding_nh_ifindex(cookie, 5, 2, 0, prefix, 32, &message, nullptr), row.result);
        EXPECT_EQ(static_cast<rtm_msg *>(message)->ifidx, row.found);
        rtslib_msg_idl_release(cookie, message);
    }
    rtslib_close(cookie);
}

// A kernel that answers with the record of another type does not have it read as the one that was asked for.
TEST_F(LibTest, AnswersOfAnotherType)
{
    rtslib_cookie *cookie = open();
    uint16_t given = 7;
    uint32_t index = 7;
    const uint8_t entry = 1;
    auto answer = [](octets reply) { kernel.replies = { { std::move(reply) } }; };
    answer(table_reply(5));
    EXPECT_EQ(rtslib_rtm_add(cookie, 5, 2, 1, 0, 0, 0, 0, 0, 0, 4, 0, 0, prefix, 32, nullptr, &given), TARGET_EIO);
    answer(table_reply(5));
    EXPECT_EQ(rtslib_rnhm_iflnh_add(cookie, 1, 2, 0, 1, &entry, &index, 0), TARGET_EIO);
    EXPECT_TRUE(given == 7 && index == 7) << given << " " << index;
    answer(table_reply(5));
    EXPECT_EQ(rtslib_rnhm_service_get_by_index(cookie, 0, 2, 5, &message, &mask), TARGET_EIO);
    EXPECT_TRUE(message == nullptr && mask == nullptr);
    answer(table_reply(5));
    EXPECT_EQ(rtslib_rtmatch_fwding_nh_ifindex(cookie, 5, 2, 0, prefix, 32, &message, nullptr), -1);
    rtslib_msg_idl_release(cookie, message);
    answer(table_reply(5));
    ASSERT_EQ(rtslib_rnhm_get_by_index(cookie, 4, 2, 4, &message, nullptr), 0);
    EXPECT_EQ(rtslib_rnhsm_get_by_nexthop(cookie, 2, 4, message, &mask, nullptr), 22);
    rtslib_msg_idl_release(cookie, message);
    kernel.replies = { { match_reply(4) }, { table_reply(5) } };
    EXPECT_EQ(rtslib_rtmatch_fwding_nh_ifindex(cookie, 5, 2, 0, prefix, 32, &message, nullptr), -1);
    rtslib_msg_idl_release(cookie, message);
    rtslib_close(cookie);
    answer(nexthop_reply(3, 2));
    EXPECT_EQ(vrf_getindexbyvrfname("blue", nullptr, 2), -1);
    EXPECT_EQ(errno, EIO);
}

octets stats_reply(uint8_t marker, uint32_t seq)
{
    octets out(sizeof(rtstats_raw) + 4 + 13 * 4, 0);
    rtstats_raw head = {};
    head.hdr = { 0, 101, 4, 4, 0, uint32_t(out.size()), seq, 0, sizeof head, 0, 0 };
    head.marker = marker;
    head.prefix_bits = 20;
    memcpy(out.data(), &head, sizeof head);
    out[sizeof head + 4 + 12 * 4] = 13;
    return out;
}

TEST_F(LibTest, RouteStatistics)
{
    rtslib_cookie *cookie = open();
    uint32_t words[13] = {};
    timeval none = {};
    const auto ask = [&] { return rtslib_rtstats_get(cookie, 2, 5, 1, 2, 20, prefix, words, &none); };
    kernel.replies = { { stats_reply(1, 2) }, { stats_reply(0, 3) } };
    EXPECT_EQ(ask(), 0);
    EXPECT_EQ(words[12], 13U);
    const octets &o = kernel.written.back();
    EXPECT_EQ(hex(&o[8], 4) + hex(&o[20], 2) + hex(&o[24], 12) + hex(&o[52], 4), "38000000" "3400" "0500020102000000"
              "01001400" "0a01ff00");
    EXPECT_EQ(ask(), TARGET_ENOENT);
    octets cut = stats_reply(1, 4);
    cut.resize(90);
    cut[8] = 90;
    kernel.replies = { { cut } };
    EXPECT_EQ(ask(), TARGET_ENOENT) << "words that are not there";

    static lines told;
    rtslib_seq_error_register(cookie, 0, [](rtslib_cookie *, uintptr_t, uint32_t expected, uint32_t received) {
        told.push_back(std::to_string(expected) + "!=" + std::to_string(received));
    });
    EXPECT_EQ(ask(), TARGET_EAGAIN);
    EXPECT_EQ(told, lines{ "5!=4" });
    EXPECT_EQ(rtslib_rtstats_get(cookie, 2, 5, 1, 2, 20, prefix, nullptr, &none), TARGET_EINVAL);

    EXPECT_EQ(rtslib_rnhsm_get_by_index(cookie, 1, 2, 3, 0, nullptr, 0, nullptr, 2, 4, &message, nullptr),
              TARGET_EOPNOTSUPP);
    kernel.replies = { { nexthop_reply(3, 2) } };
    testing::internal::CaptureStderr();
    EXPECT_EQ(rtslib_rnhsm_get_by_index(cookie, 1, 2, 2, 0, labels, 1, gateway, 2, 4, &message, nullptr), 0);
    EXPECT_EQ(testing::internal::GetCapturedStderr().substr(0, 33), "NH stats rtslib_msg_read failed [");
    EXPECT_EQ(message, nullptr);
    rtslib_close(cookie);
}

}   // namespace
