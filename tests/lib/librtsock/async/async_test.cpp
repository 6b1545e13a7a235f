/*
 * Events: what a wake-up makes of what the kernel sent, what registrations ask of the kernel, and handlers that end
 * what they run in.
 */
#include "lib/librtsock/filter/rts_filter.h"
#include "lib/librtsock/rtslib_async.h"
#include "lib/librtsock/rtslib_unnum.h"
#include "tests/lib/librtsock/scripted_kernel.h"

static std::string trace;   // what happened, in order
static int recv_error, save_result;
static void (*meanwhile)(rtslib_cookie *);   // done by the next handler

#pragma GCC diagnostic ignored "-Wmissing-declarations"
extern "C" {
decltype(recv) __real_recv;
ssize_t __wrap_recv(int fd, void *buffer, size_t size, int flags)
{
    return recv_error != 0 ? refuse(recv_error) : __real_recv(fd, buffer, size, flags);
}
int __wrap_rtslib_unnum_ifa_save_msg(rtslib_cookie *, const void *) { return trace += "save ", save_result; }
int __wrap_rtslib_unnum_ifa_report(rtslib_cookie *) { return trace += "report ", 0; }
void __wrap_rtslib_unnum_ifa_cleanup(rtslib_cookie *) { trace += "cleanup "; }
}

/* "CONTEXT:TYPE". */
static void handler(rtslib_cookie *cookie, uintptr_t context, void *message, void *mask)
{
    EXPECT_EQ(mask, nullptr);
    trace += std::to_string(context) + ":" + std::to_string(static_cast<uint8_t *>(message)[5]) + " ";
    rtslib_msg_idl_release(cookie, message);
    if (meanwhile != nullptr) std::exchange(meanwhile, nullptr)(cookie);
}

static octets typed(octets message, int type) { return message[5] = uint8_t(type), message; }
static octets operator+(octets a, const octets &b) { return a.insert(a.end(), b.begin(), b.end()), a; }
static void deliver(const octets &m) { EXPECT_EQ(send(kernel.peer, m.data(), m.size(), 0), ssize_t(m.size())); }

using words = std::vector<uint32_t>;
static words option(int number)
{
    words out(kernel.options[number].size() / 4);
    return memcpy(out.data(), kernel.options[number].data(), out.size() * 4), out;
}

class AsyncTest : public LibTest {
protected:
    AsyncTest()
    {
        trace = "";
        EXPECT_EQ(evCreate(&ctx), 0);
        EXPECT_EQ(rtslib_set_async_context(cookie, ctx), 0);
    }
    ~AsyncTest() override
    {
        rtslib_close(cookie);
        EXPECT_EQ(ctx != nullptr ? evDestroy(ctx) : 0, 0);
    }
    int wake_up() { return trace = "", rtslib_async_event_process(cookie) == 0 ? 0 : errno; }
    evContext ctx = nullptr;
    rtslib_cookie *cookie = open();
};

#define CORRUPT "4 FATAL ERROR corrupted msg_len "
#define FAILED "3 ERROR Failed to decode the msg: error "

