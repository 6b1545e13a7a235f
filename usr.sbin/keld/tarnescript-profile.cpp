/*
 * Management script profile: a relay that knows one line of what it carries.
 *
 * A call is handed over frame by frame, so that it may be larger than the window. Its octets go into the connection's
 * write buffer and are pushed out when the call is complete. The reply comes as lines. They are gathered, without their
 * ends, in a buffer of one frame; a buffer that is full goes out as '*', and the line "</rpc-reply>" sends the rest as
 * '.', which ends the MSG in the engine.
 *
 * True between two turns of the loop:
 *   - tc_buf holds what was read of the reply and not sent. Before a reply, that is the MIME header; after the first
 *     full buffer of a reply the header has gone, and is not repeated.
 *   - tc_sock is null exactly if the daemon was lost. The channel lives on and answers each MSG that has text with
 *     nothing.
 *
 * Kept on purpose: nothing matches replies with calls. What the daemon says while no MSG is pending waits in tc_buf and
 * goes out at the head of the next reply; only what fills the buffer then, or ends a reply, is refused by the engine. A
 * call without text is not answered once the daemon is lost, and holds the channel.
 *
 * Nothing holds a reply back: the engine queues frames, and cuts them to the peer's window when it writes.
 */
#include "usr.sbin/keld/tarnescript-profile.h"

#include "platform/text/text.h"
#include "usr.sbin/keld/main/keld.h"
#include "usr.sbin/keld/main/tags.h"
#include "usr.sbin/keld/profile_text.h"

#include <errno.h>
#include <stdlib.h>
#include <string.h>
#include <string_view>
#include <unistd.h>

enum {
    HOST_MAX = 256,
    DRAIN_S = 1,                    // for what the daemon says behind its greeting
    LOST_CODE = 451,                // RFC 3080: local error in processing
    INSIST_VALID_LINE = 161,
};

static constexpr std::string_view mode_tag = "<mode>";
static constexpr std::string_view canonical_mode = "<mode><canonical/></mode>";
static const char reply_end[] = "</rpc-reply>";

static void mgmt_sock_valid(const struct mgmt_sock *msp)
{
    if (!msp->ms_fbp)
        logging_insist("usr.sbin/keld/tarnescript-profile", "mgmt_sock_valid", INSIST_VALID_LINE,
                       "msp->ms_fbp != NULL");
}

/* --- the reply buffer --------------------------------------------------------------------------------------------- */

static void buffer_reset(struct ts_channel *record)
{
    memcpy(record->tc_buf, BEEP_MIME_HEADER, sizeof BEEP_MIME_HEADER);
    record->tc_ptr = record->tc_buf + BEEP_MIME_HEADER_LEN;
}

/* One frame of the reply. Failure is the engine's to trace: no MSG is pending, or memory is out. */
static void send_reply(const struct ts_channel *record, char more, const char *data, size_t length)
{
    struct iovec piece = { const_cast<char *>(data), length };   // only read: an iovec knows no const
    (void)beep_send_rpy(keld_sp, record->tc_channel, -1, more, &piece, length > 0 ? 1 : 0);
}

static void buffer_send(const struct ts_channel *record, char more)
{
    send_reply(record, more, record->tc_buf, static_cast<size_t>(record->tc_ptr - record->tc_buf));
}

static bool buffer_has_room(const struct ts_channel *record, size_t length)
{
    return length <= static_cast<size_t>(record->tc_end - record->tc_ptr);
}

/* Puts line into the buffer, sending what has no room. The part of it that the buffer holds. */
static const char *buffer_add(struct ts_channel *record, const char *line)
{
    size_t length = strlen(line);
    if (!buffer_has_room(record, length) && record->tc_ptr > record->tc_buf) {
        // Kept on purpose: the MIME header of a fresh buffer counts as well. It then goes out in a frame of its own.
        buffer_send(record, BEEP_MORE_TO_COME);
        record->tc_ptr = record->tc_buf;
    }
    for (; !buffer_has_room(record, length); line += TS_BUFFER_SIZE, length -= TS_BUFFER_SIZE)
        send_reply(record, BEEP_MORE_TO_COME, line, TS_BUFFER_SIZE);
    memcpy(record->tc_ptr, line, length);
    record->tc_ptr += length;
    return line;
}

/* --- start of a channel ------------------------------------------------------------------------------------------ */

static bool asks_for_canonical_mode(std::string_view text)
{
    size_t at = text.find(mode_tag);
    return at != text.npos && text.substr(at) == canonical_mode;
}

/* Throws away what the daemon says behind its greeting, so that it is not taken for the first reply. Kept on purpose:
 * that is a second in which the loop stands still, for each channel; a server that starts many at once waits for all
 * of them. */
