/*
 * Memory of the library and its reports: the default hooks and what they count, what stops the process, and both sinks.
 */
#include "tests/lib/librtsock/scripted_kernel.h"

#pragma GCC diagnostic ignored "-Wmissing-declarations"
extern "C" const char *__asan_default_options()
{
    return "allocator_may_return_null=1";
}

static const auto default_malloc = rtslib_malloc;
static const auto default_calloc = rtslib_calloc;
static const auto default_realloc = rtslib_realloc;
static const auto default_free = rtslib_free;
static int locks, unlocks;

class MemTest : public LibTest {
protected:
    MemTest()
    {
        rtslib_malloc = default_malloc;
        rtslib_calloc = default_calloc;
        rtslib_realloc = default_realloc;
        rtslib_free = default_free;
    }
    ~MemTest() override { rtslib_mem_rec_enabled = 0; }
    static std::vector<uint32_t> row(uint16_t id)
    {
        const rtslib_mem_counts &r = rtslib_mem_record.cnts[id];
        return { r.allocated, r.failed, r.freed, r.outstanding, r.check[0], r.check[1], r.check[2], r.check[3] };
    }
};

TEST_F(MemTest, CountsAndCheckOctets)
{
    rtslib_free_cb(rtslib_malloc_cb(1));   // not counted yet
    EXPECT_EQ(rtslib_mem_record.cnts, nullptr);
    rtslib_mem_rec_enable([] { locks++; }, [] { unlocks++; });
    void *block = rtslib_malloc_cb(10);
    EXPECT_EQ(row(0), (std::vector<uint32_t>{ 1, 0, 0, 1, 1, 190, 190, 1 }));
    EXPECT_EQ(rtslib_malloc_cb(SIZE_MAX / 4), nullptr);
    EXPECT_EQ(rtslib_calloc(59, 2, SIZE_MAX / 4), nullptr);
    block = rtslib_realloc(59, block, 20);
    EXPECT_EQ(rtslib_realloc(59, block, SIZE_MAX / 4), nullptr);   // counts a free, too
    EXPECT_EQ(row(59), (std::vector<uint32_t>{ 2, 3, 2, 0, 2, 3, 2, 190 }));
    rtslib_free_cb(block);
    rtslib_free_cb(nullptr);
    EXPECT_EQ(row(59), (std::vector<uint32_t>{ 2, 3, 3, UINT32_MAX, 2, 3, 3, 190 }));
    EXPECT_EQ(locks, 9);
    EXPECT_EQ(unlocks, 9);
    for (int i = 0; i < 257; i++) {   // 0x0101: its octets cancel out
        uint16_t id = memid_rtslib_itable_donor;
        rtslib_free_itable(uintptr_t(&id), rtslib_malloc_itable(uintptr_t(&id), 1));
    }
    EXPECT_EQ(row(65), (std::vector<uint32_t>{ 257, 0, 257, 0, 190, 190, 190, 190 }));
}

TEST_F(MemTest, DamageStopsTheProcess)
{
    static const uint16_t below = 62, above = 67;
    const struct {
        void (*damage)(void);
        const char *text;
    } rows[] = {
        { [] { rtslib_mem_record.cnts = nullptr; }, "rtslib_mem:137: .*!rtslib_mem_record.cnts_saved" },
        { [] { rtslib_mem_record.cnts_saved = nullptr; }, ":152: .*cnts_saved == rtslib_mem_record.cnts" },
        { [] { rtslib_mem_record.submod_max = 3; }, ":153: .*MEMID_RTSLIB_MAX == rtslib_mem_record.submod_max" },
        { [] { rtslib_malloc(77, 1); }, ":154: .*rtslib_mem_record.submod_max > memid" },
        { [] { rtslib_malloc_itable(uintptr_t(&below), 1); }, ":189: .*MEMID_RTSLIB_ITABLE_MIN<=memid" },
        { [] { rtslib_free_itable(uintptr_t(&above), nullptr); }, ":196: .*MEMID_RTSLIB_ITABLE_MAX>=memid" },
    };
    rtslib_mem_rec_enable(nullptr, nullptr);
    rtslib_free_cb(rtslib_malloc_cb(1));
    for (const auto &row : rows)
        EXPECT_DEATH((row.damage(), rtslib_malloc_cb(1)), row.text);
}

TEST_F(LibTest, NothingWithoutACookie)
{
    EXPECT_EQ(rtslib_size_alloc(nullptr, 1), nullptr);
    rtslib_cookie *cookie = open();
    auto *block = static_cast<uint8_t *>(rtslib_msg_malloc(cookie));
    EXPECT_EQ(std::count(block, block + RTSLIB_MSG_MAX, 0), RTSLIB_MSG_MAX);
    EXPECT_EQ(blocks[76], 2);
    rtslib_msg_free(nullptr, block);   // leaks
    EXPECT_EQ(blocks[76], 2);
    rtslib_msg_free(cookie, block);
    rtslib_close(cookie);
    EXPECT_EQ(rtslib_lib_error_register(nullptr, 0, sink), 22);
}

TEST_F(LibTest, ReportsReachTheCookiesSink)
{
    rtslib_cookie *cookie = open();
    errno = EDOM;
    for (int severity = RTSLIB_DEBUG; severity <= RTSLIB_FATAL; severity++)
        rtslib_err(cookie, severity, "n%d", severity);
    EXPECT_EQ(errno, EDOM);
    EXPECT_EQ(take_reports(),
              (lines{ "0 DEBUG n0", "1 INFO n1", "2 WARNING n2", "3 ERROR n3", "4 FATAL ERROR n4" }));
    rtslib_err(cookie, RTSLIB_INFO, "%s", std::string(300, 'x').c_str());
    EXPECT_EQ(take_reports()[0].size(), 2 + 255 - strlen("rtslib: "));
    rtslib_lib_error_register(cookie, 7, nullptr);
    rtslib_err(cookie, RTSLIB_FATAL, "unheard");
    EXPECT_TRUE(reports.empty() && logged.empty());
    rtslib_close(cookie);
}

TEST_F(LibTest, DefaultSinkWritesToTheLogAndEndsTheProcess)
{
    for (int severity = RTSLIB_DEBUG; severity < RTSLIB_FATAL; severity++)
        rtslib_err(nullptr, severity, "x");
    EXPECT_EQ(logged, (lines{ "7 rtslib: DEBUG x\n", "6 rtslib: INFO x\n", "4 rtslib: WARNING x\n",
                              "3 rtslib: ERROR x\n" }));
    EXPECT_EXIT(rtslib_err(nullptr, RTSLIB_FATAL, "end"), testing::ExitedWithCode(1), "rtslib: FATAL ERROR end");
    testing::internal::CaptureStderr();
    rtslib_lib_error(nullptr, 0, 5, "odd");
    EXPECT_EQ(testing::internal::GetCapturedStderr(), "odd\n");
}
