/*
 * Names, prefixes, addresses and the cursor.
 */
#include "lib/librtsock/format/rtslib_format.h"

#include <gtest/gtest.h>
#include <netdb.h>

#include <string>
#include <vector>

/* There is one address that has no text. */
extern "C" const char *__real_inet_ntop(int family, const void *address, char *text, socklen_t size);
extern "C" const char *__wrap_inet_ntop(int family, const void *address, char *text, socklen_t size);

const char *__wrap_inet_ntop(int family, const void *address, char *text, socklen_t size)
{
    return memcmp(address, "\xff\xff\xff\xff", 4) == 0 ? nullptr : __real_inet_ntop(family, address, text, size);
}

/* The resolver knows one address. */
extern "C" hostent *gethostbyaddr(const void *address, socklen_t, int)
{
    static char name[] = "router.example";
    static hostent known = { name, nullptr, AF_INET, 4, nullptr };
    return memcmp(address, "\xc0\0\2\1", 4) == 0 ? &known : nullptr;
}

TEST(format, names_of_values_and_of_what_lies_outside)
{
    static const struct {
        const char *(*name)(int);
        int value;
        const char *text;
    } rows[] = {
        { rtslib_format_rtm_type, 2, "route" }, { rtslib_format_rtm_type, 110, "unknown" },
        { rtslib_format_rtm_type, -1, "unknown" }, { rtslib_format_op, 9, "chg_get" },
        { rtslib_format_op, 10, "unknown" }, { rtslib_format_route_type, 1, "user" },
        { rtslib_format_route_type, 15, "ifcl" }, { rtslib_format_nexthop_type, 24, "comp" },
        { rtslib_format_nexthop_type, 31, "le" }, { rtslib_format_nexthop_type, 34, "unknown" },
        { rtslib_format_nexthop_type, 35, "" }, { rtslib_format_nexthop_type, 36, "" },
        { rtslib_format_ifstate_type, 54, "MACSEC" }, { rtslib_format_ifstate_type, 56, "UNKNOWN" },
        { rtslib_format_mtype_rcv, 4, "Always TRUE" }, { rtslib_format_mtype_rcv, 5, "Invalid" },
        { rtslib_format_daemon_issu_state, 5, "ABORT" }, { rtslib_format_daemon_issu_state, -9, "UNKNOWN" },
        { rtslib_format_hwmgr_issu_state, 7, "ABORT" }, { rtslib_format_hwmgr_issu_state, 8, "UNKNOWN" },
        { rtslib_format_cos_type, 0, "Scheduler map definition" },
        { rtslib_format_cos_type, 51, "Invalid message type" }, { rtslib_format_ppm_type, 2, "CFM" },
        { rtslib_format_ppm_type, 3, "Invalid" }, { rtslib_format_ifsclim_subtype, 0, "IFS EndOfChain" },
        { rtslib_format_ifsclim_subtype, 1, "Unknown" }, { rtslib_format_af, 0, "unspec" },
        { rtslib_format_af, 22, "unknown" }, { rtslib_format_af, 28, "inet6" }, { rtslib_format_af, 145, "crh" },
        { rtslib_format_af, 146, "unknown" }, { rtslib_format_lb_attr, 4, "Stitching point" },
        { rtslib_format_lb_attr, 3, "Unknown" }, { rtslib_format_msg_sender_id, 3, "keld" },
        { rtslib_format_msg_sender_id, 255, "unknown" }, { rtslib_gencfg_format_majortype, 15,
          "Class-of-service interface" }, { rtslib_gencfg_format_majortype, 65535, "unknown" },
    };
    for (const auto &row : rows) EXPECT_STREQ(row.name(row.value), row.text) << row.value;
    EXPECT_STREQ(rtslib_gencfg_format_minortype(86, 2), "Policy");
    EXPECT_STREQ(rtslib_gencfg_format_minortype(86, 99), "unknown");
    EXPECT_STREQ(rtslib_gencfg_format_minortype(0, 0), "unknown");
}

