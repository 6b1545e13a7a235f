/*
 * Filter compiler: what expressions compile to, what is refused and where, and that nothing stays behind - no memory
 * and no descriptor - whatever fails on the way.
 *
 * Offsets in the rows: a block begins with 16 octets of head; an instruction takes 16 octets and its payload, rounded
 * up to 16, which is 32 for all but long texts.
 */
#include "lib/librtsock/filter/filter_build.h"
#include "tools/rtsfilter/listing.h"

#include <errno.h>
#include <gtest/gtest.h>
#include <string.h>
#include <string>
#include <unistd.h>
#include <vector>

static int good_calls = -1;   // of those below that come before the one that fails; negative: none fails
static std::string failing;   // which calls are counted
static int live_blocks;

static bool fails(const char *call)
{
    return failing == call && good_calls >= 0 && good_calls-- == 0;
}

extern "C" {
void *__real_realloc(void *, size_t), *__wrap_realloc(void *, size_t);
void *__real_calloc(size_t, size_t), *__wrap_calloc(size_t, size_t);
void __real_free(void *), __wrap_free(void *);
int __real_pipe2(int *, int), __wrap_pipe2(int *, int);
ssize_t __real_write(int, const void *, size_t), __wrap_write(int, const void *, size_t);
FILE *__real_fdopen(int, const char *), *__wrap_fdopen(int, const char *);

void *__wrap_realloc(void *block, size_t size)
{
    if (fails("memory")) return nullptr;
    live_blocks += block == nullptr;
    return __real_realloc(block, size);
}
void *__wrap_calloc(size_t count, size_t size)
{
    if (fails("memory")) return nullptr;
    live_blocks++;
    return __real_calloc(count, size);
}
void __wrap_free(void *block)
{
    live_blocks -= block != nullptr;
    __real_free(block);
}
int __wrap_pipe2(int *ends, int flags) { return fails("pipe2") ? -1 : __real_pipe2(ends, flags); }
ssize_t __wrap_write(int fd, const void *text, size_t n) { return __real_write(fd, text, fails("write") ? n - 1 : n); }
FILE *__wrap_fdopen(int fd, const char *mode)
{
    errno = EMFILE;
    return fails("fdopen") ? nullptr : __real_fdopen(fd, mode);
}
}

struct outcome {
    int result;
    std::string said, echoed;
    std::vector<uint8_t> block;
};

static int next_descriptor()
{
    int fd = dup(STDERR_FILENO);
    close(fd);
    return fd;
}

static struct outcome compile(int (*parse)(const char *, void *, size_t), const char *source, size_t size)
{
    struct outcome outcome = { 0, "", "", std::vector<uint8_t>(size) };
    testing::internal::CaptureStderr();
    testing::internal::CaptureStdout();
    int blocks = live_blocks, descriptor = next_descriptor();
    outcome.result = parse(source, outcome.block.data(), size);
    EXPECT_EQ(live_blocks, blocks) << source;
    EXPECT_EQ(next_descriptor(), descriptor) << source;
    outcome.echoed = testing::internal::GetCapturedStdout();
    outcome.said = testing::internal::GetCapturedStderr();
    return outcome;
}

static struct outcome compile_text(const char *text, size_t size = RTS_FILTER_BLOCK_SIZE)
{
    return compile(rts_filter_string_parse, text, size);
}

static struct outcome compile_file(const std::string &text, size_t size)
{
    std::string path = testing::TempDir() + "filter_test." + std::to_string(getpid());
    FILE *file = fopen(path.c_str(), "w");
    fwrite(text.data(), 1, text.size(), file);
    fclose(file);
    struct outcome outcome = compile(rts_filter_parse, path.c_str(), size);
    unlink(path.c_str());
    return outcome;
}

/* The listing with single blanks, and "; " between its lines. */
static std::string listing(const std::vector<uint8_t> &block, bool (*print)(FILE *, const void *, size_t))
{
    char text[8192] = "";
    FILE *out = fmemopen(text, sizeof text, "w");
    EXPECT_TRUE(print(out, block.data(), block.size()));
    fclose(out);
    std::string lines;
    for (const char *at = text; *at; at++) {
        if (*at == '\n' && at[1]) lines += "; ";
        else if (*at != '\n' && (*at != ' ' || (!lines.empty() && lines.back() != ' '))) lines += *at;
    }
    return lines;
}

