/*
 * Donor tracking: who hears of which address, once.
 */
#include "tests/lib/librtsock/interface/describe.h"
#include "lib/librtsock/rtslib_async.h"
#include "lib/librtsock/rtslib_unnum.h"
#include "platform/target.h"

namespace {

std::string heard;
rtslib_cookie *tracked;

void hear(uintptr_t value, uint8_t operation, uint8_t family, const void *address, uint32_t length, uint16_t aux_half)
{
    heard += hex(address, length);
    for (uint64_t number : { uint64_t(value), uint64_t(operation), uint64_t(family), uint64_t(aux_half) })
        heard += " " + std::to_string(number);
    (void)rtslib_unnum_ifa_register_interest(tracked, 5, 9, TARGET_AF_INET, 0, 0);   // gone before its turn
}

int save(uint32_t donor, uint8_t family)
{
    static uint8_t local[] = { 10, 0, 0, 1 };
    ifa_msg m = {};
    m.rts_hdr.rtsh_op = 3;
    m.ifl_idx = donor;
    m.af = family;
    m.local = local;
    m.local_len = sizeof local;
    m.aux_half = 77;
    return rtslib_unnum_ifa_save_msg(tracked, &m);
}

TEST_F(InterfaceTest, DonorsAreTracked)
{
    tracked = open();
    EXPECT_EQ(rtslib_unnum_ifa_register_callback(tracked, hear), 22) << "without an asynchronous block";
    EXPECT_EQ(rtslib_unnum_ifa_register_interest(tracked, 5, 9, TARGET_AF_INET, 1, 0), 22);
    (void)rtslib_alloc_async_info(tracked);
    EXPECT_EQ(rtslib_unnum_ifa_register_callback(tracked, hear), 0);
    const struct {
        uint32_t borrower;
        uint8_t family, add;
        uintptr_t value;
        int result;
    } rows[] = {
        { 5, TARGET_AF_ISO, 1, 1, 22 },  { 5, TARGET_AF_INET, 0, 0, 2 },  { 5, TARGET_AF_INET, 1, 0, 0 },
        { 5, TARGET_AF_INET, 1, 3, 17 }, { 4, TARGET_AF_INET, 1, 2, 0 },  { 5, TARGET_AF_INET6, 1, 4, 0 },
        { 5, TARGET_AF_INET6, 0, 0, 0 }, { 5, TARGET_AF_INET6, 0, 0, 2 }, { 6, TARGET_AF_INET, 1, UINTPTR_MAX, 0 },
    };
    for (const auto &row : rows)
        EXPECT_EQ(rtslib_unnum_ifa_register_interest(tracked, row.borrower, 9, row.family, row.add, row.value),
                  row.result) << &row - rows;
    EXPECT_EQ(kernel.opened, 2) << "one more connection, for all";
    for (int n = 0; n < 6; n++) {
        allowance = n;
        EXPECT_EQ(rtslib_unnum_ifa_register_interest(tracked, 1, 0x20000, TARGET_AF_INET, 1, 1), 12) << n;
        allowance = 1000;
    }

    EXPECT_EQ(save(7, TARGET_AF_INET) + save(9, TARGET_AF_ISO), -2);
    EXPECT_EQ(rtslib_unnum_ifa_report(tracked), -1);
    EXPECT_EQ(save(9, TARGET_AF_INET), 0);
    EXPECT_EQ(save(9, TARGET_AF_INET), -1);
    EXPECT_EQ(take_reports(), lines{ "2 WARNING Async event arrived while processing pending for a previous event\n" });
    EXPECT_EQ(rtslib_unnum_ifa_report(tracked), 0);
    EXPECT_EQ(heard, "0a000001 2 3 2 770a000001 18446744073709551615 3 2 77");

    int messages = blocks[MEMID_RTSLIB_MSG];
    for (int i = 0; i < 2; i++) {
        EXPECT_EQ(save(9, TARGET_AF_INET6) + rtslib_unnum_ifa_report(tracked), 0);
        EXPECT_EQ(blocks[MEMID_RTSLIB_MSG], messages + 1) << "an address that nobody hears of stays, until the next";
    }
    rtslib_unnum_ifa_cleanup(tracked);
    EXPECT_EQ(save(9, TARGET_AF_INET), -1);
    (void)rtslib_destroy_async_context(tracked);
    rtslib_close(tracked);
}

TEST_F(InterfaceTest, DonorOfAnUnnumberedInterface)
{
    rtslib_cookie *cookie = open();
    const struct {
        uint32_t flags, items;
        int result;
        bool is_family;
    } rows[] = { { 0x20000000, 2, 0, true }, { 0x20000000, 0, 2, true }, { 0x10000000, 2, 22, true },
                 { 0, 0, 2, false } };
    EXPECT_EQ(rtslib_unnum_get_donor_ifl_idx(cookie, 6, 2, nullptr), 22);
    for (const auto &row : rows) {
        rts_msg_info items[] = { { 183, { .ifftlv_donor = { 70 } } }, { 183, { .ifftlv_donor = { 71 } } } };
        rts_msg_info *pointers[] = { &items[0], &items[1] };
        iff_msg m = {};
        m.rts_hdr.rtsh_info = pointers;
        m.rts_hdr.rtsh_info_len = row.items;
        m.rts_hdr.rtsh_type = 7;
        m.flags = row.flags;
        kernel.replies = { { row.is_family ? wire(&m, 7) : table_reply(1) } };
        uint32_t donor = 71;
        EXPECT_EQ(rtslib_unnum_get_donor_ifl_idx(cookie, 6, 2, &donor), row.result);
        EXPECT_EQ(donor, 71U) << "the last one's";
    }
    rtslib_close(cookie);
}

}   // namespace
