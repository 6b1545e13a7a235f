/*
 * What the library and the storage of its clients count on in the catalogue's tables.
 */
#include "lib/librtsock/idl/idl.h"

#include <gtest/gtest.h>
#include <span>

// Laid over storage that clients fill, or told by number to a peer.
static_assert(sizeof(struct gencfg_peerinfo) == 40 && offsetof(struct gencfg_peerinfo, peer) == 8);
static_assert(sizeof(struct gencfg_depinfo) == 24 && offsetof(struct gencfg_depinfo, data) == 8);
static_assert(sizeof(struct rnh_service) == 388 && sizeof(struct rtb_svcs_chan) == 44);
static_assert(sizeof(struct if_module_eprom) == 588);

// A nested type without the outer one's form would be carried in another dialect, or not at all.
TEST(tables, nested_types_speak_the_dialect_of_the_outer_one)
{
    for (const struct idl_type *type : std::span(idl_catalogue, idl_catalogue_count)) {
        for (const struct idl_field &field : std::span(type->it_fields, type->it_count)) {
            const struct idl_type *nested = field.if_type != nullptr ? field.if_type : type;
            EXPECT_EQ(nested->it_dialect, type->it_dialect) << type->it_name << "." << field.if_name;
        }
    }
}

TEST(tables, every_message_begins_with_the_header)
{
    uint32_t messages = 0;
    for (uint32_t number = 0; number < 110; number++) {
        const struct idl_type *type = idl_message_type(number);
        if (type == nullptr)
            continue;
        messages++;
        EXPECT_STREQ(type->it_fields[0].if_name, "rts_hdr") << number;
        EXPECT_EQ(type->it_fields[0].if_offset, 0U) << number;
        EXPECT_EQ(type->it_fields[0].if_tag, 1U) << number;
    }
    EXPECT_EQ(messages, 45U);
}