static const struct { const char *source, *program; } programs[] = {
    { "RTM_ADD", "16 10 integer 1" },
    { "NULL & 4294967295", "16 10 integer 0; 48 10 integer -1; 80 11 operator &" },
    // the low 32 bits up to 2^63 - 1, all bits beyond
    { "4294967297 & 9223372036854775808", "16 10 integer 1; 48 10 integer -1; 80 11 operator &" },
    { "a == 10.1.0.0/16", "16 1 field a; 48 14 ipv4 10.1.0.0, words 1; 80 11 operator == ipv4, words 1" },
    { "1.2.3.4/33 != a", "16 14 ipv4 1.2.3.4, words 2; 48 1 field a; 80 11 operator != ipv4, words 2" },
    { "a == ::", "16 1 field a; 48 15 ipv6 ::, words 4; 80 11 operator == ipv6, words 4" },
    { "a != 2001:db8::1/0", "16 1 field a; 48 15 ipv6 2001:db8::1, words 1; 80 11 operator != ipv6, words 1" },
    { "a > 1.2.3.4", "16 1 field a; 48 14 ipv4 1.2.3.4, words 1; 80 11 operator >" },
    // a name of 16 and a text of 15 take 17 and 16 octets with their terminators: 33 and 32, so 48 and 32
    { "abcdefghijklmnop ~ \"12345678901234\n\"",
      "16 1 field abcdefghijklmnop; 64 12 string \"12345678901234\\x0a\"; 96 11 operator ~" },
    // left operands jump to their operator; && binds tighter
    { "a || b && c", "16 1 field a, if 1 to 144; 48 1 field b, if 0 to 112; 80 1 field c; 112 11 operator &&; "
                     "144 11 operator ||" },
    { "(a || b) && c", "16 1 field a, if 1 to 80; 48 1 field b; 80 11 operator ||, if 0 to 144; 112 1 field c; "
                       "144 11 operator &&" },
    { "a<=b&4", "16 1 field a; 48 1 field b; 80 10 integer 4; 112 11 operator &; 144 11 operator <=" },
    { "(a == 1) >= (b - 2)", "16 1 field a; 48 10 integer 1; 80 11 operator ==; 112 1 field b; 144 10 integer 2; "
                             "176 11 operator -; 208 11 operator >=" },
    // the last "." in front of another step, or of the end, is a last step
    { "$.b.c->d.e + f->g", "16 13 context $; 48 9 next field b; 80 11 operator step; 112 9 next field c; "
                           "144 11 operator last step; 176 9 next field d; 208 11 operator step; 240 9 next field e; "
                           "272 11 operator last step; 304 1 field f; 336 9 next field g; 368 11 operator step; "
                           "400 11 operator +" },
};

TEST(filter, expressions_become_programs)
{
    for (const auto &row : programs) {
        struct outcome outcome = compile_text(row.source);
        EXPECT_EQ(outcome.result, 0) << row.source;
        EXPECT_EQ(outcome.said, "") << row.source;
        EXPECT_EQ(listing(outcome.block, listing_print), row.program) << row.source;
    }
    // Head with 96 octets of program; "a" jumps 64 octets to the "||" at value 1; integer 0; operation 15.
    EXPECT_EQ(listing(compile_text("a || NULL").block, listing_print_octets),
              "00 00 00 00 00 00 00 00 00 00 00 00 00 00 60 00; "
              "40 00 00 00 01 00 00 00 00 00 00 00 01 00 14 00; 61 00 00 00 00 00 00 00 00 00 00 00 00 00 00 00; "
              "00 00 00 00 00 00 00 00 00 00 00 00 0a 00 14 00; 00 00 00 00 00 00 00 00 00 00 00 00 00 00 00 00; "
              "00 00 00 00 00 00 00 00 00 00 00 00 0b 00 14 00; 0f 00 00 00 00 00 00 00 00 00 00 00 00 00 00 00");
}