TEST_F(AsyncTest, WakeUps)
{
    const octets one = table_reply(1), two = table_reply(2, 0, true);
    const auto spoilt = [](octets o, size_t at, uint8_t value) { return o[at] = value, o; };
    gencfg_msg blob = {};
    blob.rts_hdr.rtsh_type = 72, blob.flags = 0x20000;
    const struct {
        std::vector<octets> datagrams;
        uint32_t mode;
        int reads, error;
        const char *trace;
        lines reports;
    } rows[] = {
        { {}, 1, 10, EAGAIN, "", {} },
        { { one, two + one }, 1, 10, 0, "5:1 5:1 5:1 ", {} },
        { { raw(40, 40), two, typed(raw(24, 24, 3), 6) }, 1, 10, 0, "4:0 5:1 6:6 ", {} },
        { { one, two, one }, 1, 2, 0, "5:1 5:1 ", {} },
        { { one, two }, 1, 0, 0, "5:1 ", {} },
        // Damage costs the rest of its read; the next read's end takes its error away.
        { { raw(100, 120) }, 1, 10, 0, "", { CORRUPT "(120) (100 bytes left)" } },
        { { raw(100, 120), one }, 1, 1, EINVAL, "", { CORRUPT "(120) (100 bytes left)" } },
        { { one + octets(23), raw(30, 23), two, raw(24, 1U << 31) }, 1, 10, 0, "5:1 5:1 ",
          { CORRUPT "(0) (23 bytes left)", CORRUPT "(23) (30 bytes left)", CORRUPT "(-2147483648) (24 bytes left)" } },
        { { one, octets(23), two }, 1, 10, EIO, "5:1 ", { "4 FATAL ERROR msg read too small for header: 23\n" } },
        { { one + one, two }, 0x401, 10, 0, "5:1 5:1 ", { "4 FATAL ERROR Incorrect message length. 232 != 464" } },
        // What nobody takes: raw, without a codec (unknown, unwanted, wanted), broken, compressed. The envelope's type
        // counts.
        { { typed(raw(24, 24), 110), typed(raw(24, 24, 2), 109) }, 1, 10, 0, "",
          { "2 WARNING received async message of unknown type: 110\n",
            "3 ERROR received async message with no handler: 109\n" } },
        { { spoilt(one, 8, 110), spoilt(one, 11, 0x80), spoilt(two, 8, 85) }, 1, 10, 0, "",
          { "2 WARNING received async message of unknown type: 110\n",
            "2 WARNING received async message of unknown type: -2147483647\n",
            "3 ERROR received async message with no handler: 85\n" } },
        { { spoilt(one, 8, 15), spoilt(two, 8, 0), spoilt(one, 8, 6), one }, 1, 10, 0, "4:0 5:1 ",
          { FAILED "(45)\n", "0 DEBUG IDL IDR Decode Error -1(Garbled Message)", FAILED "(22)\n" } },
        { { wire(&blob, 72), one }, 1, 10, 0, "5:1 ", { "3 ERROR Compression was not initialized for rtslib\n" } },
    };
    EXPECT_EQ(rtslib_setup_async_registration(cookie, 0, 0, 0, 4, handler), 0);
    EXPECT_EQ(rtslib_rtbm_async_register(cookie, 5, handler), 0);
    EXPECT_EQ(rtslib_iflm_async_register(cookie, 6, handler), 0);
    EXPECT_EQ(rtslib_gencfg_async_register(cookie, 7, handler), 0);
    EXPECT_EQ(rtslib_setup_async_registration(cookie, 15, 0, 0, 8, handler), 0);
    for (const auto &row : rows) {
        cookie->seq = 1;
        EXPECT_EQ(rtslib_set_async_mode(cookie, row.mode), 0);
        rtslib_async_set_num_read_msg(cookie, row.reads);
        for (const octets &m : row.datagrams) deliver(m);
        EXPECT_EQ(wake_up(), row.error);
        EXPECT_EQ(trace, row.trace);
        EXPECT_EQ(take_reports(), row.reports) << &row - rows;
        octets room(1000);
        while (rtsock_read(cookie->socket, room.data(), room.size()) >= 0) continue;
    }
}

[[gnu::format(printf, 4, 0)]]
static void log_whole_line(int level, const char *, const char *const *, const char *format, va_list args)
{
    char text[200];
    vsnprintf(text, sizeof text, format, args);
    const std::string said = std::to_string(level) + text, start = "7rtslib_async_event_process, async_test read ";
    EXPECT_EQ(said.substr(0, start.size()), start);
    logged.push_back(said.substr(start.size()));
}

