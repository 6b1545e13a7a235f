#include "tests/usr.sbin/keld/beep/beep_fixture.h"

#include <errno.h>
#include <stdlib.h>
#include <string.h>
#include <sys/mman.h>
#include <sys/socket.h>
#include <unistd.h>

struct memory_script memory;
struct profile_script profile;
int closed_calls;
static std::vector<std::string> prints, insists;
static struct wire *wire_now;

/* --- memory and prints, caught by the linker ------------------------------------------------------------------- */

/* A received frame that cannot be had ends the process. Frames here are larger than ring nodes and SEQs, and small. */
static bool refused(size_t size)
{
    bool read_frame = wire_now && wire_now->delivering && size > 40 && size < 250;
    if (!memory.armed || (memory.spare_frames && read_frame)) return false;
    return ++memory.count == memory.fail_at;
}

#pragma GCC diagnostic ignored "-Wmissing-declarations"
#pragma GCC diagnostic ignored "-Wformat-nonliteral"
extern "C" {
decltype(malloc) __real_malloc;
decltype(calloc) __real_calloc;
decltype(realloc) __real_realloc;
decltype(strdup) __real_strdup;
void *__wrap_malloc(size_t size) { return refused(size) ? nullptr : __real_malloc(size); }
void *__wrap_calloc(size_t count, size_t size) { return refused(count * size) ? nullptr : __real_calloc(count, size); }
void *__wrap_realloc(void *block, size_t size) { return refused(size) ? nullptr : __real_realloc(block, size); }
char *__wrap_strdup(const char *text) { return refused(strlen(text) + 1) ? nullptr : __real_strdup(text); }

void __wrap_dbgpr(const char *format, ...)
{
    char text[256];
    va_list args;
    va_start(args, format);
    vsnprintf(text, sizeof text, format, args);
    va_end(args);
    prints.push_back(std::string(text, strcspn(text, "\n")));
}
}

static void take_log_line(int severity, const char *, const char *const *, const char *format, va_list args)
{
    char text[256];
    vsnprintf(text, sizeof text, format, args);
    insists.push_back(std::to_string(severity) + " " + text);
}

static std::string take(std::vector<std::string> &lines)
{
    std::string all;
    for (const auto &line : std::exchange(lines, {})) all += (all.empty() ? "" : "|") + line;
    return all;
}

std::string heard() { return take(profile.heard); }
std::string printed() { return take(prints); }
std::string insisted() { return take(insists); }

/* The trace goes to a file in memory; each line begins with date, time and class. */
std::string traced()
{
    int fd = keld_dtf_options.dtf_fd;
    std::string text(static_cast<size_t>(lseek(fd, 0, SEEK_END)), '\0');
    EXPECT_EQ(pread(fd, text.data(), text.size(), 0), static_cast<ssize_t>(text.size()));
    EXPECT_TRUE(ftruncate(fd, 0) == 0 && lseek(fd, 0, SEEK_SET) == 0);

    std::vector<std::string> lines;
    for (size_t start = 0, end; (end = text.find('\n', start)) != std::string::npos; start = end + 1) {
        size_t from = start;
        for (int words = 0; words < 3; words++) from = text.find(' ', from) + 1;
        lines.push_back(text.substr(from, end - from));
    }
    return take(lines);
}

/* --- profiles --------------------------------------------------------------------------------------------------- */

static uint8_t hear_start(const char *what, const char *data, int32_t length, struct beep_channel *channel)
{
    std::string piggyback = data ? " " + std::string(data, static_cast<size_t>(length)) : "";
    profile.heard.push_back(what + std::to_string(beep_get_channel_number(channel)) + piggyback);
    beep_set_channel_user_data(channel, reinterpret_cast<void *>(pending_word(beep_get_channel_number(channel))));
    return profile.accept;
}

static uint8_t hear_indicate(const char *data, int32_t length, struct beep_channel *channel,
                             struct beep_start_reply *out)
{
    if (profile.piggyback) out->br_piggyback = strdup(profile.piggyback);
    return hear_start("indicate ", data, length, channel);
}

