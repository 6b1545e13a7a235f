/*
 * What operations on interface objects send, what becomes of streams of options, and statistics.
 */
#include "tests/lib/librtsock/interface/describe.h"
#include "lib/librtsock/rtslib_interface.h"
#include "lib/librtsock/rtslib_raw.h"

namespace {

void *message, *mask;
const uint8_t prefix[] = { 10, 1, 0xff, 0xff };
const uint8_t address[] = { 4, 18, 1, 2 }, hw[] = { 3, 18, 7 }, none[] = { 0, 18 };
const uint32_t stream[] = { 0x80001, 5 };
rts_msg_info item = { .tag = 225, .u = { .ifl_subset_iif = { 3, 1 } } };
const std::string longer(70, 'x');

TEST_F(InterfaceTest, Requests)
{
    const struct {
        int (*run)(rtslib_cookie *);
        int result;
        std::string sent;
    } rows[] = {
        { [](auto *c) { return rtslib_ifdm_get_by_index(c, 7, 5, &message, &mask); }, 0, "5.106.164 op5 idx=7" },
        { [](auto *c) { return rtslib_ifdm_get_by_name(c, longer.c_str(), 4, &message, &mask); }, 0,
          "5.106.164 op4 name=" + longer.substr(0, 59) },
        { [](auto *c) { return rtslib_ifdm_get_by_snmp_index(c, 9, 4, &message, &mask); }, 0,
          "5.106.164 op4 snmpid=9" },
        { [](auto *c) { return rtslib_ifdm_get_by_snmp_index(c, 9, 5, &message, &mask); }, 22, "" },
        { [](auto *c) { return rtslib_ifdm_add_with_tlvs(c, "ge", 7, 8, 1, 2, address, none, hw, stream, 8); }, 0,
          "5.106.164 op1 idx=7 aux_half=8 aux_word1=1 aux_word2=2 tlv_marker=1 addr=04120102 "
          "alt_addr=031207 name=ge [1 words=5,]" },
        { [](auto *c) { return rtslib_ifdm_change_flags(c, 7, 6, 5); }, 0, "5.106.164 op2 idx=7 change=6 flags=5" },
        { [](auto *c) { return rtslib_ifdm_pointchange(c, 7, 6, [](void *m, uint8_t **cursor, const void *, uint32_t) {
              return rtsm_info_user_add(static_cast<rts_hdr *>(m), &item, cursor); }, stream, 8); }, 0,
          "5.106.164 op2 idx=7 change=6 tlv_marker=1 [225 bit=3 value=1]" },
        // A converter of the client's hears of a stream that is none, too.
        { [](auto *c) { return rtslib_ifdm_pointchange(c, 7, 6, [](void *m, uint8_t **, const void *from, uint32_t n) {
              static_cast<ifdev_msg *>(m)->aux_word1 = from == nullptr ? n : 0;
              return 0; }, nullptr, 3); }, 0, "5.106.164 op2 idx=7 change=6 aux_word1=3 tlv_marker=1" },
        { [](auto *c) { return rtslib_ifdm_pointchange(c, 7, 6, [](void *, uint8_t **, const void *, uint32_t) {
              return -2; }, stream, 8); }, 22, "" },
        { [](auto *c) { return rtslib_iflm_get_by_device(c, 7, 5, 4, &message, &mask); }, 0,
          "6.107.204 op4 unit=5 ifd_idx=7" },
        { [](auto *c) { return rtslib_iflm_update(c, 1, 2, 3, 4, "ge", address, 1); }, 0,
          "6.107.204 op1 ifl_idx=1 unit=3 ifd_idx=2 snmpid=4 gateway=04120102 name=ge" },
        { [](auto *c) { return rtslib_iflm_update_flags(c, 1, 2, 3, 4, "ge", 5, 2); }, 0,
          "6.107.204 op2 ifl_idx=1 unit=3 ifd_idx=2 snmpid=4 change=1 flags=5 name=ge" },
        { [](auto *c) { return rtslib_iflm_update_flags(c, 1, 2, 3, 4, "ge", 5, 1); }, 45, "" },
        { [](auto *c) { return rtslib_iflm_update_privflags(c, 1, 2, 3, 4, "ge", 5, 6, 2); }, 0,
          "6.107.204 op2 ifl_idx=1 unit=3 ifd_idx=2 snmpid=4 change=2 privflags=5 priv_byte=6 name=ge" },
        { [](auto *c) { return rtslib_iflm_pointchange_tlv(c, 1, 2, 3, 4, "ge", &item); }, 0,
          "6.107.204 op2 ifl_idx=1 unit=3 ifd_idx=2 snmpid=4 name=ge [225 bit=3 value=1]" },
        { [](auto *c) { return rtslib_iffm_get_by_dev_name(c, 28, "ge", 5, 4, &message, &mask); }, 0,
          "7.102.296 op4 subunit=5 af=28 name=ge" },
        { [](auto *c) { return rtslib_iffm_update(c, 1, 2, 3, 4, 5, 6, hw, 3, 1); }, 0,
          "7.102.296 op1 ifl_idx=1 af=2 aux_word1=3 aux_word2=4 aux_half1=5 aux_half2=6 options=031207" },
        { [](auto *c) { return rtslib_iffm_update(c, 1, 2, 3, 4, 5, 6, c->read_buffer, 16384, 1); }, 12, "" },
        { [](auto *c) { return rtslib_ifam_get_by_local_dest(c, 1, 2, prefix, 17, prefix, 9, 4, &message, &mask); }, 0,
          "8.101.156 op4 ifl_idx=1 af=2 local_bits=9 local=0a010000 dest_bits=17 dest=0a01ff00" },
        { [](auto *c) { return rtslib_ifam_update(c, 1, 2, prefix, 0, nullptr, 8, 1); }, 22, "" },
        { [](auto *c) { return rtslib_ifa_pointchange(c, 1, 2, prefix, 8, stream, 8); }, 0,
          "8.101.156 op2 ifl_idx=1 af=2 change=4096 local_bits=8 local=0a000000 [1 words=5,]" },
        { [](auto *c) { return rtslib_ifa_pointchange(c, 1, 2, prefix, 0, stream, 8); }, 22, "" },
    };
    rtslib_cookie *cookie = open();
    for (const auto &row : rows) {
        SCOPED_TRACE(row.sent);
        size_t before = kernel.written.size();
        message = mask = nullptr;
        kernel.replies = { { unit_reply(3, 2, "ge") } };
        EXPECT_EQ(row.run(cookie), row.result);
        EXPECT_EQ(kernel.written.size(), before + (row.result == 0 ? 1 : 0));
        if (row.result == 0) { EXPECT_EQ(sent(kernel.written.back(), cookie->seq), row.sent); }
        bool is_get = row.sent.find("op4") != std::string::npos || row.sent.find("op5") != std::string::npos;
        EXPECT_EQ(message != nullptr, is_get);
        rtslib_msg_idl_release(cookie, message);
        (void)rtslib_msg_read(cookie, cookie->read_buffer, nullptr);
        std::map<uint16_t, int> before_failure = blocks;
        allowance = 0;
        if (row.result == 0) { EXPECT_EQ(row.run(cookie), 12); }
        allowance = 1000;
        EXPECT_EQ(blocks, before_failure);
        if (row.result == 0) { EXPECT_EQ(row.run(nullptr), 22); }
    }
    rtslib_close(cookie);
}

/* An element; values are little-endian. */
octets element(uint16_t type, octets value, int length = -1)
{
    uint16_t head[] = { type, uint16_t(length >= 0 ? size_t(length) : value.size() + 4) };
    value.insert(value.begin(), reinterpret_cast<uint8_t *>(head), reinterpret_cast<uint8_t *>(head + 2));
    value.resize((value.size() + 3) / 4 * 4);
    return value;
}

octets operator+(octets a, const octets &b) { return a.insert(a.end(), b.begin(), b.end()), a; }

TEST_F(InterfaceTest, StreamsOfOptions)
{
    const octets two = { 5, 0, 0, 0, 6, 0, 0, 0 }, ragged = { 1, 2, 3, 4, 5 };
    const struct {
        octets stream;
        int result;
        std::string device_items, address_items;
    } rows[] = {
        { element(32, two) + element(20, ragged), 0, " [32 words=5,6,] [20 octets=0102030405]",
          " [32 words=5,6,] [20 octets=0102030405]" },
        // What has no item for devices goes last, in one, and can be read as a stream again.
        { element(225, { 1, 2 }) + element(1, two) + element(481, {}) + element(387, { 9 }), 0,
          " [1 words=5,6,] [117440767 octets=e1000600010200" "00e1010400830105000900" "0000]",
          " [225 bit=1 value=2] [1 words=5,6,] [117440767 octets=e1010400] [387 opcode=9]" },
        // A list that ends amid a word, a layout in part and one that is too long.
        { element(14, ragged), 0, " [117440767 octets=0e000900010203040500" "0000]",
          " [117440767 octets=0e0009000102030405]" },
        { element(10, { 7, 0, 0, 0 }) + element(10, two + two), 0,
          " [10 up_ms=7] [117440767 octets=0a001400" "05000000060000000500000006000000]",
          " [10 up_ms=7] [117440767 octets=0a001400" "05000000060000000500000006000000]" },
        { element(225, { 1, 2, 3 }), 0, " [117440767 octets=e100070001020300]", " [117440767 octets=e1000700010203]" },
        { element(438, ragged), 0, " [438 block=0102*588]", " [438 block=0102*588]" },
        { element(1, two) + element(0, {}, 0) + element(2, two), 0, " [1 words=5,6,]", " [1 words=5,6,]" },
        { element(1, two) + element(2, two, 13), 22, "", "" },
        { element(1, two) + element(2, two, 3), 22, "", "" },
        { element(1, two) + octets{ 1, 2 }, 22, "", "" },
        { element(4, octets(15500)), 12, "", "" },
        { element(438, octets(588)) + element(4, octets(14500)), 12, "", "" },
    };
    rtslib_cookie *cookie = open();
    for (const auto &row : rows) {
        const void *from = row.stream.data();
        uint32_t length = uint32_t(row.stream.size());
        EXPECT_EQ(rtslib_ifdm_change_tlvs(cookie, 7, 0, from, length), row.result);
        octets device = kernel.written.empty() ? octets() : kernel.written.back();
        EXPECT_EQ(rtslib_ifa_pointchange(cookie, 7, 2, prefix, 8, from, length), row.result);
        if (row.result != 0) continue;
        EXPECT_EQ(sent(device, cookie->seq - 1), "5.106.164 op2 idx=7 tlv_marker=1" + row.device_items);
        EXPECT_EQ(sent(kernel.written.back(), cookie->seq),
                  "8.101.156 op2 ifl_idx=7 af=2 change=4096 local_bits=8 local=0a000000" + row.address_items);
    }
    octets many;
    for (int i = 0; i < 129; i++) many = many + element(1, {});
    EXPECT_EQ(rtslib_ifdm_change_tlvs(cookie, 7, 0, many.data(), uint32_t(many.size())), 12);
    rtslib_close(cookie);
}

TEST_F(InterfaceTest, Statistics)
{
    const struct {
        int (*run)(rtslib_cookie *);
        bool replies;
        int result;
        std::string sent;   // version, type and operation; length; what is behind the header, without zeroes at its end
    } rows[] = {
        { [](auto *c) { return rtslib_ifdsm_get_by_index(c, 7, 8, 4, &message); }, true, 0, "630f04 80 07000800" },
        { [](auto *c) { return rtslib_ifdsm_get_by_name(c, longer.c_str(), 8, 5, &message); }, true, 0,
          "630f05 141 0000083d" },
        { [](auto *c) { return rtslib_ifdsm_voq_get_by_index(c, 7, 8, 4, &message); }, true, 0,
          "630f04 80 0700080000010000" },
        { [](auto *c) { return rtslib_ifdsm_lb_stats_get_by_index(c, 7, 8, 4, &message, 5, 6); }, true, 0,
          "630f04 80 070008000000060005000000" },
        { [](auto *c) { return rtslib_ifdsm_lb_stats_clear_by_index(c, 7, 8, 9); }, false, 0,
          "630f06 80 070008000000090000400000" },
        { [](auto *c) { return rtslib_iffsm_get_by_index(c, 7, 28, 8, 4, &message); }, true, 0,
          "644604 48 070000001c08" },
        { [](auto *c) { return rtslib_iflsm_get_by_index_and_subtype(c, 7, 8, 4, 9, &message); }, true, 0,
          "641004 72 070000000000080009000000" },
        { [](auto *c) { return rtslib_iflsm_get_by_name(c, "ge.0", 8, 4, &message); }, true, 0,
          "641004 77 0000000000000805" },
        { [](auto *c) { return async_rtslib_ifdsm_get_by_index_kernel(c, 5, 7, "xle-0", 8, 4, 9); }, false, 0,
          "630f04 86 07000806010000000500000009000000" },
        { [](auto *c) { return async_rtslib_iflsm_get_by_index_kernel(c, 7, "ge-0.1", 8, 4, 9); }, false, 0,
          "641004 79 07000000010008070000000009000000" },
        { [](auto *c) { return async_rtslib_iflsm_get_by_index_kernel(c, 7, "ge-0.1", 8, 6, 9); }, false, 45, "" },
        { [](auto *c) { return async_rtslib_iflsm_get_by_index_kernel(c, 7, "lo0", 8, 4, 9); }, false, 45, "" },
        { [](auto *c) { return async_rtslib_iflsm_get_by_index_kernel(c, 7, nullptr, 8, 4, 9); }, false, 22, "" },
    };
    rtslib_cookie *cookie = open();
    for (const auto &row : rows) {
        SCOPED_TRACE(row.sent);
        message = nullptr;
        kernel.written.clear();
        if (row.replies) kernel.replies = { { raw(90, 90, cookie->seq + 1) }, { raw(90, 90, cookie->seq + 1) } };
        EXPECT_EQ(row.run(cookie), row.result);
        EXPECT_EQ(row.run(nullptr), 22);
        EXPECT_EQ(kernel.written.size(), row.result == 0 ? 1U : 0U);
        if (row.result != 0) continue;
        const octets &o = kernel.written.back();
        size_t digits = row.sent.size() - row.sent.rfind(' ') - 1;
        EXPECT_EQ(hex(&o[4], 3) + " " + std::to_string(o.size()) + " " + hex(&o[24], digits / 2), row.sent);
        EXPECT_EQ(hex(&o[8], 8), hex(std::vector<uint32_t>{ uint32_t(o.size()), cookie->seq }.data(), 8));
        EXPECT_EQ(message != nullptr, row.replies);
        rtslib_msg_free(cookie, message);
        if (row.replies) { EXPECT_EQ(row.run(cookie), -2) << "a reply to another request"; }
        EXPECT_EQ(row.replies && message != nullptr, false);
        kernel.replies.clear();
        (void)take_reports();
    }
    rtslib_close(cookie);
}

}   // namespace