TEST(filter, named_constants)
{
    static const struct { const char *name; int value; } constants[] = {
        { "NULL", 0 }, { "AF_INET", 2 }, { "AF_INET6", 28 }, { "AF_ATM", 30 }, { "AF_ROUTE", 17 }, { "AF_LINK", 18 },
        { "GENCFG_SDK_MAJOR_TYPE", 32768 }, { "MEM_1MB", 1048576 }, { "RTM_ADD", 1 }, { "RTM_CHANGE", 2 },
        { "RTM_CLEAR", 6 }, { "RTM_DELETE", 3 }, { "RTM_GET", 4 }, { "RTM_GETNEXT", 5 }, { "GENCFG_TYPE_PUBLIC", 19 },
        { "GENCFG_MPSDK_CFG", 21 },
    };
    for (const auto &row : constants) {
        EXPECT_EQ(listing(compile_text(row.name).block, listing_print),
                  "16 10 integer " + std::to_string(row.value)) << row.name;
        std::string longer = std::string(row.name) + "_";   // another name
        EXPECT_EQ(listing(compile_text(longer.c_str()).block, listing_print), "16 1 field " + longer);
    }
}

static const struct { const char *source, *said; unsigned line, column; } refusals[] = {
    { "", "syntax error \n", 1, 1 },
    { "a ==\n\t1 2", "syntax error \n", 2, 4 },
    { "\"x\ny\" z", "syntax error \n", 2, 4 },
    { "0x10", "syntax error \n", 1, 2 },
    { "RTM_GET.a", "syntax error \n", 1, 8 },
    { "a ~ b", "syntax error \n", 1, 5 },
    { "a + b - c", "syntax error \n", 1, 7 },
    { "a.b.$", "Parse error: Context operator can not be a field\n \n", 1, 5 },
    { "a == 256.1.1.1", "Invalid ip prefix\n \n", 1, 6 },
    { "1::2::3 == 1.2.3.999", "Invalid ipv6 prefix \nInvalid ip prefix\n \n", 1, 1 },
};

TEST(filter, refusals_say_what_and_where)
{
    for (const auto &row : refusals) {
        struct outcome outcome = compile_text(row.source);
        unsigned line, column;
        rts_filter_error_place(&line, &column);
        EXPECT_EQ(outcome.result, -1) << row.source;
        EXPECT_EQ(outcome.said, row.said) << row.source;
        EXPECT_EQ(std::make_pair(line, column), std::make_pair(row.line, row.column)) << row.source;
    }
    EXPECT_EQ(listing(compile_text("1.2.3.999 == 1::2::3").block, listing_print),   // zero addresses go on
              "16 14 ipv4 0.0.0.0, words 1; 48 15 ipv6 ::, words 4; 80 11 operator == ipv4, words 1");
    struct outcome outcome = compile_text("a #\xff= b");   // what begins no word is written out and skipped
    EXPECT_EQ(outcome.echoed, "#\xff=");
    EXPECT_EQ(outcome.said, "syntax error \n");
    EXPECT_EQ(compile_text("a #").result, 0);
}

TEST(filter, limits)
{
    EXPECT_EQ(compile_text("a", 48).result, 0);
    struct outcome full = compile_text("1.1.1.999 == a", 79);   // full counts for more than refused
    EXPECT_EQ(full.result, -2);
    EXPECT_EQ(full.said, "Invalid ip prefix\n \nInsufficient parse buffer size!\n \n");
    EXPECT_EQ(compile_text("a", 8).result, -2);
    EXPECT_EQ(compile_text("a.$", 48).said, "Insufficient parse buffer size!\n \n");   // the room is tested first
    EXPECT_EQ(compile_text("==", 0).said, "");
    EXPECT_EQ(rts_filter_string_parse("a", nullptr, 0), -1);
    EXPECT_EQ(compile_text(std::string(511, 'a').c_str()).result, 0);
    EXPECT_EQ(compile_text(std::string(512, 'a').c_str()).result, -3);

    auto terms = [](int count) {   // takes 64 octets a term, less 32
        std::string text = "a";
        while (--count > 0) text += "&&a";
        return text;
    };
    EXPECT_EQ(compile_file(terms(1024), 70000).result, 0);   // 65504 octets
    EXPECT_EQ(compile_file(terms(1025), 70000).said, "Filter length exceeds maximum size\n \n");
    EXPECT_EQ(compile_file("\"" + std::string(65600, 'a') + "\"", 70000).result, -1);

    auto nested = [](size_t depth) { return std::string(depth, '(') + "a" + std::string(depth, ')'); };
    EXPECT_EQ(compile_file(nested(9990), 48).result, 0);
    EXPECT_EQ(compile_file(nested(10001), 48).said, "yacc stack overflow \n");
}

