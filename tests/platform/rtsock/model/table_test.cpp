// Routing tables, what all objects have in common, and the texts that the other tests compare.
#include "tests/platform/rtsock/model/model_fixture.h"

int model_allowance = -1;

extern "C" {
void *__real_malloc(size_t size);
void *__real_calloc(size_t count, size_t size);
void *__wrap_malloc(size_t size);
void *__wrap_calloc(size_t count, size_t size);

static bool granted() { return model_allowance < 0 || model_allowance-- > 0; }
void *__wrap_malloc(size_t size) { return granted() ? __real_malloc(size) : nullptr; }
void *__wrap_calloc(size_t count, size_t size) { return granted() ? __real_calloc(count, size) : nullptr; }
}

namespace {

std::string word(const std::string &text) { return text; }
std::string word(uint64_t number) { return std::to_string(number); }

template <typename... types> std::string say(const types &...values)
{
    std::string text;
    ((text += (text.empty() ? "" : " ") + word(values)), ...);
    return text;
}

std::string octet_text(const uint8_t *from, uint32_t n) { return { reinterpret_cast<const char *>(from), n }; }

std::string body(const rtb_msg &m) { return say(m.tid, m.af, m.name); }
std::string body(const rt_msg &m) { return say(m.tid, m.af, prefix_text(m.prefix, m.prefix_bits), m.rt_type, m.nhidx); }
std::string body(const rnh_msg &m) { return say(m.idx, m.nh, m.ifidx, m.refcnt); }
std::string body(const rtm_msg &m) { return say(prefix_text(m.prefix, m.prefix_bits), m.nhidx, m.ifidx); }
std::string body(const mgr_msg &m) { return say(prefix_text(m.prefix, m.prefix_bits), m.nhidx, m.counter.packets); }
std::string body(const rnhs_msg &m) { return say(m.counters_len, m.counters->nhidx, m.counters->packets); }
std::string body(const ifdev_msg &m) { return say(m.idx, m.name, m.flags, m.mtu); }
std::string body(const ifl_msg &m) { return say(m.ifl_idx, m.name, m.unit, m.subset_map, m.rts_hdr.rtsh_info_len); }
std::string body(const iff_msg &m) { return say(m.ifl_idx, m.af, m.name, m.subunit, m.rts_hdr.rtsh_info_len); }
std::string body(const ifa_msg &m)
{
    return say(m.ifl_idx, m.af, prefix_text(m.local, m.local_bits), prefix_text(m.dest, m.dest_bits));
}
std::string body(const gencfg_msg &m)
{
    return say(m.major, m.minor, octet_text(m.key, m.key_len), m.object_id, octet_text(m.blob, m.blob_len));
}
template <typename record> std::string body_of(const void *message)
{
    return body(*static_cast<const record *>(message));
}

}   // namespace

std::string text_of(const void *message)
{
    static const std::map<uint8_t, std::string (*)(const void *)> texts = {
        { 1, body_of<rtb_msg> },  { 2, body_of<rt_msg> },    { 5, body_of<ifdev_msg> }, { 6, body_of<ifl_msg> },
        { 7, body_of<iff_msg> },  { 8, body_of<ifa_msg> },   { 10, body_of<rnh_msg> },  { 12, body_of<rtm_msg> },
        { 13, body_of<mgr_msg> }, { 21, body_of<rnhs_msg> }, { 72, body_of<gencfg_msg> },
    };
    return texts.at(static_cast<const rts_hdr *>(message)->rtsh_type)(message);
}