TEST_F(AsyncTest, DebugLog)
{
    logging_register_logfunc(log_whole_line);
    rtslib_async_set_io_debug(1);
    EXPECT_EQ(rtslib_rtbm_async_register(cookie, 5, handler), 0);
    for (bool one_message : { false, true }) {
        logged.clear();
        EXPECT_EQ(rtslib_set_async_mode(cookie, one_message ? 0x401 : 1), 0);
        rtslib_async_set_num_read_msg(cookie, 2);
        deliver(one_message ? table_reply(1) : table_reply(1) + table_reply(2));
        deliver(table_reply(3));
        EXPECT_EQ(wake_up(), 0);
        const lines rows[] = {
            { "464 bytes\n", "and processed 2 msgs\n", "232 bytes\n", "and processed 1 msgs\n",
              "3 msgs with 2 read calls before return to select\n" },
            { "232 bytes\n", "one msg with bulk disabled.\n", "and processed 1 msgs\n", "232 bytes\n",
              "one msg with bulk disabled.\n", "and processed 1 msgs\n",
              "2 msgs with 2 read calls before return to select\n" },
        };
        EXPECT_EQ(logged, rows[one_message]);
    }
    rtslib_async_set_io_debug(0);
}

TEST_F(AsyncTest, WhatCannotBeRead)
{
    recv_error = EMSGSIZE;
    EXPECT_DEATH(wake_up(), "async/rtslib_async_event_process:125: rtslib_async_event_process: .*errno != EMSGSIZE");
    recv_error = ENOBUFS;
    EXPECT_EQ(wake_up(), ENOBUFS);
    recv_error = 0;
    rtslib_free(MEMID_RTSLIB_MSG, std::exchange(cookie->rbuf_data, nullptr));
    allowance = 0;
    EXPECT_EQ(wake_up(), ENOMEM);
    int fd = std::exchange(cookie->socket, -1);
    cookie->rbuf_sz = 0;
    EXPECT_EQ(wake_up(), EINVAL);
    cookie->socket = fd;
    EXPECT_EQ(take_reports(),
              (lines{ "4 FATAL ERROR read failed: (55) No buffer space available",
                      "3 ERROR rtslib_size_alloc failed!\n",
                      "3 ERROR rtslib_async_event_process: Failed to get SO_RCVBUF Bad file descriptor" }));
    EXPECT_EXIT(rtslib_async_event_process(nullptr), testing::ExitedWithCode(1), "");
    allowance = 2;   // a registration and the buffer, and no copy
    EXPECT_EQ(rtslib_setup_async_registration(cookie, 3, 0, 0, 4, handler), 0);
    deliver(typed(raw(24, 24), 3));
    EXPECT_EQ(wake_up(), 0);
    EXPECT_EQ(trace, "");
}

