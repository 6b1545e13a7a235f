/*
 * What holds for every type of the catalogue, shown on random records of each.
 */
#include "tests/lib/librtsock/idl/random_record.h"
#include "tests/platform/confdb/alloc_faults.h"

#include <gtest/gtest.h>
#include <string.h>

namespace {

struct form {
    bool tlv, mapped;
};
constexpr form forms[] = { { true, true }, { true, false }, { false, false } };

bool has_form(const struct idl_type *type, const form &f)
{
    return type->it_dialect != (f.tlv ? IDL_DIALECT_IDR : IDL_DIALECT_NETWORK);
}

std::vector<uint8_t> encode(const struct idl_type *type, const form &f, const void *record, const void *map = nullptr)
{
    return f.tlv ? tlv_of(type, record, map) : idr_of(type, record);
}

int32_t decode(const struct idl_type *type, const form &f, void *record, void *map, const uint8_t *data, size_t length,
               heap *h)
{
    idl_alloc_func take = h != nullptr ? heap::take : nullptr;
    return f.tlv ? idl_tlv_decode(type, record, f.mapped ? map : nullptr, data, length, take, h)
                 : idl_idr_decode(type, record, data, length, take, h);
}

struct all_types : testing::Test {
    random_source source;

    /* Calls check for some random records of each type in each form that it has. */
    template <typename checker> void each(int records, checker check)
    {
        for (uint32_t n = 0; n < idl_catalogue_count; n++) {
            const struct idl_type *type = idl_catalogue[n];
            for (int i = 0; i < records; i++) {
                source.memory.live.clear();
                auto record = room_for(type->it_size);
                fill_record(source, type, record.data());
                for (const form &f : forms) {
                    SCOPED_TRACE(std::string(type->it_name) + (f.tlv ? f.mapped ? " tlv, map" : " tlv" : " idr"));
                    if (has_form(type, f))
                        check(type, f, record.data(), encode(type, f, record.data()));
                }
            }
        }
    }
};

}   // namespace

TEST_F(all_types, come_back_as_they_went_and_leave_nothing)
{
    each(4, [](const idl_type *type, const form &f, const void *, const std::vector<uint8_t> &octets) {
        heap memory;
        auto again = room_for(type->it_size);
        auto map = room_for(type->it_map_size);
        ASSERT_EQ(decode(type, f, again.data(), map.data(), octets.data(), octets.size(), &memory),
                  int32_t(octets.size()));
        EXPECT_EQ(encode(type, f, again.data()), octets);
        if (f.mapped) {
            EXPECT_EQ(tlv_of(type, again.data(), map.data()), octets);   // what was there is written again, no more
        }
        idl_tlv_release(type, again.data(), f.mapped ? map.data() : nullptr, heap::give, &memory);
        EXPECT_TRUE(memory.live.empty());
        EXPECT_LE(memory.largest, 64 * octets.size() + 64);
    });
}

TEST_F(all_types, need_the_same_size_whatever_the_buffer)
{
    each(1, [](const idl_type *type, const form &f, const void *record, const std::vector<uint8_t> &octets) {
        for (size_t size = 0; size <= octets.size(); size += 1 + octets.size() / 200) {
            std::vector<uint8_t> buffer(size);   // to the octet: the sanitizer sees what goes past it
            good_allocations = 0;   // the first allocation would fail, and be counted
            int32_t needed = f.tlv ? idl_tlv_encode(type, record, nullptr, buffer.data(), size)
                                   : idl_idr_encode(type, record, buffer.data(), size);
            bool allocates = good_allocations != 0;
            good_allocations = -1;
            ASSERT_FALSE(allocates);
            ASSERT_EQ(needed, int32_t(octets.size()));
        }
    });
}

TEST_F(all_types, fail_cleanly_when_octets_or_memory_run_out)
{
    each(1, [](const idl_type *type, const form &f, const void *, const std::vector<uint8_t> &octets) {
        auto record = room_for(type->it_size);
        auto map = room_for(type->it_map_size);
        heap whole;
        decode(type, f, record.data(), map.data(), octets.data(), octets.size(), &whole);
        for (int left = 0; left < whole.taken; left += 1 + whole.taken / 20) {
            heap memory;
            memory.left = left;
            ASSERT_EQ(decode(type, f, record.data(), map.data(), octets.data(), octets.size(), &memory),
                      IDL_CODE_ALLOC);
        }
        if (whole.taken > 0) {
            ASSERT_EQ(decode(type, f, record.data(), map.data(), octets.data(), octets.size(), nullptr),
                      IDL_CODE_ALLOC);
        }
        for (size_t cut = 0; cut < octets.size(); cut += 1 + octets.size() / 100) {
            std::vector<uint8_t> data(octets.begin(), octets.begin() + long(cut));
            heap memory;
            int32_t result = decode(type, f, record.data(), map.data(), data.data(), data.size(), &memory);
            if (f.tlv) {
                ASSERT_LE(result, int32_t(cut));
            } else if (!type->it_choice && result > int32_t(cut)) {
                ASSERT_EQ(result, int32_t((cut + 3) & ~size_t(3)));   // only the padding was missing
            }
        }
    });
}

TEST(catalogue, messages_come_back_in_both_forms)
{
    random_source source;
    for (uint32_t number = 0; number < 112; number++) {
        const struct idl_type *type = idl_message_type(number);
        if (type == nullptr)
            continue;
        SCOPED_TRACE(number);
        EXPECT_EQ(type->it_fields[0].if_tag, 1U);
        auto record = room_for(type->it_size);
        fill_record(source, type, record.data());
        struct rts_msg message = { number, record.data() };
        for (bool tlv : { true, false }) {
            auto size = [&](void *buffer, size_t room) {
                return tlv ? tlv_encode_rts_msg_0(&message, nullptr, buffer, room)
                           : idr_encode_rts_msg_0(&message, buffer, room);
            };
            std::vector<uint8_t> octets(size_t(size(nullptr, 0)));
            ASSERT_EQ(size(octets.data(), octets.size()), int32_t(octets.size()));
            heap memory;
            struct rts_msg again;
            struct map_rts_msg map;
            int32_t used = tlv ? tlv_decode_rts_msg_0(&again, &map, octets.data(), octets.size(), heap::take, &memory)
                               : idr_decode_rts_msg_0(&again, octets.data(), octets.size(), heap::take, &memory);
            ASSERT_EQ(used, int32_t(octets.size()));
            EXPECT_EQ(idr_of(type, again.msg), idr_of(type, record.data()));
            tlv_release_rts_msg_0(&again, tlv ? &map : nullptr, heap::give, &memory);
            EXPECT_TRUE(memory.live.empty());
        }
    }
}