static uint8_t hear_confirm(const char *data, int32_t length, struct beep_channel *channel)
{
    return hear_start("confirm ", data, length, channel);
}

static void hear_fail(const struct beep_diagnostic *why)
{
    profile.heard.push_back("fail " + std::to_string(why->code) + " " + (why->message ? why->message : ""));
}

static int hear_frame(struct beep_session *session, void *user_data, struct beep_frame *frame)
{
    auto number = static_cast<uint16_t>(reinterpret_cast<uintptr_t>(user_data));
    EXPECT_EQ(frame->bf_data[frame->bf_size], '\0');
    std::string payload(frame->bf_data, static_cast<size_t>(frame->bf_size));
    profile.heard.push_back(std::to_string(number) + ":" + frame->bf_type + std::to_string(frame->bf_msgno) +
                            frame->bf_more + " " + payload);
    if (profile.echo && frame->bf_type == BEEP_MSGTYPE_MSG) {
        struct iovec iov = { payload.data(), payload.size() };
        EXPECT_EQ(beep_send_rpy(session, number, frame->bf_msgno, frame->bf_more, &iov, 1), 0);
    }
    return 0;
}

static void hear_greeting(struct beep_session *) { profile.heard.push_back("greeting"); }
static void hear_stop(void *data)
{
    profile.heard.push_back("stop " + std::to_string(reinterpret_cast<uintptr_t>(data)));
}

struct beep_profile table[ROW_COUNT] = {
    { "urn:frame", hear_greeting, hear_indicate, hear_confirm, hear_fail, hear_stop, hear_frame, nullptr },
    { "urn:message", nullptr, hear_indicate, hear_confirm, hear_fail, hear_stop, nullptr, hear_frame },
};

/* --- transport --------------------------------------------------------------------------------------------------- */

int wire_read(void *transport, void *buffer, int length)
{
    auto *io = static_cast<struct wire *>(transport);
    wire_now = io;
    io->delivering = false;
    if (length == 0) return 0;

    errno = EAGAIN;
    if (io->in.empty()) return -1;
    std::string &octets = io->in.front().octets;
    size_t count = std::min(octets.size(), static_cast<size_t>(length));
    io->delivering = count > 0;
    errno = io->in.front().error;
    memcpy(buffer, octets.data(), count);
    octets.erase(0, count);
    if (octets.empty()) io->in.pop_front();
    return count == 0 && errno ? -1 : static_cast<int>(count);
}

int wire_write(void *transport, const void *buffer, int length)
{
    auto *io = static_cast<struct wire *>(transport);
    size_t count = std::min(static_cast<size_t>(length), io->full_at - io->out.size());
    errno = io->write_error ? io->write_error : EAGAIN;
    if (io->write_error || count == 0) return -1;
    io->out.append(static_cast<const char *>(buffer), count);
    return static_cast<int>(count);
}

/* --- one engine -------------------------------------------------------------------------------------------------- */

void engine::SetUp()
{
    profile = {};
    prints.clear();
    insists.clear();
    logging_register_logfunc(take_log_line);
    logging_set_mode(LOGGING_MODE_DAEMON);
    keld_dtf_options = { DTF_LEVEL_ON, 1u << DTF_BEEP, memfd_create("trace", MFD_CLOEXEC), 0, 0, 1, "" };
    ASSERT_GE(evCreate(&ctx), 0);
    ASSERT_EQ(socketpair(AF_UNIX, SOCK_STREAM, 0, fds), 0);
    ASSERT_EQ(::write(fds[1], "x", 1), 1);   // never read
}

void engine::TearDown()
{
    memory = {};
    end();
    EXPECT_EQ(evDestroy(ctx), 0);
    for (int fd : { fds[0], fds[1], keld_dtf_options.dtf_fd }) close(fd);
    keld_dtf_options = DTF_OPTIONS_INIT;
    wire_now = nullptr;
}

