// Devices, units, families and addresses; reading them whole; binding sockets to them.
#include "lib/librtsock/rtslib_interface.h"
#include "lib/librtsock/rtslib_raw.h"
#include "tests/platform/rtsock/model/model_fixture.h"

#include <unistd.h>

namespace {

template <typename record_type> record_type with_name(std::string &name, record_type record = {})
{
    record.name = name.data();
    record.name_len = uint32_t(name.size() + 1);
    return record;
}

}   // namespace

class InterfaceTest : public ModelTest {
protected:
    InterfaceTest()
    {
        lines({ "device ge-0/0/0 index 130 snmp 500 mtu 1514 mac 02:00:00:00:00:01", "device lo0 index 6 down",
                "unit ge-0/0/0.0 index 70 snmp 501 tenant 3 lr 1", "unit ge-0/0/0.5 index 71", "unit lo0.0 index 16",
                "unit lo0.7 index 72 parent 70", "family 70 inet mtu 1500", "family 70 inet6",
                "family 71 inet donor 16", "address 70 inet 192.0.2.1/24",
                "address 70 inet 192.0.2.1 destination 192.0.2.9" });
        heard();
    }
    std::string ge = "ge-0/0/0", lo = "lo0";
};

TEST_F(InterfaceTest, objects_are_named_in_each_of_their_ways)
{
    const std::string first = "130 ge-0/0/0 1 1514", zero = "70 ge-0/0/0 0 0 0";
    EXPECT_EQ(ask(5, RTM_OP_GET, ifdev_msg{ .idx = 130 }), first);
    EXPECT_EQ(ask(5, RTM_OP_GET, ifdev_msg{ .snmpid = 500 }), first);
    EXPECT_EQ(ask(5, RTM_OP_GET, with_name<ifdev_msg>(ge)), first);
    EXPECT_EQ(ask(5, RTM_OP_GETNEXT, with_name<ifdev_msg>(lo)), first);
    EXPECT_EQ(ask(5, RTM_OP_GETNEXT, ifdev_msg{}), "6 lo0 0 0");
    EXPECT_EQ(ask(6, RTM_OP_GET, ifl_msg{ .ifl_idx = 70 }), zero);
    EXPECT_EQ(ask(6, RTM_OP_GET, ifl_msg{ .ifd_idx = 130 }), zero);
    EXPECT_EQ(ask(6, RTM_OP_GET, ifl_msg{ .snmpid = 501 }), zero);
    EXPECT_EQ(ask(6, RTM_OP_GETNEXT, with_name<ifl_msg>(ge)), "71 ge-0/0/0 5 0 0");
    EXPECT_EQ(ask(6, RTM_OP_GET, with_name<ifl_msg>(ge, { .unit = 6 })), "-2");
    EXPECT_EQ(ask(7, RTM_OP_GET, with_name<iff_msg>(ge, { .subunit = 5, .af = 2 })),
              "71 2 ge-0/0/0 5 1");
    EXPECT_EQ(ask(7, RTM_OP_GETNEXT, iff_msg{ .ifl_idx = 70, .af = 2 }), "70 28 ge-0/0/0 0 0");
}

TEST_F(InterfaceTest, addresses_are_named_by_what_is_given_of_them)
{
    uint8_t local[] = { 192, 0, 2, 1 }, other[] = { 192, 0, 2, 9 };
    ifa_msg by_local = { .ifl_idx = 70, .af = 2, .local_bits = 32, .local = local, .local_len = 4 };
    ifa_msg by_dest = { .ifl_idx = 70, .af = 2, .dest_bits = 32, .dest = other, .dest_len = 4 };
    ifa_msg by_both = by_local;
    by_both.dest_bits = 32;
    by_both.dest = other;
    by_both.dest_len = 4;
    const std::string net = "70 2 192.0.2.1/32 192.0.2/24", peer = "70 2 192.0.2.1/32 192.0.2.9/32";
    EXPECT_EQ(ask(8, RTM_OP_GET, ifa_msg{ .ifl_idx = 70, .af = 2 }), net);
    EXPECT_EQ(ask(8, RTM_OP_GETNEXT, ifa_msg{ .ifl_idx = 70, .af = 2 }), net);
    EXPECT_EQ(ask(8, RTM_OP_GETNEXT, by_local), peer);
    EXPECT_EQ(ask(8, RTM_OP_GET, by_dest), peer);
    EXPECT_EQ(ask(8, RTM_OP_GET, by_both), peer);
    EXPECT_EQ(ask(8, RTM_OP_GETNEXT, by_both), "-2");
    EXPECT_EQ(ask(8, RTM_OP_ADD, by_both), "-17");
    by_local.ifl_idx = 16;
    EXPECT_EQ(ask(8, RTM_OP_ADD, by_local), "-2");   // the unit is there, the family is not
    EXPECT_EQ(ask(8, RTM_OP_DELETE, by_both), "");
    EXPECT_EQ(ask(8, RTM_OP_DELETE, by_both), "-2");
    EXPECT_EQ(heard(), "delete " + peer);
}