TEST_F(AsyncTest, Registrations)
{
    const auto setup = [&](uint32_t type, rtslib_async_func f) {
        return rtslib_setup_async_registration_idl(cookie, type, 0x9d, 1, 1, f);
    };
    EXPECT_EQ(rtslib_ifdm_async_register(cookie, 1, handler), 0);
    EXPECT_EQ(rtslib_rtm_async_register(cookie, 1, handler), 0);
    EXPECT_EQ(rtslib_iffm_async_register(cookie, 0xff, 1, handler), 0);
    EXPECT_EQ(rtslib_ifam_async_register(cookie, 4, 1, handler), 0);
    EXPECT_EQ(option(RTSOCK_LISTEN_BITS), (words{ 0x20039d, 0 }));
    EXPECT_EQ(rtslib_gencfg_async_register(cookie, 1, handler), 0);
    kernel.refused = RTSOCK_LISTEN_BITS;
    EXPECT_EQ(setup(110, handler), 0);   // asks for nothing new
    EXPECT_EQ(rtslib_iflm_async_register(cookie, 1, handler), -1);
    kernel.refused = -1;
    allowance = 0;
    EXPECT_EQ(rtslib_iflm_async_register(cookie, 1, handler), -1);
    EXPECT_EQ(option(RTSOCK_LISTEN_BITS), (words{ 0x20039f, 1 }));
    for (int result : { setup(111, handler), setup(72, handler), setup(9, nullptr) }) EXPECT_EQ(result, 22);
    octets filter(RTS_FILTER_BLOCK_SIZE, 6);
    EXPECT_EQ(rtslib_async_register_filters(cookie, nullptr), 22);
    EXPECT_EQ(rtslib_async_register_filters(cookie, filter.data()), 0);
    EXPECT_TRUE(option(RTSOCK_FILTERS)[0] == 0x20039f && option(RTSOCK_FILTERS)[188] == 0x06060606);
    words routes_off(189);
    routes_off[0] = 0x1f, routes_off[1] = 1, routes_off[4] = 0x200380;
    EXPECT_EQ(rtslib_rtm_async_unregister(cookie), 0);
    EXPECT_EQ(option(RTSOCK_FILTERS), routes_off);
    kernel.refused = RTSOCK_FILTERS;
    EXPECT_EQ(rtslib_rtm_async_unregister(cookie), 0);

    // The block ends without the last slot. Then there is none, until a client with a loop of its own makes one.
    rtslib_async_reg *last = cookie->async_info->handlers[110];
    EXPECT_EQ(rtslib_destroy_async_context(cookie), 0);
    EXPECT_EQ(blocks[MEMID_RTSLIB_ASYNC_REG], 1);
    rtslib_free(MEMID_RTSLIB_ASYNC_REG, last);
    EXPECT_EQ(rtslib_destroy_async_context(cookie), 0);
    EXPECT_TRUE(setup(9, handler) == 22 && rtslib_set_async_mode(cookie, 1) == 22);
    EXPECT_EQ(rtslib_alloc_async_info(cookie), -1);
    allowance = 9;
    EXPECT_EQ(rtslib_alloc_async_info(cookie), 0);
    EXPECT_EQ(rtslib_alloc_async_info(cookie), 22);
    EXPECT_EQ(rtslib_rtbm_async_register(cookie, 1, handler), 0);
    EXPECT_EQ(take_reports(), (lines{ "3 ERROR failed to set listen bit Operation not permitted",
                                      "3 ERROR async registration allocation failed Cannot allocate memory\n",
                                      "3 ERROR failed to set listen bit Operation not permitted",
                                      "4 FATAL ERROR async info allocation failed Cannot allocate memory\n" }));
}

