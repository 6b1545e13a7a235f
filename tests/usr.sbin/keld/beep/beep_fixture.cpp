#include "tests/usr.sbin/keld/beep/beep_fixture.h"

#include <errno.h>
#include <stdlib.h>
#include <string.h>
#include <sys/mman.h>
#include <sys/socket.h>
#include <unistd.h>

/* --- memory and prints, caught by the linker ------------------------------------------------------------------- */

struct memory_script memory;
static std::vector<std::string> prints, insists;
static struct wire *wire_now;

/* A received frame that cannot be had ends the process, which is another test's business. */
static bool is_read_frame(size_t size)
{
    enum { LARGEST_OTHER = 40, LARGEST_FRAME = 250 };   // ring nodes and SEQs; what the conversations' frames need
    return wire_now && wire_now->delivering && size > LARGEST_OTHER && size < LARGEST_FRAME;
}

static bool refused(size_t size)
{
    if (!memory.armed || (memory.spare_frames && is_read_frame(size))) return false;
    return ++memory.count == memory.fail_at;
}

extern "C" {
void *__real_malloc(size_t size);
void *__real_calloc(size_t count, size_t size);
void *__real_realloc(void *block, size_t size);
char *__real_strdup(const char *text);
void *__wrap_malloc(size_t size);
void *__wrap_calloc(size_t count, size_t size);
void *__wrap_realloc(void *block, size_t size);
char *__wrap_strdup(const char *text);
void __wrap_dbgpr(const char *format, ...);

void *__wrap_malloc(size_t size) { return refused(size) ? nullptr : __real_malloc(size); }
void *__wrap_calloc(size_t count, size_t size) { return refused(count * size) ? nullptr : __real_calloc(count, size); }
void *__wrap_realloc(void *block, size_t size) { return refused(size) ? nullptr : __real_realloc(block, size); }
char *__wrap_strdup(const char *text) { return refused(strlen(text) + 1) ? nullptr : __real_strdup(text); }
}

#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wformat-nonliteral"

static std::string formatted(const char *format, va_list args)
{
    char text[512];
    vsnprintf(text, sizeof text, format, args);
    return text;
}

void __wrap_dbgpr(const char *format, ...)
{
    va_list args;
    va_start(args, format);
    std::string text = formatted(format, args);
    va_end(args);
    prints.push_back(text.substr(0, text.find('\n')));
}

static void take_log_line(int severity, const char *, const char *const *, const char *format, va_list args)
{
    insists.push_back(std::to_string(severity) + " " + formatted(format, args));
}

#pragma GCC diagnostic pop

static std::string take(std::vector<std::string> &lines)
{
    std::string all;
    for (const auto &line : lines) all += (all.empty() ? "" : "|") + line;
    lines.clear();
    return all;
}

std::string printed() { return take(prints); }
std::string insisted() { return take(insists); }

/* The trace goes to a file in memory; each line begins with date, time and class. */
static void start_trace()
{
    keld_dtf_options = DTF_OPTIONS_INIT;
    keld_dtf_options.dtf_fd = memfd_create("trace", MFD_CLOEXEC);
    keld_dtf_options.dtf_level = DTF_LEVEL_ON;
    keld_dtf_options.dtf_classes = 1u << DTF_BEEP;
}

std::string traced()
{
    std::string text(static_cast<size_t>(lseek(keld_dtf_options.dtf_fd, 0, SEEK_END)), '\0');
    EXPECT_EQ(pread(keld_dtf_options.dtf_fd, text.data(), text.size(), 0), static_cast<ssize_t>(text.size()));
    EXPECT_EQ(ftruncate(keld_dtf_options.dtf_fd, 0), 0);
    EXPECT_EQ(lseek(keld_dtf_options.dtf_fd, 0, SEEK_SET), 0);

    std::vector<std::string> lines;
    for (size_t start = 0, end; (end = text.find('\n', start)) != std::string::npos; start = end + 1) {
        size_t from = start;
        for (int words = 0; words < 3; words++) from = text.find(' ', from) + 1;
        lines.push_back(text.substr(from, end - from));
    }
    return take(lines);
}

/* --- profiles --------------------------------------------------------------------------------------------------- */

struct profile_script profile;

std::string heard() { return take(profile.heard); }

static std::string piggyback_text(const char *data, int32_t length)
{
    return data ? " " + std::string(data, static_cast<size_t>(length)) : "";
}

static void hear_greeting(struct beep_session *) { profile.heard.push_back("greeting"); }

static uint8_t accept_channel(struct beep_channel *channel)
{
    beep_set_channel_user_data(channel, reinterpret_cast<void *>(pending_word(beep_get_channel_number(channel))));
    return profile.accept;
}

static uint8_t hear_indicate(const char *data, int32_t length, struct beep_channel *channel, struct beep_start_reply *out)
{
    profile.heard.push_back("indicate " + std::to_string(beep_get_channel_number(channel)) + piggyback_text(data, length));
    if (profile.piggyback) out->br_piggyback = strdup(profile.piggyback);
    return accept_channel(channel);
}