TEST_F(InterfaceTest, changes_touch_what_they_give)
{
    EXPECT_EQ(ask(5, RTM_OP_CHG_GET, ifdev_msg{ .idx = 130, .mtu = 9000 }), "130 ge-0/0/0 1 9000");
    EXPECT_EQ(ask(5, RTM_OP_CHG_GET, ifdev_msg{ .idx = 130, .flags = 0 }), "130 ge-0/0/0 1 9000");
    EXPECT_EQ(ask(5, RTM_OP_CHG_GET, ifdev_msg{ .idx = 130, .change = 1, .flags = 0 }), "130 ge-0/0/0 0 9000");
    for (uint32_t flags : { 5U, 0U }) {   // of a unit, both kinds by their marks
        void *reply = nullptr;
        EXPECT_EQ(rtslib_iflm_update_flags(asker, 71, 0, 0, 0, nullptr, flags, RTM_OP_CHANGE), 0);
        EXPECT_EQ(rtslib_iflm_update_privflags(asker, 71, 0, 0, 0, nullptr, flags, uint8_t(flags), RTM_OP_CHANGE), 0);
        EXPECT_EQ(rtslib_iflm_get_by_index(asker, 71, RTM_OP_GET, &reply, nullptr), 0);
        const auto *unit = static_cast<const ifl_msg *>(reply);
        EXPECT_TRUE(unit->flags == flags && unit->privflags == flags && unit->priv_byte == flags) << flags;
        rtslib_msg_idl_release(asker, reply);
    }
    EXPECT_EQ(ask(5, RTM_OP_CHANGE, with_name<ifdev_msg>(lo, { .idx = 130 })), "-17");
    std::string renamed = "xe-0/0/0";
    EXPECT_EQ(ask(5, RTM_OP_CHANGE, with_name<ifdev_msg>(renamed, { .idx = 130 })), "-16");   // its units bear the name
    EXPECT_EQ(ask(6, RTM_OP_CHANGE, ifl_msg{ .ifl_idx = 70, .unit = 9 }), "-16");             // its families, too
    rts_msg_info item = { .tag = 225, .u = {} }, *items[] = { &item };
    auto subset = [&](uint8_t bit, uint8_t value) {
        ifl_msg request = { .ifl_idx = 70, .change = 16 };
        request.rts_hdr.rtsh_info = items;
        request.rts_hdr.rtsh_info_len = 1;
        item.u.ifl_subset_iif = { bit, value };
        return ask(6, RTM_OP_CHG_GET, request);
    };
    EXPECT_EQ(subset(15, 1), "70 ge-0/0/0 0 32768 0");
    EXPECT_EQ(subset(15, 0), "70 ge-0/0/0 0 0 0");
    EXPECT_EQ(subset(16, 1), "-22");
    EXPECT_EQ(ask(6, RTM_OP_CHANGE, ifl_msg{ .ifl_idx = 70, .parent_idx = 72 }), "-22");   // 72 stands on 70
    EXPECT_EQ(ask(6, RTM_OP_ADD, ifl_msg{ .ifl_idx = 80, .unit = 5, .ifd_idx = 130 }), "-17");
}

TEST_F(InterfaceTest, what_stands_on_an_object_goes_with_it)
{
    EXPECT_EQ(ask(6, RTM_OP_DELETE, ifl_msg{ .ifl_idx = 70 }), "-16");   // 72 stands on it
    EXPECT_EQ(ask(5, RTM_OP_DELETE, ifdev_msg{ .idx = 130 }), "-16");
    EXPECT_EQ(ask(6, RTM_OP_DELETE, ifl_msg{ .ifl_idx = 72 }), "");
    heard();
    EXPECT_EQ(ask(5, RTM_OP_DELETE, ifdev_msg{ .idx = 130 }), "");
    EXPECT_EQ(heard(), "delete 70 2 192.0.2.1/32 192.0.2/24, "
                       "delete 70 2 192.0.2.1/32 192.0.2.9/32, "
                       "delete 70 2 ge-0/0/0 0 0, delete 70 28 ge-0/0/0 0 0, "
                       "delete 70 ge-0/0/0 0 0 0, delete 71 2 ge-0/0/0 5 1, "
                       "delete 71 ge-0/0/0 5 0 0, delete 130 ge-0/0/0 1 1514");
}

