/*
 * Octets worked out by hand, and the rules of both forms one by one.
 */
#include "tests/lib/librtsock/idl/random_record.h"

#include <gtest/gtest.h>
#include <string.h>

using octets = std::vector<uint8_t>;

/* A host-order element: tag, length, value; no padding. */
static octets element(uint32_t tag, const octets &value)
{
    octets out(8);
    uint32_t length = uint32_t(value.size());
    memcpy(out.data(), &tag, 4);
    memcpy(out.data() + 4, &length, 4);
    out.insert(out.end(), value.begin(), value.end());
    return out;
}

static octets operator+(octets a, const octets &b)
{
    a.insert(a.end(), b.begin(), b.end());
    return a;
}

TEST(golden, small_records)
{
    const struct timeval_idl time = { 0x01020304, 5 };
    EXPECT_EQ(tlv_of(&idl_type_timeval, &time), element(1, { 4, 3, 2, 1 }) + element(2, { 5, 0, 0, 0 }));
    EXPECT_EQ(idr_of(&idl_type_timeval, &time), octets({ 4, 3, 2, 1, 5, 0, 0, 0 }));

    // Six octets and two of padding, in both forms; of a buffer of six the flat form fills all.
    const struct ether_addr_idl ether = { { 1, 2, 3, 4, 5, 6 } };
    EXPECT_EQ(tlv_of(&idl_type_ether_addr, &ether), element(1, { 1, 2, 3, 4, 5, 6 }) + octets({ 0, 0 }));
    uint8_t six[6] = {};
    EXPECT_EQ(idr_encode_ether_addr_0(&ether, six, sizeof six), 8);
    EXPECT_EQ(memcmp(six, ether.octet, 6), 0);

    const struct in6_addr_idl address = { 1, 2, 3, 4 };
    EXPECT_EQ(tlv_encode_in6_addr_idl_0(&address, nullptr, nullptr, 0), 4 * 12);
    EXPECT_EQ(idr_of(&idl_type_in6_addr_idl, &address),
              octets({ 1, 0, 0, 0, 2, 0, 0, 0, 3, 0, 0, 0, 4, 0, 0, 0 }));
}

TEST(golden, header)
{
    const struct rts_hdr header = { 0, 98, 1, 4, 2, 0x11223344, 7, 3, 200, 9, 5, nullptr, 0 };
    // As in the raw form up to offset 23, then the count of items.
    EXPECT_EQ(idr_of(&idl_type_rts_hdr, &header), octets({ 0, 0, 0, 0, 98, 1, 4,   2, 0x44, 0x33, 0x22, 0x11, 7, 0,
                                                           0, 0, 3, 0, 0,  0, 200, 0, 9,    5,    0,    0,    0, 0 }));
    octets tlv = tlv_of(&idl_type_rts_hdr, &header);
    ASSERT_EQ(tlv.size(), 132U);
    const uint8_t tags[] = { 1, 2, 3, 4, 5, 6, 7, 8, 9, 12, 10 };
    for (size_t i = 0; i < sizeof tags; i++)
        EXPECT_EQ(tlv[12 * i], tags[i]);

    struct map_rts_hdr map = {};
    EXPECT_EQ(tlv_encode_rts_hdr_0(&header, &map, nullptr, 0), 0);
    map.rtsh_creator = map.rtsh_sender = 1;
    uint32_t word;
    memcpy(&word, &map, sizeof word);
    EXPECT_EQ(word, 1U << 9 | 1U << 7);
    EXPECT_EQ(tlv_encode_rts_hdr_0(&header, &map, nullptr, 0), 24);
}

TEST(golden, table_message_of_an_old_sender)
{
    octets body = element(1, element(3, { 1, 0, 0, 0 })) + element(2, { 9, 0 }) + octets({ 0, 0 }) +
                  element(3, { 5, 0, 0, 0 }) + element(4, { 28, 0, 0, 0 }) + element(5, { 6 });
    struct rtb_msg message;
    struct map_rtb_msg map;
    heap memory;
    // The last element lacks its padding, and the result tells so.
    ASSERT_EQ(tlv_decode_rtb_msg_0(&message, &map, body.data(), body.size(), heap::take, &memory),
              int32_t(body.size()));
    EXPECT_EQ(message.rts_hdr.rtsh_type, 1);
    EXPECT_EQ(message.tid, 5);
    EXPECT_EQ(message.af, 28);
    EXPECT_EQ(message.name, nullptr);
    EXPECT_TRUE(map.rts_hdr && map.rts_hdr_map.rtsh_type && map.tid && map.af);
    EXPECT_FALSE(map.name || map.flags || map.rts_hdr_map.rtsh_seq);
}