TEST_F(AsyncTest, Subtypes)
{
    const auto add = [&](uint32_t type, uint8_t subtype, uint8_t all, uintptr_t context) {
        return rtslib_async_subtype_handler_register(cookie, type, subtype, 2, 26, all, 2, 0, context, handler);
    };
    for (int room : { 0, 1, 2 }) {   // the table, its pairs, the registration: nothing stays
        allowance = room;
        EXPECT_EQ(add(50, 1, 0, 1), room < 2 ? 12 : -1);
    }
    allowance = 1000;
    // But what the last step had begun with: selection and class.
    EXPECT_TRUE(cookie->async_info->ev_state == RTSLIB_EV_SELECTED && cookie->async_info->listen_lo == 2);
    EXPECT_TRUE(blocks.count(MEMID_RTSLIB_SUBTYPE) == 0 && blocks.count(MEMID_RTSLIB_ASYNC_REG) == 0);
    EXPECT_TRUE(add(50, 2, 0, 1) == 22 && add(111, 1, 0, 1) == 22);
    EXPECT_EQ(add(50, 1, 0, 1), 0);
    EXPECT_EQ(add(50, 0, 0, 2), 0);   // comes too late
    EXPECT_EQ(add(51, 9, 1, 3), 0);
    EXPECT_EQ(rtslib_ifstate_eochain_register(cookie, 4, handler), 0);
    take_reports();
#define RECEIVED "3 ERROR received async message with "
    const struct {
        int type;
        uint32_t size;
        uint8_t subtype;   // the last octet
        const char *trace, *report;
    } rows[] = {
        { 50, 27, 0, "", "" }, { 50, 27, 1, "1:50 ", "" }, { 51, 27, 1, "3:51 ", "" }, { 85, 25, 0, "4:85 ", "" },
        { 50, 27, 2, "", RECEIVED "invalid subtype msg_type = 50 subtype offset=26 msglen=27 subtype = 2\n" },
        { 85, 24, 0, "", RECEIVED "length < needed for subtype msg_type = 85 subtype offset=24 msglen=24\n" },
    };
    for (const auto &row : rows) {
        octets event = typed(raw(row.size, row.size, cookie->seq), row.type);
        event.back() = row.subtype;
        deliver(event);
        EXPECT_EQ(wake_up(), 0);
        EXPECT_EQ(trace, row.trace);
        EXPECT_EQ(take_reports(), *row.report != '\0' ? lines{ row.report } : lines{});
    }
    // The pairs are left behind.
    std::vector<rtslib_async_reg *> pairs;
    for (int type : { 50, 51, 85 }) {
        uintptr_t table = cookie->async_info->handlers[type]->context;
        pairs.push_back(reinterpret_cast<rtslib_async_subtypes *>(table)->entries);
    }
    EXPECT_EQ(rtslib_destroy_async_context(cookie), 0);
    EXPECT_EQ(blocks[MEMID_RTSLIB_ASYNC_REG], 3);
    for (rtslib_async_reg *entries : pairs) rtslib_free(MEMID_RTSLIB_ASYNC_REG, entries);
}

TEST_F(AsyncTest, HandlersEndWhatTheyRunIn)
{
    const struct {
        void (*act)(rtslib_cookie *);
        const char *trace;
        lines reports;
    } rows[] = {
        { [](rtslib_cookie *c) { rtslib_rtm_async_unregister(c); }, "1:2 1:1 ",
          { "3 ERROR received async message with no handler: 2\n" } },
        { [](rtslib_cookie *c) { rtslib_destroy_async_context(c); }, "1:2 ", {} },
        { [](rtslib_cookie *c) { rtslib_set_buffers(c, 0x80000, 30); }, "1:2 ", { CORRUPT "(0) (6 bytes left)" } },
        { [](rtslib_cookie *c) { rtslib_close(c); }, "1:2 ", {} },
    };
    for (const auto &row : rows) {
        (void)rtslib_set_async_context(cookie, ctx);
        cookie->seq = 1;
        (void)rtslib_rtbm_async_register(cookie, 1, handler);
        (void)rtslib_rtm_async_register(cookie, 1, handler);
        deliver(typed(raw(24, 24), 2) + table_reply(1) + typed(raw(24, 24, 3), 2));
        trace = "";
        meanwhile = row.act;
        EXPECT_EQ(evTurn(ctx, 0), 1);
        EXPECT_EQ(trace, row.trace);
        EXPECT_EQ(take_reports(), row.reports);
        EXPECT_EQ(evTurn(ctx, 0), 0);
    }
    // So may the sink of sequence errors.
    cookie = open();
    for (rtslib_seq_err_func act : { rtslib_seq_err_func([](rtslib_cookie *c, uintptr_t, uint32_t, uint32_t) {
                                         rtslib_set_buffers(c, 0x80000, 0x90000);
                                     }),
                                     rtslib_seq_err_func([](rtslib_cookie *c, uintptr_t, uint32_t, uint32_t) {
                                         rtslib_destroy_async_context(c);
                                     }),
                                     rtslib_seq_err_func([](rtslib_cookie *c, uintptr_t, uint32_t, uint32_t) {
                                         rtslib_close(c);
                                     }) }) {
        (void)rtslib_set_async_context(cookie, ctx);
        (void)rtslib_rtm_async_register(cookie, 1, handler);
        rtslib_seq_error_register(cookie, 0, act);
        deliver(typed(raw(24, 24, 99), 2));
        meanwhile = nullptr;
        EXPECT_EQ(evTurn(ctx, 0), 1);
    }
    cookie = nullptr;
    EXPECT_EQ(take_reports(), lines{});
}

