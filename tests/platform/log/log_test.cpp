/*
 * The system log, the form of a line and the roads it takes; and the trace file, what stands in it and how it is
 * rotated. The linker puts in place of the C library what stands first.
 */
#include "platform/log/log.h"
#include "platform/log/log_private.h"

#include "platform/confdb/confdb.h"

#include <errno.h>
#include <fcntl.h>
#include <limits.h>
#include <stdlib.h>
#include <string.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <sys/wait.h>
#include <syslog.h>
#include <time.h>
#include <unistd.h>

#include <filesystem>
#include <fstream>
#include <gtest/gtest.h>
#include <string>
#include <vector>

static std::string log_socket_path;    // where a connect to /dev/log goes
static std::string rename_refused;     // renaming this path fails; empty: none

#pragma GCC diagnostic ignored "-Wmissing-declarations"   // of what is called by the linker's hand only
extern "C" {
decltype(clock_gettime) __real_clock_gettime;
decltype(connect) __real_connect;
decltype(rename) __real_rename;

int __wrap_clock_gettime(clockid_t clock, struct timespec *time)
{
    if (clock != CLOCK_REALTIME) return __real_clock_gettime(clock, time);
    *time = { 1709251198, 7654321 };
    return 0;
}

int __wrap_connect(int fd, const struct sockaddr *address, socklen_t)
{
    struct sockaddr_un there{};
    memcpy(&there, address, sizeof there);
    EXPECT_STREQ(there.sun_path, "/dev/log");
    snprintf(there.sun_path, sizeof there.sun_path, "%s", log_socket_path.c_str());
    return __real_connect(fd, (const struct sockaddr *)&there, sizeof there);
}

int __wrap_rename(const char *from, const char *to)
{
    if (rename_refused != from) return __real_rename(from, to);
    errno = EACCES;
    return -1;
}

}   // extern "C"

/* The wall clock stands at 2024-02-29 23:59:58.007654 UTC, and UTC is local time. */
class event : public testing::Test {
protected:
    event()
    {
        char folder[] = "/tmp/keld-log-XXXXXX";
        root = mkdtemp(folder);
        setenv("KELD_ROOT", folder, 1);
        setenv("TZ", "UTC0", 1);
        rename_refused.clear();
    }
    ~event() override
    {
        unsetenv("KELD_ROOT");
        std::filesystem::remove_all(root);
    }
    std::string content(const std::string &path)
    {
        std::ifstream file(root + path);
        return { std::istreambuf_iterator<char>(file), {} };
    }
    std::string root;
};

/* --- the form -------------------------------------------------------------------------------------------------- */

static std::vector<std::string> values(const char *format, ...)
{
    std::vector<std::string> found;
    char value[32];
    va_list args;
    va_start(args, format);
    while (log_next_value(&format, &args, value, sizeof value)) found.push_back(value);
    va_end(args);
    return found;
}

TEST_F(event, values_are_taken_from_the_conversions_in_order)
{
    using list = std::vector<std::string>;
    const char *null_text = nullptr, not_terminated[] = { 'a', 'b', 'c' };

    EXPECT_EQ(values("100%% plain %%"), list{});
    EXPECT_EQ(values("(%3d): %-10s %u%c", -5, "text", 4000000000u, 'x'), (list{ "-5", "text", "4000000000", "x" }));
    EXPECT_EQ(values("%ld %lu %lld %zu %x %#08lX", -1L << 40, UINT64_MAX, LLONG_MIN, (size_t)7, 255u, 0xabcul),
              (list{ "-1099511627776", "18446744073709551615", "-9223372036854775808", "7", "ff", "abc" }));
    EXPECT_EQ(values("%hd %hhu %d", 70000, 258, 3), (list{ "4464", "2", "3" }));   // cut as the conversion shows them
    EXPECT_EQ(values("%*d %.*s %.2s %d", 9, 1, 2, not_terminated, "xyz", 4), (list{ "1", "ab", "xy", "4" }));
    EXPECT_EQ(values("%s|%d", null_text, 1), (list{ "(null)", "1" }));
    EXPECT_EQ(values("%d %f %d", 1, 2.0, 3), list{ "1" });   // an argument of unknown size ends the walk
}

[[gnu::format(printf, 4, 5)]] static std::string line_of(size_t size, const char *tag, const char *const *attributes,
                                                         const char *format, ...)
{
    static const struct event_head head = { 27, { 1709251198, 7654321 }, "router 1", "keld", 42 };
    std::string line(size, '!');
    va_list args;
    va_start(args, format);
    line.resize(event_line(line.data(), size, &head, tag, attributes, format, args));
    va_end(args);
    return line;
}