TEST_F(InterfaceTest, statistics_are_found_by_index_and_name)
{
    static const struct { uint8_t op; uint32_t index; const char *name; int error; const char *says; } rows[] = {
        { RTM_OP_GET, 71, "", 0, "ge-0/0/0.5" },   { RTM_OP_GET, 0, "ge-0/0/0.5", 0, "ge-0/0/0.5" },
        { RTM_OP_GETNEXT, 0, "", 0, "lo0.0" },     { RTM_OP_GETNEXT, 0, "lo0", 0, "ge-0/0/0.0" },
        { RTM_OP_GET, 99, "", ENOENT, "" },        { RTM_OP_GETNEXT, 69, "", 0, "ge-0/0/0.0" },
        { RTM_OP_GETNEXT, 72, "", ENOENT, "" },    { RTM_OP_CLEAR, 16, "", 0, "" },
        { RTM_OP_CLEAR, 0, "lo0.1", ENOENT, "" },  { RTM_OP_ADD, 70, "", EOPNOTSUPP, "" },
    };
    for (const auto &row : rows) {
        struct { iflstats_raw fixed; char name[184]; } m = { { .idx = row.index }, "" };
        m.fixed.name_length = uint8_t(strlen(row.name));
        m.fixed.hdr.type = 16;
        m.fixed.hdr.op = row.op;
        m.fixed.hdr.msglen = uint32_t(sizeof m.fixed + stpcpy(m.name, row.name) - m.name);
        bool taken = rtsock_write(asker->socket, &m, m.fixed.hdr.msglen) >= 0;
        EXPECT_EQ(taken ? 0 : errno, row.error) << row.name;
        m.name[0] = '\0';
        EXPECT_EQ(rtsock_recv(asker->socket, &m, sizeof m, MSG_DONTWAIT) >= 0, row.says[0] != '\0');
        EXPECT_STREQ(m.name, row.says);
    }
}

TEST_F(InterfaceTest, tables_of_interfaces_are_read_whole)
{
    for (rk_form form : { RK_FORM_IDR, RK_FORM_TLV, RK_FORM_RAW }) {
        rtsock_model_form(form);
        const int name[] = { 4, 17, 0, 0, 3, 2 };
        size_t size = 0;
        ASSERT_EQ(rtsock_sysctl(name, 6, nullptr, &size), 0);
        octets all(size);
        size_t less = size - 1;
        EXPECT_TRUE(rtsock_sysctl(name, 6, all.data(), &less) == -1 && errno == ENOMEM);
        ASSERT_EQ(rtsock_sysctl(name, 6, all.data(), &size), 0);
        std::string units;
        uint32_t length;
        for (size_t at = 0; at < size; at += length) {
            void *unit = nullptr;
            ASSERT_NE(rtslib_idl_peek_length(&length, &all[at], size - at), nullptr);
            ASSERT_EQ(rtslib_msg_idl_decode(asker, &all[at], length, &unit, nullptr), 0);
            units += std::to_string(static_cast<ifl_msg *>(unit)->ifl_idx) + " ";
            rtslib_msg_idl_release(asker, unit);
        }
        EXPECT_EQ(units, "16 70 71 72 ");
    }
}

TEST_F(InterfaceTest, sockets_are_bound_to_what_is_there)
{
    static const struct { int level, option; uint32_t value; int error; int64_t table, interface; } rows[] = {
        { 0, 109, 4, ENOENT, -1, -1 }, { 0, 109, 65536, ENOENT, -1, -1 }, { 0, 109, 0, 0, 0, -1 },
        { 41, 64, 99, ENOENT, 0, -1 }, { 0, 107, 70, 0, 0, 70 },
    };
    int fd = dup(0);
    for (const auto &row : rows) {
        errno = 0;
        EXPECT_EQ(rtsock_socket_option(fd, row.level, row.option, row.value), row.error == 0 ? 0 : -1);
        EXPECT_EQ(errno, row.error);
        EXPECT_EQ(rtsock_model_bound_table(fd), row.table);
        EXPECT_EQ(rtsock_model_bound_interface(fd), row.interface);
    }
    EXPECT_EQ(dup2(listener->socket, fd), fd);   // another socket under the same number
    EXPECT_EQ(rtsock_model_bound_interface(fd), -1);
    close(fd);
    EXPECT_TRUE(rtsock_socket_option(fd, 0, 109, 0) == -1 && errno == EBADF);
}