static uint8_t hear_confirm(const char *data, int32_t length, struct beep_channel *channel)
{
    profile.heard.push_back("confirm " + std::to_string(beep_get_channel_number(channel)) + piggyback_text(data, length));
    return accept_channel(channel);
}

static void hear_fail(const struct beep_diagnostic *why)
{
    profile.heard.push_back("fail " + (why ? std::to_string(why->code) + " " + (why->message ? why->message : "") : ""));
}

static void hear_stop(void *user_data)
{
    profile.heard.push_back("stop " + std::to_string(reinterpret_cast<uintptr_t>(user_data)));
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
        EXPECT_TRUE(beep_send_rpy(session, number, frame->bf_msgno, frame->bf_more, &iov, 1) == 0 || memory.fail_at);
    }
    return 0;
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
    if (io->in.empty()) {
        errno = EAGAIN;
        return -1;
    }

    auto &piece = io->in.front();
    if (piece.octets.empty()) {
        int error = piece.error;
        io->in.pop_front();
        errno = error;
        return error ? -1 : 0;
    }
    size_t count = std::min({ piece.octets.size(), io->read_max, static_cast<size_t>(length) });
    memcpy(buffer, piece.octets.data(), count);
    piece.octets.erase(0, count);
    if (piece.octets.empty()) io->in.pop_front();
    io->delivering = true;
    return static_cast<int>(count);
}

int wire_write(void *transport, const void *buffer, int length)
{
    auto *io = static_cast<struct wire *>(transport);
    size_t count = std::min(static_cast<size_t>(length), io->full_at - io->out.size());
    if (io->write_error || count == 0) {
        errno = io->write_error ? io->write_error : EAGAIN;
        return -1;
    }
    io->out.append(static_cast<const char *>(buffer), count);
    return static_cast<int>(count);
}

/* --- one engine ---------------------------------------------------------------------------------------------------- */

int closed_calls;

static void count_close(struct beep_session *session)
{
    closed_calls++;
    EXPECT_EQ(beep_get_session_status(session), BEEP_STATE_ENDED);
}

void engine::SetUp()
{
    profile = {};
    memory = {};
    closed_calls = 0;
    prints.clear();
    insists.clear();
    logging_register_logfunc(take_log_line);
    logging_set_mode(LOGGING_MODE_DAEMON);
    start_trace();
    ASSERT_GE(evCreate(&ctx), 0);
    ASSERT_EQ(socketpair(AF_UNIX, SOCK_STREAM, 0, fds), 0);
    ASSERT_EQ(::write(fds[1], "x", 1), 1);   // never read: the engine is called at every turn
}

void engine::TearDown()
{
    memory = {};
    end();
    EXPECT_EQ(evDestroy(ctx), 0);
    close(fds[0]);
    close(fds[1]);
    close(keld_dtf_options.dtf_fd);
    keld_dtf_options = DTF_OPTIONS_INIT;
    wire_now = nullptr;
    logging_register_logfunc(nullptr);
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
    beep_set_session_close_cb(session, count_close);
    run();
    converse({ { KELD, "RPY 0 0 .",
                 MIME "<greeting>\n<profile uri='urn:frame' /><profile uri='urn:message' /></greeting>" } });
}

void engine::ready(char role)
{
    open(role);
    converse({ { PEER, "RPY 0 0 .", "<greeting/>" } });
    ASSERT_EQ(status(), BEEP_STATE_READY);
    (void)heard();
    (void)traced();
    (void)written();
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
    for (int quiet = 0; quiet < QUIET_TURNS; quiet++) {
        size_t pieces = io.in.size(), octets = io.in.empty() ? 0 : io.in.front().octets.size(), out = io.out.size();
        ASSERT_GE(evTurn(ctx, 0), 0);
        if (io.in.size() != pieces || (pieces && io.in.front().octets.size() != octets) || io.out.size() != out) quiet = 0;
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
    std::string text = head + " " + std::to_string(seqno) + " " + std::to_string(body.size()) + "\r\n" + body + "END\r\n";
    seqno += static_cast<uint32_t>(body.size());
    return text;
}

void engine::skip_seqs()
{
    while (!show_seq && io.out.compare(seen, 4, "SEQ ") == 0) seen = io.out.find('\n', seen) + 1;
}

void engine::expect_silence(size_t row)
{
    skip_seqs();
    EXPECT_EQ(io.out.substr(seen), "") << "unexpected before turn " << row;
    seen = io.out.size();
}

void engine::converse(const std::vector<turn> &turns)
{
    size_t row = 0;
    for (const auto &turn : turns) {
        if (turn.who == PEER) {
            expect_silence(row);
            feed(frame(turn.head, turn.body, peer_seqnos));
        } else {
            std::string text = frame(turn.head, turn.body, keld_seqnos);
            skip_seqs();
            ASSERT_EQ(io.out.substr(seen, text.size()), text) << "turn " << row;
            seen += text.size();
        }
        row++;
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
