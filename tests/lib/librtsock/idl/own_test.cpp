/*
 * Adding a type is adding a table: a catalogue that the library has never heard of has codecs all the same. Its types
 * are made to meet what the library's own do not.
 */
#include "tests/lib/librtsock/idl/random_record.h"

#include <gtest/gtest.h>
#include <string.h>

#define IDL_CATALOGUE "tests/lib/librtsock/idl/own.def"
#include "lib/librtsock/idl/idl_declare.h"
#include "lib/librtsock/idl/idl_define.h"

using octets = std::vector<uint8_t>;

TEST(own_catalogue, has_codecs)
{
    struct own_point points[] = { { 1, 2 }, { 3, 4 } };
    char name[] = "ab";
    const struct own_shape shape = { 7, name, 3, points, 2 };
    // Worked out by hand: colour and padding; length 3, text, padding; count 2 and two points of two half-words.
    EXPECT_EQ(idr_of(&idl_type_own_shape, &shape),
              octets({ 7, 0, 0, 0, 3, 0, 0, 0, 'a', 'b', 0, 0, 2, 0, 0, 0, 1, 0, 2, 0, 3, 0, 4, 0 }));

    octets tlv = tlv_of(&idl_type_own_shape, &shape);
    ASSERT_EQ(tlv.size(), 12U + 12 + 2 * (8 + 2 * 12));
    heap memory;
    struct own_shape again;
    struct map_own_shape map;
    ASSERT_EQ(tlv_decode_own_shape_2(&again, &map, tlv.data(), tlv.size(), heap::take, &memory), int32_t(tlv.size()));
    EXPECT_STREQ(again.name, "ab");
    EXPECT_EQ(again.points[1].y, 4);
    EXPECT_TRUE(map.colour && map.points && map.points_map[1].y);

    map.points_map[0] = {};   // an item of nothing is an item
    EXPECT_EQ(tlv_encode_own_shape_2(&again, &map, nullptr, 0), int32_t(tlv.size()) - 24);
    again.points = nullptr;   // a count of what is not there counts nothing
    again.name = nullptr;
    EXPECT_EQ(tlv_encode_own_shape_2(&again, nullptr, nullptr, 0), 12 + 8);
    EXPECT_EQ(idr_encode_own_shape_2(&again, nullptr, 0), 4 + 4 + 4);
}

TEST(own_catalogue, flat_form_where_memory_and_wire_part)
{
    struct own_gaps record;
    memset(&record, 0xa5, sizeof record);   // what gaps hold stays here
    uint8_t odd[] = { 'x', 'y', 'z' };
    record.half = 1;
    record.point = { 2, 3 };
    record.octet = 4;
    record.word = 5;
    record.odd = odd;
    record.odd_len = sizeof odd;
    record.behind = 6;
    record.next = 7;
    record.wide = 0x0102030405060708;
    const octets wire = { 1, 0, 0, 0, 2, 0, 3, 0, 4, 0, 0, 0, 5, 0, 0, 0, 3, 0, 0, 0, 'x', 'y', 'z',
                          6, 7, 0, 0, 0, 8, 7, 6, 5, 4, 3, 2, 1 };
    EXPECT_EQ(idr_of(&idl_type_own_gaps, &record), wire);
    heap memory;
    struct own_gaps again;
    ASSERT_EQ(idr_decode_own_gaps_0(&again, wire.data(), wire.size(), heap::take, &memory), int32_t(wire.size()));
    EXPECT_EQ(tlv_of(&idl_type_own_gaps, &again), tlv_of(&idl_type_own_gaps, &record));
}