TEST(golden, network_dialect)
{
    const struct mcf_filter_key key = { 0x01020304, 28, 5, 0x0607 };
    EXPECT_EQ(tlv_of(&idl_type_mcf_filter_key, &key), octets({ 0, 1, 0, 4, 1, 2, 3, 4, 0, 2, 0, 1, 28, 0, 0, 0,
                                                               0, 3, 0, 1, 5, 0, 0, 0, 0, 4, 0, 2, 6,  7, 0, 0 }));
    // One octet short: the same size, and the last element is missing.
    octets buffer(31, 0xee);
    EXPECT_EQ(tlv_encode_mcf_filter_key_0(&key, nullptr, buffer.data(), 29), 32);
    EXPECT_EQ(octets(buffer.begin() + 24, buffer.end()), octets(7, 0xee));
}

TEST(tlv, what_a_reader_makes_of_odd_elements)
{
    const struct {
        const char *name;
        octets data;
        int32_t with_map, without;   // results
        uint32_t first, last;        // tv_sec with a map and without
    } rows[] = {
        { "unknown tag between",
          element(1, { 1, 0, 0, 0 }) + element(99, { 1, 2, 3 }) + octets({ 0 }) + element(2, { 2, 0, 0, 0 }), 36, 36, 1,
          1 },
        { "grown field", element(1, { 1, 0, 0, 0, 7, 7, 7, 7 }), 16, 16, 1, 1 },
        { "short field", element(1, { 1, 0, 0 }), -1, -1, 0, 0 },
        { "repeated", element(1, { 1, 0, 0, 0 }) + element(1, { 2, 0, 0, 0 }), 24, 24, 1, 2 },
        { "truncated", element(1, { 1, 0, 0, 0 }) + octets({ 2, 0, 0, 0, 4, 0, 0, 0, 1 }), 12, 12, 1, 1 },
        { "half a header", element(1, { 1, 0, 0, 0 }) + octets({ 2, 0, 0 }), 12, 12, 1, 1 },
    };
    for (const auto &row : rows) {
        SCOPED_TRACE(row.name);
        struct timeval_idl time;
        struct map_timeval map;
        EXPECT_EQ(tlv_decode_timeval_0(&time, &map, row.data.data(), row.data.size()), row.with_map);
        if (row.with_map > 0) {
            EXPECT_EQ(time.tv_sec, row.first);
        }
        EXPECT_EQ(tlv_decode_timeval_0(&time, nullptr, row.data.data(), row.data.size()), row.without);
        if (row.without > 0) {
            EXPECT_EQ(time.tv_sec, row.last);
        }
    }
}

TEST(tlv, flexible_widths_and_families)
{
    const octets widths[] = { { 7 }, { 7, 0 }, { 7, 0, 0, 0 }, { 7, 0, 0, 0, 0, 0, 0, 0 }, { 7, 0, 0 } };
    for (const octets &value : widths) {
        struct rtb_msg message;
        heap memory;
        octets data = element(8, value);
        EXPECT_GT(tlv_decode_rtb_msg_0(&message, nullptr, data.data(), data.size(), heap::take, &memory), 0);
        EXPECT_EQ(message.prflags, value.size() == 3 ? 0U : 7U);
    }
    EXPECT_EQ(rts_decode_af(37), 39);
    EXPECT_EQ(rts_decode_af(42), 0);
    EXPECT_EQ(rts_decode_af(91), 145);
    EXPECT_EQ(rts_encode_af(rts_decode_af(21)), 0);
    EXPECT_EQ(rts_encode_af(145), 91);
    EXPECT_EQ(rts_encode_af(50), 0);
    testing::internal::CaptureStderr();
    EXPECT_EQ(rts_decode_af(92), 92);
    EXPECT_EQ(rts_encode_af(146), 146);
    EXPECT_NE(testing::internal::GetCapturedStderr().find("rts_encode_af: Invalid address family 146"),
              std::string::npos);
}

