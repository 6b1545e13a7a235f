/*
 * Names and indexes without a cookie, and the functions that stand in for the C library's.
 */
#include "tests/lib/librtsock/interface/describe.h"
#include "lib/librtsock/ifl.h"
#include "lib/librtsock/rtslib_interface.h"

namespace {

char name[IFL_NAME_SIZE];
const std::string longer(60, 'x');

void fail_with_enxio()
{
    kernel.takes = { -1 };
    kernel.write_errno = ENXIO;
}

TEST_F(InterfaceTest, NamesToIndexes)
{
    const struct {
        const char *name;
        int error;
        std::string asked;
    } rows[] = {
        { "ge-0/0/0.5", 0, " unit=5 name=ge-0/0/0" }, { "lo0", 0, " name=lo0" },
        { "", EINVAL, "" }, { nullptr, EINVAL, "" }, { longer.c_str(), EINVAL, "" },
    };
    const std::pair<int32_t (*)(const char *), int32_t> functions[] = {
        { ifl_getindexbyifname, 9 }, { ifl_gettenantidbyifname, 4 }, { ifl_getlrindexbyifname, 3 }
    };
    for (const auto &row : rows) {
        for (const auto &[function, found] : functions) {
            errno = 0;
            kernel.replies = { { unit_reply(9, 5, "ge") } };
            EXPECT_EQ(function(row.name), row.error != 0 ? -1 : found);
            EXPECT_EQ(errno, row.error);
            if (row.error == 0) { EXPECT_EQ(sent(kernel.written.back(), 2), "6.107.204 op4" + row.asked); }
        }
    }
    EXPECT_EQ(kernel.written.size(), 6U);
    fail_with_enxio();
    EXPECT_EQ(ifl_getlrindexbyifindex(4), -1);
    EXPECT_EQ(errno, ENXIO);
}

TEST_F(InterfaceTest, KeptConnection)
{
    for (const char *asked : { "ge-0.1", "" }) {
        kernel.replies = { { unit_reply(9, 5, "ge") } };
        EXPECT_EQ(ifl_getindexbyifname_cachesocket(asked), 9);
    }
    EXPECT_EQ(kernel.opened - kernel.closed, 1);
    fail_with_enxio();
    EXPECT_EQ(ifl_getindexbyifname_cachesocket("ge-0.1"), -1);
    EXPECT_EQ(errno, ENXIO);
    EXPECT_EQ(kernel.opened, kernel.closed) << "the next call connects afresh";
}

TEST_F(InterfaceTest, IndexesToNames)
{
    kernel.replies = { { unit_reply(9, 5, "ge-0") } };
    EXPECT_EQ(ifl_getnamebysnmpifindex(9, name, 6), 0);
    EXPECT_EQ(ifl_get_underlying_device_byifindex(0, name, sizeof name), 0);
    EXPECT_STREQ(name, "ge-0.");
    kernel.replies = { { unit_reply(9, 5, "lt-0", 8) }, { unit_reply(8, 5, "ge-7") } };
    EXPECT_EQ(ifl_get_underlying_device_byifindex(9, name, sizeof name), 0);
    EXPECT_STREQ(name, "ge-7");
    kernel.replies.assign(100, { unit_reply(9, 5, "lt-0", 9) });
    EXPECT_EQ(ifl_get_underlying_device_byifindex(9, name, sizeof name), -1);
    EXPECT_EQ(errno, ELOOP);
    int32_t unit;
    EXPECT_EQ(ifl_get_device_name("a.b.7", name, 6, &unit), 0);
    EXPECT_EQ(name + std::string(" ") + std::to_string(unit), "a.b 7");
    EXPECT_EQ(ifl_get_device_name("lo0", name, 4, &unit), 0);
    EXPECT_EQ(unit, -1);
    EXPECT_EQ(ifl_get_device_name("lo0", name, 3, &unit), -1);
}

TEST_F(InterfaceTest, SubsetMapsAndSockets)
{
    uint8_t value = 7;
    EXPECT_EQ(ifl_set_subset_iif(9, 16, 1) + ifl_get_subset_iif(9, 16, &value), 22 + 22);
    EXPECT_TRUE(kernel.written.empty());
    EXPECT_EQ(ifl_set_subset_iif(9, 15, 1), 0);
    EXPECT_EQ(sent(kernel.written.back(), 0), "6.107.204 op2 ifl_idx=9 change=16 [225 bit=15 value=1]");
    kernel.replies = { { unit_reply(9, 5, "ge", 0, 0x4000) } };
    EXPECT_EQ(ifl_get_subset_iif(9, 14, &value), 0);
    EXPECT_EQ(value, 1);
    rtslib_calloc = [](uint16_t, size_t, size_t) -> void * { return errno = 0, nullptr; };
    EXPECT_EQ(ifl_set_subset_iif(9, 15, 1) + ifl_get_subset_iif(9, 14, &value), 5 + 5) << "no connection, no errno";
    rtslib_calloc = [](uint16_t id, size_t n, size_t size) { return take(id) ? calloc(n, size) : nullptr; };
    for (int family : { AF_INET, AF_INET6, AF_UNIX }) {
        int fd = socket(family, SOCK_DGRAM, 0);
        kernel.replies = { { unit_reply(9, 5, "ge") } };
        EXPECT_EQ(ifl_setsendifbyifname(fd, "ge.5"), family != AF_UNIX ? 0 : -1);
        if (family != AF_UNIX) { EXPECT_EQ(extra.pinned, std::make_pair(fd, 9U)); }
        close(fd);
    }
    EXPECT_EQ(errno, EPROTONOSUPPORT);
}

void *left;   // the last message that was taken

TEST_F(InterfaceTest, InPlaceOfTheCLibrary)
{
    allowance = 0;
    EXPECT_EQ(if_nametoindex("ge-0.5"), 0U) << "without a connection";
    EXPECT_EQ(errno, ENXIO);
    EXPECT_EQ(if_nameindex(), nullptr);
    EXPECT_EQ(errno, ENOMEM);
    allowance = 1000;
    rtslib_calloc = [](uint16_t id, size_t n, size_t size) { return take(id) ? left = calloc(n, size) : nullptr; };
    for (bool by_name : { true, false }) {
        kernel.replies = { { unit_reply(9, 5, "ge-0") } };
        if (by_name) { EXPECT_EQ(if_nametoindex("ge-0"), 9U); }
        else { EXPECT_STREQ(if_indextoname(9, name), "ge-0.5"); }
        EXPECT_EQ(blocks[MEMID_RTSLIB_MSG], 2) << "the table of versions, and a message that stays";
        rtslib_free(MEMID_RTSLIB_MSG, left);
    }
    EXPECT_EQ(kernel.opened - kernel.closed, 1);
    fail_with_enxio();
    EXPECT_EQ(if_indextoname(9, name), nullptr);
    EXPECT_EQ(errno, ENXIO);

    extra.value = unit_reply(3, 0, longer.c_str());
    struct if_nameindex *all = if_nameindex();
    EXPECT_EQ(blocks[MEMID_RTSLIB_NAMEINDEX], 1);
    EXPECT_EQ(all[0].if_index, 3U);
    EXPECT_EQ(all[0].if_name, longer.substr(0, 59));
    EXPECT_EQ(all[1].if_name, nullptr);
    if_freenameindex(all);
    EXPECT_EQ(blocks[MEMID_RTSLIB_NAMEINDEX], 0);
    blocks = {};   // the connection's, for as long as the process lives
    kernel.closed++;
}

}   // namespace
