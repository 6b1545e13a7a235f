// What the model does wrong when told so, as the library sees it. Afterwards all is well again, and nothing has leaked.
#include "tests/platform/rtsock/model/model_fixture.h"

namespace {

const char cut[] = "0 DEBUG IDL IDR Decode Error 0(Invalid Buffer Size)";

/* Faults of one write or of its reply. Those that stand twice happen twice. */
const struct { const char *what; void (*set)(rk_faults *); const char *first, *second, *reported; } of_requests[] = {
    { "failed writes", [](auto *f) { f->failed_writes = 2; f->failed_write_error = TARGET_EBUSY; }, "-16", "-16", "" },
    { "short write", [](auto *f) { f->short_writes = 1; f->short_write_count = 3; }, "-35", "0 2 default",
      "4 FATAL ERROR wrote 232 byte to routing socket, got 3" },
    { "silent write", [](auto *f) { f->silent_writes = 1; }, "-35", "0 2 default", "" },
    { "raw replies", [](auto *f) { f->replies.raw = 2; }, "-45", "-45", "" },
    { "oversized reply", [](auto *f) { f->replies.oversized = 1; f->replies.oversize = 5; }, "0 2 default",
      "0 2 default", "" },
    { "cut reply", [](auto *f) { f->replies.cut = 1; f->replies.cut_length = 40; }, "-22", "0 2 default", cut },
    { "reply that is hardly there", [](auto *f) { f->replies.cut = 1; f->replies.cut_length = 5; }, "-5", "0 2 default",
      "4 FATAL ERROR msg read too small for header: 5\n" },
    { "lost reply", [](auto *f) { f->replies.lost = 1; }, "-35", "0 2 default", "" },
};

}   // namespace

TEST_F(ModelTest, faulty_replies_come_as_often_as_they_are_due)
{
    auto get = [&] {
        return run([&](void **reply) { return rtslib_rtbm_get_by_index(asker, 2, 0, RTM_OP_GET, reply, nullptr); });
    };
    for (const auto &row : of_requests) {
        row.set(rtsock_model_faults());
        EXPECT_EQ(get(), row.first) << row.what;
        EXPECT_EQ(get(), row.second) << row.what;
        EXPECT_EQ(take_reports(), *row.reported != '\0' ? ::lines{ row.reported } : ::lines{}) << row.what;
        EXPECT_EQ(get(), "0 2 default") << row.what;
    }
}

TEST_F(ModelTest, events_opens_and_system_values_can_be_faulty_too)
{
    rk_faults *faults = rtsock_model_faults();
    faults->events = { .lost = 1 };
    lines({ "table one index 1 family inet", "table two index 2 family inet" });
    EXPECT_EQ(heard(), "add 2 2 two");
    faults->events = { .cut = 1, .cut_length = 30 };
    lines({ "table three index 3 family inet", "table four index 4 family inet" });
    void *event = nullptr;
    EXPECT_EQ(rtslib_long_msg_read_idl(listener, &event, nullptr), TARGET_EINVAL);
    EXPECT_EQ(heard(), "add 4 2 four");
    faults->events = { .odd_sequences = 1, .raw = 1 };   // both in one; it is the fifth
    lines({ "table five index 5 family inet" });
    octets raw(256);
    EXPECT_GT(rtsock_recv(listener->socket, raw.data(), raw.size(), MSG_DONTWAIT), 0);
    rts_hdr header = {};
    memcpy(&header, raw.data(), RTSLIB_HDR_SIZE);
    EXPECT_TRUE(header.rtsh_type == 1 && header.rtsh_op == RTM_OP_ADD && header.rtsh_seq == 6) << header.rtsh_seq;

    faults->failed_opens = 1;
    faults->failed_open_error = TARGET_ENOBUFS;
    EXPECT_TRUE(rtsock_open() == -1 && errno == ENOBUFS);
    faults->failed_sysctls = 1;
    faults->failed_sysctl_error = TARGET_EIO;
    int32_t value = 7;
    size_t size = sizeof value;
    EXPECT_TRUE(rtsock_sysctlbyname("kern.gencfg_cfg2_peermask", &value, &size, nullptr, 0) == -1 && errno == EIO);
    EXPECT_EQ(rtsock_sysctlbyname("kern.gencfg_cfg2_peermask", &value, &size, nullptr, 0), 0);
    EXPECT_EQ(value, 0);
    faults->refused_options = 1 << RTSOCK_SYNC_MODE;
    EXPECT_EQ(rtslib_set_sync_mode(asker, 1), -1);
}

TEST_F(ModelTest, a_bulk_write_stops_where_it_is_told)
{
    ASSERT_EQ(rtslib_set_sync_mode(asker, 1), 0);
    rk_faults *faults = rtsock_model_faults();
    faults->bulk_stops = 1;
    faults->bulk_stop_at = 2;
    faults->bulk_stop_error = TARGET_ENOSPC;
    rtb_msg tables[4] = {};
    auto write = [&](uint32_t count) {
        rtslib_iov entries[4] = {};
        std::string errors;
        for (uint32_t i = 0; i < count; i++) {
            tables[i].rts_hdr.rtsh_type = 1;
            tables[i].rts_hdr.rtsh_op = RTM_OP_GET;
            tables[i].af = 2;
            entries[i].msg = &tables[i];
            entries[i].reply = &entries[i].reply;
        }
        EXPECT_EQ(rtslib_msg_writev_idl(asker, count, entries, nullptr), 0);
        for (uint32_t i = 0; i < count; i++) {
            bool answered = entries[i].reply != &entries[i].reply;
            errors += std::to_string(entries[i].write_err) + (answered ? "+ " : " ");
            if (answered) rtslib_msg_idl_release(asker, entries[i].reply);
        }
        return errors;
    };
    EXPECT_EQ(write(2), "0+ 0+ ");   // too few entries: the fault waits
    EXPECT_EQ(write(4), "0+ 0+ 28 0 ");
    EXPECT_EQ(write(4), "0+ 0+ 0+ 0+ ");
}