TEST(own_catalogue, choices)
{
    const struct {
        const char *name;
        octets data;
        int32_t result;
        uint32_t tag;
    } rows[] = {
        { "eleven octets", octets(11), 0, UINT32_MAX },
        { "length wraps", { 0, 0, 0, 0, 0xf8, 0xff, 0xff, 0xff, 2, 0, 0, 0 }, -1, UINT32_MAX },
        { "body cut off", { 0, 0, 0, 0, 4, 0, 0, 0, 1, 0, 0, 1, 0, 0, 0 }, 0, UINT32_MAX },
        { "unknown", { 0, 0, 0, 0, 2, 0, 0, 0, 9, 0, 0, 0, 1, 2, 3 }, 14, 9 },
        { "known", { 0, 0, 0, 0, 4, 0, 0, 0, 1, 0, 0, 1, 1, 0, 2, 0 }, 16, 0x1000001 },
        { "grown", { 0, 0, 0, 0, 8, 0, 0, 0, 1, 0, 0, 1, 1, 0, 2, 0, 3, 0, 0, 0 }, -1, 0x1000001 },
    };
    for (const auto &row : rows) {
        struct own_choice choice;
        heap memory;
        EXPECT_EQ(idr_decode_own_choice_0(&choice, row.data.data(), row.data.size(), heap::take, &memory), row.result)
            << row.name;
        EXPECT_EQ(choice.tag, row.tag) << row.name;
    }
    // An unknown member, and a known one that is not there: a header of length 0.
    for (uint32_t tag : { 9U, 2U }) {
        const struct own_choice choice = { tag, {} };
        EXPECT_EQ(idr_of(&idl_type_own_choice, &choice), octets({ 0, 0, 0, 0, 0, 0, 0, 0, uint8_t(tag), 0, 0, 0 }));
    }
    char name[] = "ab";
    struct own_shape shape = { 7, name, 3, nullptr, 0 };
    struct own_choice choice = { 2, {} };
    choice.u.shape = &shape;
    EXPECT_EQ(tlv_encode_own_choice_0(&choice, nullptr, nullptr, 0), 12 + 12 + 12);
}

TEST(own_catalogue, network_dialect)
{
    octets data(70000 - 4);
    uint32_t words[] = { 0x01020304 };
    const struct own_packet packet = { 9, 0x0102, 0x0102030405060708, words, 1, { data.data(), uint32_t(data.size()) },
                                       6 };
    // The nested record's 70000 octets are 4464 and 65536: what stands behind it lands on it.
    const octets begin = { 0, 1, 0, 1, 9, 0, 0, 0, 0, 2, 0, 2, 1, 2, 0, 0, 0, 3, 0, 8, 1, 2, 3, 4, 5, 6, 7, 8,
                           0, 4, 0, 4, 1, 2, 3, 4, 0, 5, 0x11, 0x70 };
    octets out(begin.size() + 70000);
    ASSERT_EQ(tlv_encode_own_packet_0(&packet, nullptr, out.data(), out.size()), int32_t(begin.size()) + 4464 + 8);
    EXPECT_EQ(octets(out.begin(), out.begin() + long(begin.size())), begin);
    EXPECT_EQ(octets(&out[begin.size() + 4464], &out[begin.size() + 4464 + 8]), octets({ 0, 6, 0, 4, 0, 0, 0, 6 }));

    heap memory;
    struct own_packet again;
    const octets wide = { 0, 6, 0, 8, 9, 9, 9, 9, 0, 0, 0, 6 };   // flexible: the low part
    ASSERT_EQ(tlv_decode_own_packet_0(&again, nullptr, begin.data(), 36, heap::take, &memory), 36);
    EXPECT_EQ(again.wide, packet.wide);
    EXPECT_EQ(again.words[0], words[0]);
    ASSERT_EQ(tlv_decode_own_packet_0(&again, nullptr, wide.data(), wide.size(), heap::take, &memory), 12);
    EXPECT_EQ(again.last, 6U);
}

TEST(own_catalogue, a_nested_record_past_16_bits_is_cut_and_the_offset_with_it)
{
    std::vector<uint8_t> wide(69996, 0xee), out(80000);
    const struct own_nest nest = { { wide.data(), uint32_t(wide.size()) }, 7 };
    const int32_t cut = 70000 - 65536;   // header of the opaque and its octets, modulo 16 bits
    EXPECT_EQ(tlv_encode_own_nest_0(&nest, nullptr, out.data(), out.size()), 4 + cut + 8);
    EXPECT_EQ(out[2] << 8 | out[3], cut);
    EXPECT_EQ(std::vector<uint8_t>(&out[4 + cut], &out[4 + cut + 8]), (std::vector<uint8_t>{ 0, 2, 0, 4, 0, 0, 0, 7 }));
}
