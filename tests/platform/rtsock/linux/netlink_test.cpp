/*
 * Messages of netlink as the host might send them, and its errors.
 */
#include "platform/rtsock/linux/lx.h"
#include "platform/target.h"

#include <errno.h>
#include <string.h>

#include <gtest/gtest.h>
#include <linux/rtnetlink.h>
#include <string>

TEST(Netlink, BrokenMessagesAndErrors)
{
    const struct {
        int host, target;
    } errors[] = { { ENODATA, TARGET_ENOENT }, { ESRCH, TARGET_ENOENT }, { ENODEV, TARGET_ENOENT }, { EPERM, 1 },
                   { EOPNOTSUPP, TARGET_EOPNOTSUPP }, { ENETUNREACH, 51 }, { EBADMSG, TARGET_EIO } };
    for (const auto &row : errors) EXPECT_EQ(nl_error(row.host), row.target) << strerror(row.host);
    struct nl_request request;
    const uint32_t fixed = 0;
    nl_begin(&request, 16, 0, &fixed, sizeof fixed);
    nl_put_u32(&request, 1, 11);
    size_t nest = nl_nest_begin(&request, 2);
    nl_put_u32(&request, 3, 33);
    nl_nest_end(&request, nest);
    auto *message = reinterpret_cast<struct nlmsghdr *>(request.octets);
    auto read = [&](size_t length) {
        struct nl_attr attrs[4], inner[4];
        message->nlmsg_len = uint32_t(length);
        nl_attrs(message, sizeof fixed, attrs, 4);
        nl_nested(attrs[2], inner, 4);
        return std::to_string(nl_u32(attrs[1], 0)) + " " + std::to_string(nl_u32(inner[3], 0));
    };
    EXPECT_EQ(read(request.length), "11 33");
    EXPECT_EQ(read(request.length - 1), "11 0");
    EXPECT_EQ(read(21), "0 0");
    EXPECT_EQ(nl_fixed(message, 8), nullptr);

    // A VRF device, and a link that belongs to one.
    auto link = [&request](uint16_t kind_attr, const char *kind, uint16_t data_attr) {
        struct ifinfomsg head = {};
        head.ifi_index = 9;
        nl_begin(&request, RTM_NEWLINK, 0, &head, sizeof head);
        nl_put(&request, IFLA_IFNAME, "red.07", 7);
        size_t info = nl_nest_begin(&request, IFLA_LINKINFO);
        nl_put(&request, kind_attr, kind, strlen(kind) + 1);
        size_t data = nl_nest_begin(&request, data_attr);
        nl_put_u32(&request, IFLA_VRF_TABLE, 700);
        nl_nest_end(&request, data);
        nl_nest_end(&request, info);
        reinterpret_cast<struct nlmsghdr *>(request.octets)->nlmsg_len = uint32_t(request.length);
        struct lx_link found = {};
        EXPECT_EQ(lx_link_read(reinterpret_cast<struct nlmsghdr *>(request.octets), &found), 0);
        EXPECT_STREQ(found.device, "red.07");   // no unit in plain decimal
        return std::to_string(found.vrf) + " " + std::to_string(found.table);
    };
    EXPECT_EQ(link(IFLA_INFO_KIND, "vrf", IFLA_INFO_DATA), "1 700");
    EXPECT_EQ(link(IFLA_INFO_SLAVE_KIND, "vrf", IFLA_INFO_SLAVE_DATA), "0 700");
    EXPECT_EQ(link(IFLA_INFO_KIND, "vrfs", IFLA_INFO_DATA), "0 254");
    for (int i = 0; i < 5000; i++) nl_put_u32(&request, 1, 0);
    struct nl nl = {};
    EXPECT_EQ(nl_ask(&nl, &request, nullptr, nullptr), TARGET_EMSGSIZE);
}