void engine::end()
{
    if (session) beep_session_delete(session);
    session = nullptr;
}

void engine::open(char role)
{
    end();
    io = {};
    seen = 0;
    closed_calls = 0;
    peer_seqnos.clear();
    keld_seqnos.clear();
    profile.heard.clear();
    session = beep_session_new(fds[0], ctx, role, table, ROW_COUNT, wire_read, wire_write, &io);
    ASSERT_TRUE(session);
    beep_set_session_close_cb(session, [](struct beep_session *) { closed_calls++; });
    converse({ { KELD, "RPY 0 0 .",
                 MIME "<greeting>\n<profile uri='urn:frame' /><profile uri='urn:message' /></greeting>" } });
}

void engine::ready(char role)
{
    open(role);
    converse({ { PEER, "RPY 0 0 .", "<greeting/>" } });
    ASSERT_EQ(status(), BEEP_STATE_READY);
    profile.heard.clear();
    (void)traced();
}

struct beep_channel *engine::add(uint16_t number, int row)
{
    struct beep_channel *channel = channel_new(number, &table[row], BEEP_ROLE_LISTENER);
    channel->bc_state = BEEP_STATE_READY;
    beep_set_channel_user_data(channel, reinterpret_cast<void *>(pending_word(number)));
    beep_add_channel(session, channel);
    (void)traced();
    return channel;
}

void engine::run()
{
    enum { QUIET_TURNS = 8 };   // the loop may serve waiters a few turns before it looks at descriptors again
    auto moved = [this] {
        return io.in.size() * 100000 + (io.in.empty() ? 0 : io.in[0].octets.size()) - io.out.size();
    };
    for (int quiet = 0; quiet < QUIET_TURNS; quiet++) {
        size_t before = moved();
        ASSERT_GE(evTurn(ctx, 0), 0);
        if (moved() != before) quiet = 0;
    }
}

void engine::feed(const std::string &octets)
{
    io.in.push_back({ octets, 0 });
    run();
}

std::string engine::frame(const std::string &head, const std::string &body, std::map<int, uint32_t> &seqnos)
{
    if (head.starts_with("SEQ")) return head + "\r\n";
    uint32_t &seqno = seqnos[atoi(head.c_str() + 4)];
    std::string numbers = " " + std::to_string(seqno) + " " + std::to_string(body.size());
    seqno += static_cast<uint32_t>(body.size());
    return head + numbers + "\r\n" + body + "END\r\n";
}

void engine::expect_silence(size_t row)
{
    while (!show_seq && io.out.compare(seen, 4, "SEQ ") == 0) seen = io.out.find('\n', seen) + 1;
    EXPECT_EQ(written(), "") << "unexpected before turn " << row;
}

void engine::converse(const std::vector<turn> &turns)
{
    size_t row = 0;
    run();
    for (const auto &turn : turns) {
        if (turn.who == PEER) {
            expect_silence(row++);
            hear(turn.head, turn.body);
            continue;
        }
        std::string text = frame(turn.head, turn.body, keld_seqnos);
        while (!show_seq && io.out.compare(seen, 4, "SEQ ") == 0) seen = io.out.find('\n', seen) + 1;
        ASSERT_EQ(io.out.substr(seen, text.size()), text) << "turn " << row++;
        seen += text.size();
    }
    expect_silence(row);
}

std::string engine::written()
{
    std::string text = io.out.substr(seen);
    seen = io.out.size();
    return text;
}

int engine::send(uint16_t channel, const std::string &text)
{
    struct iovec iov = { const_cast<char *>(text.data()), text.size() };
    return beep_send_msg(session, channel, &iov, 1);
}

int engine::reply(uint16_t channel, int32_t msgno, char more, const std::string &text)
{
    struct iovec iov = { const_cast<char *>(text.data()), text.size() };
    return beep_send_rpy(session, channel, msgno, more, &iov, 1);
}