static void drain(struct mgmt_sock *msp)
{
    mgmt_sock_valid(msp);
    msp->ms_wait = { DRAIN_S, 0 };
    while (mgmt_sock_input(msp, MGMT_INPUT_LINE)) continue;
    mgmt_sock_valid(msp);
    msp->ms_wait = {};
}

/* A connection to the management daemon that is ready for calls, or null; the failure is logged. */
static struct mgmt_sock *connect_to_daemon(void)
{
    char host[HOST_MAX] = "", login[MGMT_LOGIN_MAX];
    (void)gethostname(host, sizeof host - 1);   // without a name the line says so
    const char *user = current_server.ks_user[0] ? current_server.ks_user : "root";
    (void)snprintf_safe(login, sizeof login, "user %s logname %s host %s agent \"TARNE KEL\" pid %d", user, "keld",
                        host, getpid());

    struct mgmt_sock *msp = mgmt_sock_vrd(login);
    if (!msp) {
        keld_event<KELD_MGMT_DAEMON_FAIL>("Could not connect to vrd");
        return nullptr;
    }
    mgmt_sock_valid(msp);
    msp->ms_flags |= MGMT_SOCK_NOWAIT;
    int answer_due = 1;
    if (xml_initial_handshake(msp, host, &answer_due, 0) != 0) {
        keld_event<KELD_MGMT_DAEMON_FAIL>("Handshake with vrd failed");
        mgmt_sock_close(msp, 0);
        return nullptr;
    }
    drain(msp);
    return msp;
}

static void record_free(struct ts_channel *record)
{
    mgmt_sock_close(record->tc_sock, 0);
    free(record->tc_buf);
    free(record);
}

/* A relay with its connection, not watched yet; null if memory is out or the daemon cannot be reached. */
static struct ts_channel *record_new(uint16_t channel, bool canonical)
{
    auto *record = static_cast<struct ts_channel *>(calloc(1, sizeof(struct ts_channel)));
    if (!record) return nullptr;
    record->tc_canonical = canonical;
    record->tc_channel = channel;
    record->tc_buf = static_cast<char *>(malloc(TS_BUFFER_SIZE));
    if (record->tc_buf) {
        buffer_reset(record);
        record->tc_end = record->tc_buf + TS_BUFFER_SIZE;
        record->tc_sock = connect_to_daemon();
    }
    if (record->tc_sock) return record;
    record_free(record);
    return nullptr;
}

uint8_t ts_start_indicate(const char *data, int32_t length, struct beep_channel *channel, struct beep_start_reply *)
{
    std::string_view text = piggyback_text(data, length, "<NULL>");
    uint16_t number = beep_get_channel_number(channel);
    profile_trace("TARNEscript start_indicate: channel=%hd, piggyback=\"%.*s\"", static_cast<short>(number),
                  VIEW(text));

    struct ts_channel *record = record_new(number, asks_for_canonical_mode(text));
    if (!record) return 0;
    mgmt_sock_valid(record->tc_sock);
    if (evSelectFD(beep_get_session_ev_ctx(keld_sp), record->tc_sock->ms_fd, EV_READ, ts_read_event, record,
                   &record->tc_read_id) < 0) {
        keld_event<KELD_EVLIB_FAILURE>("evSelectFD(mgmt_sock)", strerror(errno));
        record_free(record);
        return 0;
    }
    beep_set_channel_user_data(channel, record);
    return 1;
}

uint8_t ts_start_confirm(const char *data, int32_t length, struct beep_channel *)
{
    profile_trace("TARNEscript start_confirm: piggyback=\"%.*s\"", VIEW(piggyback_text(data, length, "<NULL>")));
    return 0;
}

/* --- calls ------------------------------------------------------------------------------------------------------- */

/* True if all of data was taken; else errno tells why not. */
static bool write_call(struct mgmt_sock *msp, std::string_view data)
{
    while (!data.empty()) {
        ssize_t taken = mgmt_sock_write(msp, data.data(), data.size(), 0);
        if (taken < 1) return false;
        data.remove_prefix(static_cast<size_t>(taken));
    }
    return true;
}