TEST_F(event, line_with_structured_data)
{
    static const char *const names[] = { "error-code", "message", nullptr };
    static const std::string head = "<27>1 2024-02-29T23:59:58.007654Z router1 keld 42 ";

    EXPECT_EQ(line_of(1024, nullptr, nullptr, "plain\r\n"), head + "- - plain");
    EXPECT_EQ(line_of(1024, "KELD_X", names, "KELD_X: (%d): %s", 5, "a\"b]\\\r\nc"),
              head + "KELD_X [keld@32473 error-code=\"5\" message=\"a\\\"b\\]\\\\  c\"] KELD_X: (5): a\"b]\\  c");
    EXPECT_EQ(line_of(1024, "KELD_X", names, "KELD_X: %d", 5), head + "KELD_X [keld@32473 error-code=\"5\"] KELD_X: 5");

    // Too long: whole attributes are left out, the text is cut, and the line stays well-formed.
    std::string much(600, ']');
    EXPECT_EQ(line_of(512, "KELD_X", names, "%d %s", 5, much.c_str()),
              (head + "KELD_X [keld@32473 error-code=\"5\"] 5 " + much).substr(0, 511));
}

/* --- the roads ------------------------------------------------------------------------------------------------- */

TEST_F(event, under_a_root_texts_are_appended_whole)
{
    logging_register_logfunc(event_send_vsyslog);
    logging_set_mode(LOGGING_MODE_DAEMON);
    testing::internal::CaptureStderr();

    static const char *const names[] = { "message", nullptr };
    errno = ENOTTY;
    logging(LOG_ERR, "one\ntwo\r\n");
    logging_event(LOG_ERR, "KELD_X", names, "KELD_X: %s failed: %m", "open");
    logging_insist("usr.sbin/keld/main", "retry_cb", 343, "interval.tv_sec == 0");
    logging(LOG_ERR, "%s", std::string(20000, 'x').c_str());
    EXPECT_EQ(errno, ENOTTY);

    EXPECT_EQ(content("/var/log/messages"),
              "one two\n"
              "KELD_X: open failed: Inappropriate ioctl for device\n"
              "usr.sbin/keld/main:retry_cb:343: insist 'interval.tv_sec == 0' failed\n" +
                  std::string(LOG_LINE_SIZE - 1, 'x') + "\n");
    EXPECT_EQ(testing::internal::GetCapturedStderr(), "");
}

TEST_F(event, standard_error_is_for_development)
{
    static const struct { logging_func func; int mode; const char *on_stderr, *in_file; } rows[] = {
        { nullptr, LOGGING_MODE_DAEMON, "text 1\n", "" },
        { event_send_vsyslog, LOGGING_MODE_DEVELOP, "text 1\n", "text 1\n" },
        { event_send_vsyslog, LOGGING_MODE_DAEMON, "", "text 1\ntext 1\n" },
    };
    for (const auto &row : rows) {
        logging_register_logfunc(row.func);
        logging_set_mode(row.mode);
        testing::internal::CaptureStderr();
        logging(LOG_ERR, "text %d", 1);
        EXPECT_EQ(testing::internal::GetCapturedStderr(), row.on_stderr) << row.mode;
        EXPECT_EQ(content("/var/log/messages"), row.in_file) << row.mode;
    }

    testing::internal::CaptureStderr();
    dbgpr("unseen");
    setenv("KELD_DEBUG", "1", 1);
    dbgpr("seen %2x\n", 255);
    unsetenv("KELD_DEBUG");
    EXPECT_EQ(testing::internal::GetCapturedStderr(), "seen ff\n");
}

/* A datagram socket in place of the system's. */
static int log_listener(const std::string &path)
{
    log_socket_path = path;
    struct sockaddr_un address{};
    address.sun_family = AF_UNIX;
    snprintf(address.sun_path, sizeof address.sun_path, "%s", path.c_str());
    unlink(path.c_str());
    int fd = socket(AF_UNIX, SOCK_DGRAM, 0);
    EXPECT_EQ(bind(fd, (const struct sockaddr *)&address, sizeof address), 0);
    return fd;
}

static std::string received(int fd)
{
    char line[LOG_LINE_SIZE];
    ssize_t length = recv(fd, line, sizeof line, MSG_DONTWAIT);
    return length < 0 ? "" : std::string(line, (size_t)length);
}

TEST_F(event, datagrams_to_the_system_log)
{
    unsetenv("KELD_ROOT");
    logging_register_logfunc(event_send_vsyslog);
    logging_set_mode(LOGGING_MODE_DAEMON);
    event_open("keld", LOG_PID, LOG_DAEMON);

    log_socket_path = root + "/nobody";
    errno = ENOTTY;
    logging(LOG_ERR, "lost");
    EXPECT_EQ(errno, ENOTTY);

    int fd = log_listener(root + "/log");
    logging(LOG_ERR, "first");
    std::string line = received(fd), process_and_text = " keld " + std::to_string(getpid()) + " - - first";
    EXPECT_TRUE(line.starts_with("<27>1 2024-02-29T23:59:58.007654Z ")) << line;
    EXPECT_TRUE(line.ends_with(process_and_text)) << line;

    close(fd);
    fd = log_listener(root + "/log");   // the other end is restarted
    logging(LOG_ERR, "second");
    EXPECT_TRUE(received(fd).ends_with("- - second"));

    errno = ENOTTY;
    for (int i = 0; i < 10000; i++) logging(LOG_ERR, "a full queue does not stop the daemon");
    EXPECT_EQ(errno, ENOTTY);
    event_close();
    close(fd);
}