TEST(format, prefixes)
{
    static const struct {
        int family, form;
        uint32_t bits;
        std::vector<uint8_t> value;   // to the octet, so that a read behind it is found out
        const char *text;
    } rows[] = {
        { 2, 0, 16, { 10, 1 }, "10.1/16" },
        { 2, 0, 0, {}, "0/0" },
        { 2, 0, 29, { 192, 0, 2, 8 }, "192.0.2.8/29" },
        { 2, 2, 24, { 10, 1, 2 }, "a01:200/24" },
        { 28, 0, 48, { 0x20, 1, 0xd, 0xb8, 0, 7 }, "2001:db8:7/48" },
        { 28, 0, 40, { 0x20, 1, 0xd, 0xb8, 0x12 }, "2001:db8:1200/40" },
        { 28, 1, 16, { 0x20, 1 }, "32.1/16" },
        { 121, 0, 16, { 0xff, 2 }, "ff02/16" },
        { 139, 0, 8, { 224 }, "224/8" },
        { 7, 0, 24, { 0x49, 0, 1 }, "73.0.1/24" },
        { 39, 0, 20, { 0x12, 0x34, 0x5f }, "74565" },
        { 39, 0, 32, { 0, 0, 1, 0 }, "256" },
        { 39, 0, 36, { 0, 0, 0x12, 0x34, 0x5f }, "74565" },
        { 39, 0, 40, { 9, 9, 0x12, 0x34, 0x51 }, "74565(S=1)" },
        { 39, 0, 52, { 9, 9, 9, 9, 0x12, 0x34, 0x51 }, "74565" },
        { 39, 0, 56, { 9, 9, 9, 9, 0x12, 0x34, 0x50 }, "74565(S=0)" },
        { 39, 0, 19, { 1, 2, 3 }, "1.2.3/19" },
        { 39, 1, 24, { 1, 2, 3 }, "1.2.3/24" },
        { 63, 0, 32, { 0, 0, 2, 0 }, "512" },
        { 127, 0, 24, { 1, 0xab, 3 }, "1.ab.3" },
        { 73, 0, 64, { 1, 0, 2, 0, 0, 0, 0, 0xa }, "256, 02:00:00:00:00:0a" },
        { 73, 0, 48, { 0, 9, 224, 0, 0, 5 }, "9, 224.0.0.5" },
        { 73, 0, 48, { 0, 9, 255, 255, 255, 255 }, "0.9.255.255.255.255/48" },
        { 73, 0, 20, { 0, 9, 0xef }, "9, 224.0.0.0" },
        { 73, 0, 16, { 0, 9 }, "9, *" },
        { 75, 0, 80, { 0, 0, 1, 0, 0, 1, 0, 0, 0, 7 }, "256, 7" },
        { 91, 0, 80, { 0, 0, 1, 0, 0, 2, 0, 0, 0, 7 }, "" },
        { 83, 0, 48, { 0, 0, 0, 3, 0, 4 }, "3, 4" },
        { 89, 0, 2, { 0, 5 }, "5, *" },
        { 89, 0, 24, { 0, 5, 1, 0xa, 0xb, 0xc }, "5, 01, 0a:0b:0c" },
        { 93, 0, 64, { 0, 0, 0, 1, 0, 0, 0, 2 }, "1:2" },
        { 95, 0, 96, { 0, 0, 0, 1, 0, 0, 0, 2, 0, 0, 0, 3 }, "1:2:3" },
        { 85, 0, 96, { 2, 0, 0, 0, 0, 1, 192, 0, 2, 7, 0, 100 }, "100/02:00:00:00:00:01/192.0.2.7" },
        { 123, 0, 192, { 2, 0, 0, 0, 0, 1, 0x20, 1, 0xd, 0xb8, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 9, 0, 100 },
          "100/02:00:00:00:00:01/2001:db8::9" },
    };
    for (const auto &row : rows) {
        char text[64];
        EXPECT_EQ(rtslib_format_prefix(text, sizeof text, row.value.data(), row.bits, row.family, row.form), 0);
        EXPECT_STREQ(text, row.text) << row.family << " " << row.bits;
    }
    char text[8];
    EXPECT_EQ(rtslib_format_prefix(text, sizeof text, "\xc0\0\2\1", 32, 2, 0), -1);
    EXPECT_STREQ(text, "192.0.2");
}

TEST(format, addresses)
{
    static const struct {
        std::vector<uint8_t> sockaddr;
        int names;
        const char *text;
    } rows[] = {
        { { 8, 2, 0, 0, 192, 0, 2, 1 }, 0, "192.0.2.1" },
        { { 8, 2, 0, 0, 192, 0, 2, 1 }, 1, "router.example" },
        { { 8, 2, 0, 0, 192, 0, 2, 2 }, 1, "192.0.2.2" },
        { { 6, 2, 0, 0, 192, 0 }, 0, "192.0.0.0" },   // what is missing is 0
        { { 24, 28, 0, 0, 0, 0, 0, 0, 0x20, 1, 0xd, 0xb8, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 1 }, 0,
          "2001:db8:0:0:0:0:0:1" },
        { { 8, 119, 0, 0, 10, 1, 2, 3 }, 1, "10.1.2.3" },   // inet under another number
        { { 8, 39, 0, 0, 0, 0, 1, 0 }, 0, "256" },
        { { 5, 18, 1, 0xab, 3 }, 0, " af=18 01 ab 03" },
        { { 0, 18 }, 0, " af=18" },
    };
    for (const auto &row : rows) {
        char text[64];
        EXPECT_EQ(rtslib_format_sockaddr(text, sizeof text, row.sockaddr.data(), row.names), 0);
        EXPECT_STREQ(text, row.text);
    }
}

TEST(format, cursor_goes_null_behind_what_is_cut)
{
    char buffer[8] = "#######", *cursor = buffer;
    int left = 6;   // the last octets are not to be touched
    rtslib_fill_format_buf(&cursor, &left, "%s", "abc");
    EXPECT_EQ(cursor, buffer + 3);
    // Kept on purpose: a text that fits but for its terminator leaves 0, and what follows is cut.
    rtslib_fill_format_buf(&cursor, &left, "%d", 123);
    EXPECT_TRUE(left == 0 && cursor == buffer + 6);
    EXPECT_STREQ(buffer, "abc12");
    rtslib_fill_format_buf(&cursor, &left, "x");
    EXPECT_TRUE(left == -1 && cursor == nullptr);
    rtslib_fill_format_buf(&cursor, &left, "y");
    EXPECT_EQ(left, -1);
    EXPECT_EQ(std::string(buffer + 6, 1), "#");
}