TEST_F(AsyncTest, DonorTrackingHearsOfAddresses)
{
    const struct {
        uint8_t operation;
        int saved;
        const char *trace;
        void (*act)(rtslib_cookie *);
    } rows[] = {
        { 3, 0, "save report 1:8 ", nullptr }, { 1, 0, "save 1:8 report ", nullptr }, { 3, -1, "save 1:8 ", nullptr },
        { 1, -1, "save 1:8 ", nullptr },       { 1, 0, "save 1:8 cleanup ", rtslib_close },
    };
    EXPECT_EQ(rtslib_ifam_async_register(cookie, 1, 1, handler), 0);
    for (const auto &row : rows) {
        for (bool tracking : { false, true }) {
            cookie->unnum = tracking ? reinterpret_cast<rtslib_unnum *>(cookie) : nullptr;
            save_result = row.saved;
            meanwhile = tracking ? row.act : nullptr;
            ifa_msg m = {};
            m.rts_hdr.rtsh_type = 8, m.rts_hdr.rtsh_op = row.operation;
            deliver(wire(&m, 8, tracking));
            EXPECT_EQ(wake_up(), 0);
            EXPECT_EQ(trace, tracking ? row.trace : "1:8 ");
        }
    }
    cookie = nullptr;
}

TEST_F(AsyncTest, ModesBuffersAndEventSources)
{
    for (uint32_t bits : { 0x2U, 0x21U, 0x40001U }) EXPECT_EQ(rtslib_set_async_mode(cookie, bits), 22) << bits;
    for (uint32_t bits : { 0U, 0x3ff9fU }) {
        EXPECT_EQ(rtslib_set_async_mode(cookie, bits), 0);
        EXPECT_EQ(option(RTSOCK_ASYNC_MODE), words{ bits });
        EXPECT_EQ(rtslib_set_buffers(cookie, 0x7ffff, 0x80000), bits != 0 ? 22 : 0);
        EXPECT_EQ(rtslib_set_buffers(cookie, 0x80000, 0x80000), 0);
    }
    kernel.refused = RTSOCK_ASYNC_MODE;
    EXPECT_EQ(rtslib_set_async_mode(cookie, 0), -1);
    // Mode bit 14 is still set: in place of the socket, a source of the client's, which tries to end the loop.
    int ends[2];
    ASSERT_EQ(pipe(ends), 0);
    rtslib_ext_select source = { {}, [](evContext, void *uap, int, int) {
        EXPECT_EQ(rtslib_destroy_async_context(static_cast<rtslib_cookie *>(uap)), -1);
    }, ends[0] };
    cookie->ext_select = &source;
    EXPECT_EQ(rtslib_ifdm_async_register(cookie, 1, handler), 0);
    cookie->async_info->ev_state |= RTSLIB_EV_DESTROY;
    deliver(table_reply(1));
    EXPECT_EQ(evTurn(ctx, 0), 0);
    EXPECT_EQ(write(ends[1], "x", 1), 1);
    EXPECT_EQ(evTurn(ctx, 0), 1);
    EXPECT_EQ(evTurn(ctx, 0), 0);   // the block has stayed, the selection has not
    EXPECT_EQ(rtslib_destroy_async_context(cookie), 0);
    ctx = nullptr;
    close(ends[0]), close(ends[1]);
    EXPECT_EQ(take_reports(),
              (lines{ "3 ERROR Attempted to set an invalid buffer size(send size: 524287, recv size: 524288)\n",
                      "3 ERROR failed to set async mode bits=0x0, error=Operation not permitted",
                      "3 ERROR async context destruction failed %" }));
}
