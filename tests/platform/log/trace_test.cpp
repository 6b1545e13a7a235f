// The trace file: what stands in it, and how it is rotated.
#include "platform/log/log.h"

#include "wraps.h"

#include <errno.h>
#include <unistd.h>

#include <filesystem>

static const char TRACE_FILE[] = "/var/log/keld";
static const std::string STAMP = "2024-02-29 23:59:58.007 ";
static const uint32_t ALL = (1u << DTF_CLASSES) - 1;

class trace : public log_fixture {
protected:
    void SetUp() override
    {
        log_fixture::SetUp();
        daemon_trace_initialize(&options, TRACE_FILE);
    }
    void TearDown() override
    {
        daemon_trace_set(&options, 0, 0, 0);
        log_fixture::TearDown();
    }
    void write_lines(int first, int last)
    {
        for (int i = first; i <= last; i++) daemon_trace(&options, DTF_CORE, 0, "%d", i);
    }
    /* The numbers of write_lines in the file and its old ones, newest file first, "|" between them, "-" for none. */
    std::string files(int old_files)
    {
        std::string all;
        for (int i = -1; i < old_files; i++) {
            std::string path = TRACE_FILE + (i < 0 ? "" : "." + std::to_string(i)), text = content(path);
            if (i >= 0) all += '|';
            if (!std::filesystem::exists(root + path)) all += '-';
            for (size_t at; (at = text.find('\n')) != text.npos; text.erase(0, at + 1)) all += text[at - 1];
        }
        return all;
    }
    struct dtf_options options = DTF_OPTIONS_INIT;
    const uint64_t two_lines = 2 * (STAMP + "core 1\n").size();
};

TEST_F(trace, lines_of_the_wanted_classes)
{
    daemon_trace(&options, DTF_CORE, 0, "before it is turned on");
    EXPECT_FALSE(std::filesystem::exists(root + TRACE_FILE));

    ASSERT_EQ(daemon_trace_set(&options, 1u << DTF_BEEP | 1u << DTF_DUMP, 0, 3), 0);
    errno = EEXIST;
    daemon_trace(&options, DTF_BEEP, 0, "brings its own end\r\n");
    daemon_trace(&options, DTF_BEEP, 0, "two\nlines: %m");
    daemon_trace(&options, DTF_CORE, 0, "not wanted");
    daemon_trace(&options, DTF_CLASSES, 0, "no class");
    daemon_trace(&options, DTF_DUMP, 0, ">>> %s\t\\r", std::string(1018, 'x').c_str());
    daemon_trace(&options, DTF_BEEP, 0, "%s", std::string(9000, 'y').c_str());
    EXPECT_EQ(errno, EEXIST);

    std::string text = content(TRACE_FILE), whole = STAMP + "beep brings its own end\n" + STAMP +
        "beep two lines: File exists\n" + STAMP + "dump >>> " + std::string(1018, 'x') + "\t\\r\n";
    EXPECT_EQ(text.substr(0, whole.size()), whole);
    EXPECT_EQ(text.size(), whole.size() + 4096);   // the last one is cut
    EXPECT_TRUE(text.ends_with("yy\n"));

    EXPECT_EQ(daemon_trace_set(&options, 0, 0, 3), 0);
    daemon_trace(&options, DTF_BEEP, 0, "after it is turned off");
    EXPECT_EQ(content(TRACE_FILE), text);
}

TEST_F(trace, a_file_that_cannot_be_opened_leaves_tracing_off)
{
    std::filesystem::create_directories(root + TRACE_FILE);
    EXPECT_EQ(daemon_trace_set(&options, ALL, 0, 3), -1);
    EXPECT_EQ(errno, EISDIR);
    EXPECT_FALSE(daemon_trace_wants(&options, DTF_BEEP));

    daemon_trace_initialize(&options, ("/" + std::string(sizeof options.dtf_path, 'x')).c_str());
    EXPECT_EQ(daemon_trace_set(&options, ALL, 0, 3), -1);
    EXPECT_EQ(errno, ENAMETOOLONG);
}

TEST_F(trace, rotation_keeps_the_newest_files)
{
    static const struct {
        uint32_t max_files;
        const char *files;
    } rows[] = { { 1, "9|-|-|-" }, { 2, "9|78|-|-" }, { 3, "9|78|56|-" }, { 9, "9|78|56|34|12" } };
    for (const auto &row : rows) {
        std::filesystem::remove_all(root);
        ASSERT_EQ(daemon_trace_set(&options, ALL, two_lines, row.max_files), 0);
        write_lines(1, 9);
        EXPECT_EQ(files(row.max_files == 9 ? 4 : 3), row.files) << row.max_files;
    }

    // Fewer from now on: those that are too many go with the next rotation. The size counts what was there before.
    daemon_trace_set(&options, 0, 0, 0);
    ASSERT_EQ(daemon_trace_set(&options, ALL, two_lines, 2), 0);
    write_lines(0, 1);
    EXPECT_EQ(files(4), "1|90|-|-|-");
}

TEST_F(trace, failed_rotation_goes_on_in_the_file_and_loses_no_old_one)
{
    ASSERT_EQ(daemon_trace_set(&options, ALL, two_lines, 4), 0);
    write_lines(1, 5);
    rename_refused = root + TRACE_FILE;
    write_lines(6, 9);
    EXPECT_EQ(files(3), "56789|-|34|12");
    rename_refused.clear();
    write_lines(0, 0);
    EXPECT_EQ(files(3), "0|56789|34|12");
}

TEST_F(trace, a_file_moved_by_others_is_left)
{
    ASSERT_EQ(daemon_trace_set(&options, ALL, two_lines, 3), 0);
    write_lines(1, 2);
    std::filesystem::rename(root + TRACE_FILE, root + TRACE_FILE + ".0");   // as a child does that traces too
    write_lines(3, 4);
    EXPECT_EQ(files(2), "34|12|-");

    std::filesystem::remove(root + TRACE_FILE);
    ASSERT_EQ(daemon_trace_set(&options, ALL, 0, 3), 0);   // as at a reload
    write_lines(5, 5);
    EXPECT_EQ(files(2), "5|12|-");
}
