// The system log: the form of a line, and the roads it takes.
#include "platform/log/log.h"
#include "platform/log/log_private.h"

#include "wraps.h"

#include <errno.h>
#include <limits.h>
#include <stdint.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <syslog.h>
#include <unistd.h>

#include <vector>

using event = log_fixture;

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
    static const char *const names[] = { "error-code", "message", nullptr }, *const none[] = { nullptr };
    static const std::string head = "<27>1 2024-02-29T23:59:58.007654Z router1 keld 42 ";

    EXPECT_EQ(line_of(1024, nullptr, nullptr, "plain\r\n"), head + "- - plain");
    EXPECT_EQ(line_of(1024, "KELD_X", none, "KELD_X: text"), head + "KELD_X - KELD_X: text");
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
    static const struct {
        logging_func func;
        int mode;
        const char *on_stderr, *in_file;
    } rows[] = {
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
    unsetenv("KELD_DEBUG");
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
