/*
 * Lists of messages: what they own, and whole tables of interfaces.
 */
#include "tests/lib/librtsock/interface/describe.h"
#include "lib/librtsock/rtslib_interface.h"

namespace {

rts_hdr *typed(rtslib_cookie *cookie, uint8_t type)
{
    auto *header = static_cast<rts_hdr *>(rtslib_msg_malloc(cookie));
    header->rtsh_type = type;
    return header;
}

TEST_F(InterfaceTest, ListsGrow)
{
    rtslib_cookie *cookie = open();
    rtslib_msg_list *list = rtslib_msg_list_alloc(cookie);
    for (int i = 0; i < 32; i++) {
        EXPECT_EQ(rtslib_msg_list_add(cookie, list, typed(cookie, 6)), 0);
        EXPECT_EQ(list->count + list->free, i < 16 ? 16 : 32);
    }
    rts_hdr *route = typed(cookie, 2);
    EXPECT_EQ(rtslib_msg_list_add(cookie, list, route), 22);
    route->rtsh_type = 6;
    allowance = 0;
    EXPECT_EQ(rtslib_msg_list_add(cookie, list, route), 12);
    allowance = 1000;
    rtslib_msg_free(cookie, route);
    EXPECT_EQ(rtslib_msg_list_get_by_index(list, 31), list->array[31]);
    EXPECT_EQ(rtslib_msg_list_get_by_index(list, 32), nullptr);
    rtslib_msg_list_free(cookie, list);
    rtslib_close(cookie);
}

TEST_F(InterfaceTest, WholeTables)
{
    rtslib_cookie *cookie = open();
    octets both = unit_reply(3, 0, "ge-0"), coded = both, second = unit_reply(4, 1, "ge-0");
    both.insert(both.end(), second.begin(), second.end());
    octets cut(both.begin(), both.end() - 1);
    coded[8] = 15;   // a type without a codec
    const struct {
        octets value;
        int result;
    } rows[] = { { both, 0 }, { cut, 22 }, { {}, 22 }, { { 1, 2 }, 22 }, { coded, 45 }, { raw(24, 24), 45 } };
    std::map<uint16_t, int> before = blocks;
    for (const auto &row : rows) {
        rtslib_msg_list *list = nullptr;
        extra.value = row.value;
        EXPECT_EQ(rtslib_iflm_get_all(cookie, &list), row.result) << &row - rows;
        EXPECT_EQ(list != nullptr, row.result == 0);
        if (list != nullptr) { EXPECT_EQ(static_cast<ifl_msg *>(list->array[list->count - 1])->ifl_idx, 4U); }
        rtslib_msg_list_free(cookie, list);
        for (int n = 0; row.result == 0 && n < 6; n++) {
            allowance = n;
            EXPECT_EQ(rtslib_iflm_get_all(cookie, &list), 12) << n;
            allowance = 1000;
        }
        EXPECT_EQ(blocks, before);
    }
    EXPECT_EQ(extra.name, "040000001100000000000000000000000300000002000000");

    // Raw messages stay in the filler's buffer, and are not the list's.
    rtslib_msg_list *list = rtslib_msg_list_alloc(cookie);
    octets two = raw(48, 24);
    two[32] = 24;
    EXPECT_EQ(rtslib_msg_list_fillin(cookie, list, 48, two.data()), 0);
    EXPECT_EQ(list->kind, RTSLIB_LIST_DECODED);
    EXPECT_EQ(rtslib_msg_list_get_by_index(list, 1), &two[24]);
    EXPECT_EQ(rtslib_msg_list_add(cookie, list, two.data()), 22);
    rtslib_msg_list_free(cookie, list);

    // A list that a client makes of a buffer of its own owns that.
    list = rtslib_msg_list_alloc(cookie);
    auto *buffer = static_cast<uint8_t *>(rtslib_size_alloc(cookie, 48));
    list->array = static_cast<void **>(rtslib_size_alloc(cookie, 2 * sizeof(void *)));
    list->array[0] = buffer, list->array[1] = buffer + 24;
    list->kind = RTSLIB_LIST_BUFFER, list->count = 2;
    EXPECT_EQ(rtslib_msg_list_add(cookie, list, two.data()), 22);
    rtslib_msg_list_free(cookie, list);

    // Filled with objects of two kinds it tells the last one's, and is added to by the first one's.
    list = rtslib_msg_list_alloc(cookie);
    octets mixed = table_reply(1);
    mixed.insert(mixed.end(), second.begin(), second.end());
    EXPECT_EQ(rtslib_msg_list_fillin(cookie, list, uint32_t(mixed.size()), mixed.data()), 0);
    EXPECT_EQ(list->type, 6);
    rts_hdr *more[] = { typed(cookie, 6), typed(cookie, 1) };
    EXPECT_EQ(rtslib_msg_list_add(cookie, list, more[0]), 22);
    EXPECT_EQ(rtslib_msg_list_add(cookie, list, more[1]), 0);
    rtslib_msg_free(cookie, more[0]);
    rtslib_msg_list_free(cookie, list);
    rtslib_close(cookie);
}

}   // namespace