int ts_frame(struct beep_session *session, void *user_data, struct beep_frame *frame)
{
    auto *record = static_cast<struct ts_channel *>(user_data);
    if (frame->bf_type != BEEP_MSGTYPE_MSG) {
        profile_trace("TARNEscript received type '%c' message: %ld octets", frame->bf_type,
                      static_cast<long>(frame->bf_size));
        return 0;
    }
    std::string_view call = { frame->bf_data, static_cast<size_t>(frame->bf_size) };
    // Kept on purpose: every frame is looked at, so a call whose text has the header at the start of a later frame
    // loses it.
    if (call.starts_with(BEEP_MIME_HEADER)) call.remove_prefix(BEEP_MIME_HEADER_LEN);
    // Kept on purpose: the part of a failed call that was taken stays, and the next call is put behind it.
    if (!write_call(record->tc_sock, call)) {
        keld_event<KELD_MGMT_SOCKET_IO>(strerror(errno));
        (void)beep_send_rpy(session, record->tc_channel, frame->bf_msgno, BEEP_MORE_LAST, nullptr, 0);
        return 0;
    }
    profile_trace("wrote %d bytes to vrd", frame->bf_size);
    if (frame->bf_more != BEEP_MORE_LAST) return 0;

    if (record->tc_sock) mgmt_sock_valid(record->tc_sock);
    else errno = EINVAL;
    ts_flush_event(beep_get_session_ev_ctx(session), record, record->tc_sock ? record->tc_sock->ms_fd : -1, EV_WRITE);
    return 0;
}

void ts_flush_event(evContext ctx, void *uap, int fd, int)
{
    auto *record = static_cast<struct ts_channel *>(uap);
    // Kept on purpose: a flush that fails counts as done. A daemon that is gone shows at the next reading.
    if (fwbuf_flush(record->tc_sock ? &record->tc_sock->ms_fwb : nullptr, FWBUF_NOWAIT) > 0) {
        // Refused registrations are tried again with the next call; until then the daemon has a part of this one.
        if (!record->tc_write_id) (void)evSelectFD(ctx, fd, EV_WRITE, ts_flush_event, record, &record->tc_write_id);
        return;
    }
    if (record->tc_write_id) (void)evDeselectFD(ctx, record->tc_write_id);
    record->tc_write_id = nullptr;
}

/* --- replies ----------------------------------------------------------------------------------------------------- */

/* Ends the loop's interest in the connection, and the connection. */
static void disconnect(evContext ctx, struct ts_channel *record)
{
    (void)evDeselectFD(ctx, record->tc_read_id);    // null after the daemon was lost, which is refused
    (void)evDeselectFD(ctx, record->tc_write_id);
    record->tc_read_id = record->tc_write_id = nullptr;
    mgmt_sock_close(record->tc_sock, 0);
    record->tc_sock = nullptr;
}

/* True if no input means that the daemon is gone; errno then tells why. */
static bool daemon_is_lost(const struct mgmt_sock *msp)
{
    if (errno == EAGAIN || errno == EINTR) return false;
    if (!msp) {
        errno = EINVAL;
        return true;
    }
    mgmt_sock_valid(msp);
    return (msp->ms_fbp->fb_flags & FBUF_EOF) != 0;
}

static void give_up(evContext ctx, struct ts_channel *record)
{
    keld_event<KELD_MGMT_SOCKET_IO>(strerror(errno));
    // Kept on purpose: what the buffer held of a reply is dropped; the server gets an empty end.
    send_reply(record, BEEP_MORE_LAST, nullptr, 0);
    buffer_reset(record);
    // Refused if the channel or the session is closing already. The peer's <ok/> is dropped, and the channel stays,
    // closing.
    (void)beep_channel_stop(keld_sp, record->tc_channel, LOST_CODE, "management daemon read failure");
    disconnect(ctx, record);
}

void ts_read_event(evContext ctx, void *uap, int, int)
{
    auto *record = static_cast<struct ts_channel *>(uap);
    while (const char *line = mgmt_sock_input(record->tc_sock, MGMT_INPUT_LINE)) {
        // Kept on purpose: of a line that did not fit, the last part alone is compared, and ends the reply if it
        // reads so.
        bool last = strcmp(buffer_add(record, line), reply_end) == 0;
        if (!last && !record->tc_canonical) continue;
        buffer_send(record, last ? BEEP_MORE_LAST : BEEP_MORE_TO_COME);
        // Kept on purpose: in canonical mode each frame begins with the MIME header, as if it were the first.
        buffer_reset(record);
        return;   // the rest is for the next turn
    }
    if (daemon_is_lost(record->tc_sock)) give_up(ctx, record);
}

void ts_stop(void *user_data)
{
    auto *record = static_cast<struct ts_channel *>(user_data);
    if (!record) return;
    disconnect(beep_get_session_ev_ctx(keld_sp), record);
    char *buffer = record->tc_buf;
    *record = {};
    free(buffer);
    free(record);
}

void ts_pro_init(struct beep_profile *row)
{
    row->pro_uri = TS_PROFILE_URI;
    row->pro_start_indicate = ts_start_indicate;
    row->pro_start_confirm = ts_start_confirm;
    row->pro_stop = ts_stop;
    row->pro_frame = ts_frame;
}