/* --- the trace file --------------------------------------------------------------------------------------------- */

static const char TRACE_FILE[] = "/var/log/keld";
static const std::string STAMP = "2024-02-29 23:59:58.007 ";
static const uint32_t ALL = (1u << DTF_CLASSES) - 1;

class trace : public event {
protected:
    trace() { daemon_trace_initialize(&options, TRACE_FILE); }
    ~trace() override { daemon_trace_set(&options, 0, 0, 0); }
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
    static const struct { uint32_t max_files; const char *files; } rows[] = {
        { 1, "9|-|-|-" }, { 2, "9|78|-|-" }, { 3, "9|78|56|-" }, { 9, "9|78|56|34|12" },
    };
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

TEST_F(trace, no_old_file_is_lost_to_a_failed_rotation_or_to_others)
{
    ASSERT_EQ(daemon_trace_set(&options, ALL, two_lines, 4), 0);
    write_lines(1, 5);
    rename_refused = root + TRACE_FILE;
    write_lines(6, 9);
    EXPECT_EQ(files(3), "56789|-|34|12");
    rename_refused.clear();
    write_lines(0, 0);
    EXPECT_EQ(files(3), "0|56789|34|12");

    std::filesystem::remove(root + TRACE_FILE);            // by somebody else: a reload makes a new one
    ASSERT_EQ(daemon_trace_set(&options, ALL, two_lines, 4), 0);
    write_lines(1, 2);
    std::filesystem::rename(root + TRACE_FILE, root + TRACE_FILE + ".0");   // as a child does that traces too
    write_lines(3, 4);
    EXPECT_EQ(files(3), "34|12|34|12");
}

/* Outbound SSH traces into the same file, with settings of its own. */
class two_records : public trace {
protected:
    ~two_records() override { apply(""); }
    void apply(const std::string &traceoptions)
    {
        static const char *const path[] = { "system", "services", "outbound-ssh", nullptr };
        std::filesystem::create_directories(root + "/var/etc");
        std::ofstream(root + "/var/etc/keld.conf") << "system { services { outbound-ssh { " << traceoptions << " } } }";
        ASSERT_EQ(ddl_access_open_db(0, "keld", nullptr, -2, 0), 0);
        tarne_trace_read_config(0, path);
        EXPECT_EQ(ddl_access_close_db(0, 0), 0);
    }
    /* Numbers from both in turn, from number on; all files as one then. */
    std::string write_both(int number, int count)
    {
        for (int end = number + count; number < end; number++) {
            if (number % 2 == 0) daemon_trace(&options, DTF_BEEP, 0, "%d", number);
            else tarne_trace(1, "%d", number);
        }
        return content("/var/log/keld.1") + content("/var/log/keld.0") + content(TRACE_FILE);
    }
    uint64_t size(const char *path) { return std::filesystem::file_size(root + path); }
};

TEST_F(two_records, of_one_file_hurt_each_other_in_nothing)
{
    apply("traceoptions { flag beep; size 1024; files 3; }");
    ASSERT_EQ(daemon_trace_set(&options, ALL, 2048, 2), 0);
    std::string text = write_both(100, 160), line = STAMP + "beep 100\n", expected;
    for (int n = 100; n < 260; n++) expected += STAMP + (n % 2 ? "core " : "beep ") + std::to_string(n) + "\n";
    EXPECT_EQ(text, expected);
    for (const char *old : { "/var/log/keld.1", "/var/log/keld.0" }) {
        EXPECT_LE(size(old), 2048u) << "the larger size holds";
        EXPECT_GT(size(old), 2048u - line.size());
    }
    apply("");
    EXPECT_EQ(write_both(500, 2), expected + STAMP + "beep 500\n");
    apply("traceoptions { flag all; }");
    ASSERT_EQ(daemon_trace_set(&options, 0, 0, 0), 0);
    EXPECT_TRUE(write_both(600, 2).ends_with(STAMP + "beep 500\n" + STAMP + "core 601\n"));
}

TEST_F(two_records, a_child_keeps_one_and_never_rotates)
{
    apply("traceoptions { flag all; size 1024; }");
    ASSERT_EQ(daemon_trace_set(&options, ALL, 0, 2), 0);
    int fd = open("/dev/null", O_RDONLY), status = -1;
    pid_t child = fork();
    if (child == 0) {
        tarne_trace_keep_only(STDERR_FILENO + 1);
        bool closed = fcntl(fd, F_GETFD) < 0 && open("/dev/null", O_WRONLY) >= 0;
        std::string lines = write_both(0, 200);
        _exit(closed && lines.size() > 1024 && lines.find("beep") == lines.npos ? 0 : 1);
    }
    ASSERT_EQ(waitpid(child, &status, 0), child);
    EXPECT_EQ(status, 0);
    EXPECT_EQ(files(1).find('-'), files(1).size() - 1) << "not rotated";
    ASSERT_EQ(daemon_trace_set(&options, 0, 0, 0), 0);
    tarne_trace(0, "the parent does that");
    EXPECT_EQ(content(TRACE_FILE), STAMP + "core the parent does that\n");
    close(fd);
}