TEST(tlv, lists_and_nested_records)
{
    octets item = element(11, { 0, 0, 0, 0, 0, 0, 0, 0, 0xee, 0, 0, 0 });
    struct rts_hdr header;
    heap memory;
    octets two = item + item;
    ASSERT_EQ(tlv_decode_rts_hdr_0(&header, nullptr, two.data(), two.size(), heap::take, &memory), int32_t(two.size()));
    EXPECT_EQ(header.rtsh_info_len, 2U);
    EXPECT_EQ(header.rtsh_info[1]->tag, 0xeeU);
    // A second run: garbled, but with a map passed over.
    octets runs = item + element(2, { 1, 0, 0, 0 }) + item;
    struct map_rts_hdr map;
    EXPECT_EQ(tlv_decode_rts_hdr_0(&header, nullptr, runs.data(), runs.size(), heap::take, &memory), IDL_CODE_GARBLED);
    EXPECT_EQ(tlv_decode_rts_hdr_0(&header, &map, runs.data(), runs.size(), heap::take, &memory), int32_t(runs.size()));
    EXPECT_EQ(header.rtsh_info_len, 1U);
    // Stray octets at the end of a nested record.
    struct rts_base base;
    octets stray = element(1, element(2, { 1, 0, 0, 0 }) + octets({ 0, 0, 0, 0 }));
    EXPECT_EQ(tlv_decode_rts_base_0(&base, nullptr, stray.data(), stray.size(), heap::take, &memory), IDL_CODE_GARBLED);
    EXPECT_EQ(tlv_decode_rts_base_0(&base, nullptr, two.data(), two.size(), nullptr, nullptr), int32_t(two.size()));
    octets nested = element(1, two);
    EXPECT_EQ(tlv_decode_rts_base_0(&base, nullptr, nested.data(), nested.size(), nullptr, nullptr), IDL_CODE_ALLOC);
    EXPECT_EQ(tlv_decode_rts_base_0(&base, nullptr, (nested + nested).data(), 2 * nested.size(), heap::take, &memory),
              IDL_CODE_GARBLED);
}

TEST(idr, short_and_surplus_octets)
{
    const uint8_t twelve[12] = { 1 };
    struct timeval_idl time;
    EXPECT_EQ(idr_decode_timeval_0(&time, twelve, 7), IDL_CODE_GARBLED);
    EXPECT_EQ(idr_decode_timeval_0(&time, twelve, 8), 8);
    EXPECT_EQ(idr_decode_timeval_0(&time, twelve, 12), 8);

    octets header(28);
    struct rts_hdr decoded;
    heap memory;
    EXPECT_EQ(idr_decode_rts_hdr_0(&decoded, header.data(), 27, heap::take, &memory), IDL_CODE_GARBLED);
    EXPECT_EQ(idr_decode_rts_hdr_0(&decoded, header.data(), 28, heap::take, &memory), 28);
    header[24] = 2;   // items that are not there: believed as far as that is harmless
    EXPECT_EQ(idr_decode_rts_hdr_0(&decoded, header.data(), 28, nullptr, nullptr), IDL_CODE_ALLOC);
    EXPECT_EQ(idr_decode_rts_hdr_0(&decoded, header.data(), 28, heap::take, &memory), IDL_CODE_GARBLED);
    EXPECT_EQ(memory.taken, 2);   // the array and the first item
    memset(&header[24], 0xff, 4);
    EXPECT_EQ(idr_decode_rts_hdr_0(&decoded, header.data(), 28, heap::take, &memory), IDL_CODE_GARBLED);
    EXPECT_EQ(memory.taken, 2);
}

TEST(frame, envelopes)
{
    auto envelope = [](uint32_t magic, uint32_t length, uint32_t type, size_t body) {
        octets data(12 + body);
        const uint32_t words[] = { magic, length, type };
        memcpy(data.data(), words, sizeof words);
        return data;
    };
    const struct {
        const char *name;
        octets data;
        int32_t idr;
    } rows[] = {
        { "eleven octets", octets(11), IDL_CODE_SIZE },
        { "wrong magic", envelope(0x5011, 0, 3, 0), IDL_CODE_MAGIC },
        { "claims more", envelope(0x5022, 4, 0, 3), IDL_CODE_SIZE },
        { "wraps", envelope(0x5022, UINT32_MAX, 0, 3), IDL_CODE_GARBLED },
        { "no codec", envelope(0x5022, 5, 3, 5), 17 },
        { "beyond the types", envelope(0x5022, 0, 109, 0), 12 },
        { "body longer than its record", envelope(0x5022, 32, 0, 32), IDL_CODE_GARBLED },
        { "header alone", envelope(0x5022, 28, 0, 28), 40 },
    };
    for (const auto &row : rows) {
        SCOPED_TRACE(row.name);
        struct rts_msg message;
        heap memory;
        EXPECT_EQ(idr_decode_rts_msg_0(&message, row.data.data(), row.data.size(), heap::take, &memory), row.idr);
    }
    // A type without a codec, and a message without a record: the envelope alone.
    uint8_t buffer[12];
    for (uint32_t type : { 3U, 1U, 200U }) {
        const struct rts_msg message = { type, nullptr };
        EXPECT_EQ(tlv_encode_rts_msg_0(&message, nullptr, buffer, sizeof buffer), 12);
        EXPECT_EQ(octets(buffer, buffer + 12), envelope(0x5011, 0, type, 0));
    }
}