TEST_F(ModelTest, tables_are_found_walked_changed_and_deleted)
{
    static const struct { uint8_t op; uint16_t tid; uint8_t af; const char *name, *says, *event; } rows[] = {
        { RTM_OP_GET, 65535, 28, "default", "0 28 default", "" },
        { RTM_OP_ADD, 7, 2, "blue", "", "add 7 2 blue" },
        { RTM_OP_ADD, 7, 28, "blue", "", "add 7 28 blue" },
        { RTM_OP_ADD, 7, 2, "red", "-17", "" },
        { RTM_OP_ADD, 8, 2, "blue", "-17", "" },
        { RTM_OP_ADD, 65535, 2, "red", "-22", "" },
        { RTM_OP_ADD_GET, 3, 2, "red", "3 2 red", "add 3 2 red" },
        { RTM_OP_GET, 7, 0, "", "7 2 blue", "" },
        { RTM_OP_GETNEXT, 0, 2, "", "3 2 red", "" },
        { RTM_OP_GETNEXT, 3, 2, "", "7 2 blue", "" },
        { RTM_OP_GETNEXT, 5, 28, "", "7 28 blue", "" },   // behind an index that is not there
        { RTM_OP_GETNEXT, 7, 0, "", "-2", "" },
        { RTM_OP_GETNEXT, 65535, 0, "", "0 2 default", "" },
        { RTM_OP_GETNEXT, 65535, 2, "red", "7 2 blue", "" },
        { RTM_OP_CHANGE, 7, 2, "azure", "", "change 7 2 azure" },
        { RTM_OP_CHANGE, 7, 2, "red", "-17", "" },
        { RTM_OP_CHG_GET, 65535, 2, "azure", "7 2 azure", "change 7 2 azure" },
        { RTM_OP_DELETE, 7, 2, "", "", "delete 7 2 azure" },
        { RTM_OP_CLEAR, 7, 28, "", "-45", "" },
    };
    for (const auto &row : rows) {
        std::string name = row.name;
        rtb_msg request = {};
        request.tid = row.tid;
        request.af = row.af;
        if (!name.empty()) {
            request.name = name.data();
            request.name_len = uint32_t(name.size() + 1);
        }
        std::string where = "row " + std::to_string(&row - rows);
        EXPECT_EQ(ask(1, row.op, request), row.says) << where;
        EXPECT_EQ(heard(), row.event) << where;
    }
    // The update that is sent as an add, for a table that is there.
    EXPECT_EQ(rtslib_rtbm_update_svcs_chan(asker, 7, 28, 0, "blue", 0, 0, 5, 1), 0);
    EXPECT_EQ(rtslib_rtbm_update_svcs_chan(asker, 7, 28, 0, "blue", 0, 0, 6, 1), 0);
    void *reply = nullptr;
    ASSERT_EQ(rtslib_rtbm_get_by_index(asker, 28, 7, RTM_OP_GET, &reply, nullptr), 0);
    const auto *table = static_cast<rtb_msg *>(reply);
    ASSERT_EQ(table->rts_hdr.rtsh_info_len, 1U);
    EXPECT_EQ(table->rts_hdr.rtsh_info[0]->u.rtb_svcs_chan.channel, 6);
    rtslib_msg_idl_release(asker, reply);
}

// Whatever allocation fails, the request fails with 12 and changes nothing.
TEST_F(ModelTest, without_memory_the_state_stays)
{
    lines({ "nexthop 9 family inet type ucst" });
    uint8_t sockaddr[16] = { 16, 2 }, prefix[] = { 10, 1, 0, 0 };
    idl_sockaddr_gen address = { sockaddr, sizeof sockaddr };
    rt_nh_entry entry = { .addrs = &address, .addrs_len = 1 };
    rt_msg route = {};
    route.rts_hdr.rtsh_type = 2;
    route.af = 2;
    route.prefix = prefix;
    route.prefix_len = sizeof prefix;
    route.prefix_bits = 16;
    route.nhidx = 9;
    auto state = [&] {
        return ask(2, RTM_OP_GET, route) + ", " + ask(10, RTM_OP_GET, rnh_msg{ .idx = 9 }) + ", " + heard();
    };
    for (uint8_t op : { RTM_OP_ADD_GET, RTM_OP_CHG_GET, RTM_OP_DELETE }) {
        std::string before = state();
        int allowed = 0, result = -1;
        for (; result == -1; allowed++) {
            route.nh_entries = &entry;
            route.nh_entries_len = op == RTM_OP_CHG_GET ? 1 : 0;
            route.rts_hdr.rtsh_op = op;
            octets request = wire(&route, 2);
            model_allowance = allowed;
            result = int(rtsock_write(asker->socket, request.data(), request.size()));
            int error = errno;
            model_allowance = -1;
            if (result != -1) break;
            ASSERT_EQ(error, ENOMEM);
            ASSERT_EQ(state(), before) << allowed;
        }
        EXPECT_GT(allowed, op == RTM_OP_DELETE ? 1 : 7);
        void *reply = nullptr;
        EXPECT_EQ(rtslib_long_msg_read_idl(asker, &reply, nullptr), op == RTM_OP_DELETE ? TARGET_EAGAIN : 0);
        rtslib_msg_idl_release(asker, reply);
        EXPECT_NE(state(), before);
    }
}