TEST(filter, input_that_cannot_be_had)
{
    static const struct { const char *call, *said; } faults[] = {
        { "pipe2", "Error creating pipe\n \n" },
        { "write", "Error writing to pipe\n \n" },
        { "fdopen", "Failed to open file, errno = 24\n \n" },
    };
    for (const auto &row : faults) {
        failing = row.call, good_calls = 0;
        struct outcome outcome = compile_text("a");
        EXPECT_EQ(outcome.result, -3) << row.call;
        EXPECT_EQ(outcome.said, row.said);
    }
    EXPECT_EQ(compile(rts_filter_parse, "/nowhere/filter", 48).said, "Failed to open file, errno = 2\n \n");
    EXPECT_EQ(compile_text(std::string(512, 'a').c_str()).said, "Filter too long\n \n");
    EXPECT_EQ(compile(rts_filter_parse, "/", 48).said, "Failed to read file, errno = 21\n \n");
    auto open_nothing = [](const char *path, void *, size_t) { return yyrts_setyyin(path); };
    EXPECT_EQ(compile(open_nothing, nullptr, 0).said, "NULL file name\n \n");

    FILE *saved = stdin;
    for (auto parse : { rts_filter_parse, rts_filter_string_parse }) {
        char text[] = "a.b";
        stdin = fmemopen(text, 3, "r");
        EXPECT_EQ(listing(compile(parse, nullptr, 200).block, listing_print),
                  "16 1 field a; 48 9 next field b; 80 11 operator last step");
        fclose(stdin);
    }
    stdin = saved;
}

TEST(filter, memory_that_runs_out_at_any_place_refuses_and_leaves_nothing)
{
    std::string text = "a ~ \"" + std::string(40000, 'x') + "\"";   // the scanner's buffer grows for it
    for (const std::string &source : { std::string("a == 1 && b"), text }) {
        int place = 0, result;
        do {
            failing = "memory", good_calls = place++;
            struct outcome outcome = compile_file(source, 50000);
            result = outcome.result;
            EXPECT_TRUE(result == 0 || outcome.said == "Out of memory!\n \n" ||
                        outcome.said == "yacc stack overflow \n");
        } while (result == -1 && place < 100);
        EXPECT_EQ(result, 0);
        EXPECT_GT(place, 8);
        good_calls = -1;
    }
}

TEST(filter, damaged_programs_are_seen)
{
    std::vector<uint8_t> good = compile_text("a == 1", 112).block;
    std::vector<uint8_t> odd = good;
    odd[32] = 0x1b;   // the name
    EXPECT_EQ(listing(odd, listing_print).find("16 1 field \\x1b; 48 "), 0U);
    auto prints = [](const std::vector<uint8_t> &block) {
        FILE *out = fopen("/dev/null", "w");
        bool printed = listing_print(out, block.data(), block.size());
        fclose(out);
        return printed;
    };
    for (size_t size = 0; size < good.size(); size++)
        EXPECT_FALSE(prints(std::vector<uint8_t>(good.begin(), good.begin() + ptrdiff_t(size)))) << size;
    // offset and value: program's length, an instruction's length too short, too long, wrong for its code; unknown code
    for (auto [at, value] : { std::pair(14, 95), { 30, 15 }, { 94, 33 }, { 62, 21 }, { 28, 2 } }) {
        std::vector<uint8_t> bad = good;
        bad[size_t(at)] = uint8_t(value);
        EXPECT_FALSE(prints(bad)) << at;
    }
}
