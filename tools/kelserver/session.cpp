/*
 * Session: the server's side of the two profiles.
 *
 * The notification channel is opened by the router. We accept, tell it how often to report, print what arrives on it
 * and answer each message with an empty reply. On <close-connection/> we hang up, as the router asks. The management
 * script channel is opened from here, at the first call; each call is one MSG, and the frames of its reply are printed
 * as they come.
 *
 * The engine calls pro_start_indicate and its kin without saying which session is meant. So they only note the channel,
 * and the next turn finds the connection whose table has come to hold it (claim_channels). pro_start_fail does not even
 * name a channel: at most one <start> of ours is under way in the whole program (starting).
 */
#include "tools/kelserver/kelserver.h"

#include <algorithm>
#include <errno.h>
#include <stdlib.h>
#include <string.h>

#define NOTIFICATION_URI KELD_URI_BASE "/beep/tkel-notification/1.0"
#define SCRIPT_URI KELD_URI_BASE "/beep/TARNESCRIPT"

enum {
    CLOSE_CODE = 200,    // "success": nothing is wrong, we only wish to close
    CALL_PIECE = 2048,   // octets of a call in one frame: two fit the window that a router starts with
};

struct channel_opened {
    const struct beep_channel *channel;
    uint16_t number;
    bool notification;   // otherwise the script channel
    std::string piggyback;
};
static std::vector<struct channel_opened> unclaimed;
static struct connection *starting;   // whose <start> is under way, or null

/* --- texts ------------------------------------------------------------------------------------------------------- */

/* What stands between <name> and </name>, or "?" if there is no such element. */
static std::string element(const std::string &text, const std::string &name)
{
    const std::string tag = name + ">";
    size_t start = text.find('<' + tag);
    size_t end = text.find("</" + tag);
    if (start == std::string::npos || end == std::string::npos || end < start) return "?";
    start += tag.size() + 1;
    return printable(text.substr(start, end - start));
}

static std::string body_of(const struct beep_frame *frame)
{
    std::string text(frame->bf_data, static_cast<size_t>(frame->bf_size));
    static constexpr char mime_start[] = "Content-Type:";
    size_t header_end = text.starts_with(mime_start) ? text.find("\r\n\r\n") : std::string::npos;
    return header_end == std::string::npos ? text : text.substr(header_end + mime_header_trailer_len);
}

/* "added ge-0/0/0.0 ge-0/0/0.100" */
static std::string notification_summary(const std::string &text)
{
    static const std::string attribute = "whatishappening=\"";
    size_t start = text.find(attribute);
    size_t end = start == std::string::npos ? start : text.find('"', start + attribute.size());
    if (end == std::string::npos) return printable(text);
    std::string summary = printable(text.substr(start + attribute.size(), end - start - attribute.size()));
    for (size_t at = text.find("<name>"); at != std::string::npos; at = text.find("<name>", at + 1))
        summary += " " + element(text.substr(at), "name");
    return summary;
}

/* --- channels that were opened ----------------------------------------------------------------------------------- */

/* Queues call as one MSG. A frame of more than twice the router's window would never leave, so it goes in pieces,
 * and we note the number ourselves, as beep_send_msg does for a MSG of one frame. False if memory is out. */
static bool send_call(struct connection *connection, const std::string &call)
{
    struct beep_channel *channel = beep_find_channel(connection->session, connection->script_channel);
    if (!channel || channel->bc_state != BEEP_STATE_READY) return false;
    int32_t msgno = -1;
    for (size_t at = 0; at < call.size(); at += CALL_PIECE) {
        size_t size = std::min<size_t>(CALL_PIECE, call.size() - at);
        char more = at + size == call.size() ? BEEP_MORE_LAST : BEEP_MORE_TO_COME;
        msgno = beep_send_raw(connection->session, connection->script_channel, BEEP_MSGTYPE_MSG, msgno, more,
                              static_cast<int32_t>(size), -1, call.data() + at);
        if (msgno < 0) return false;
    }
    return bp_queue_put_and_grow(channel->bc_sent_msgnos, static_cast<uintptr_t>(msgno)) == 0;
}

static void script_send(struct connection *connection)
{
    std::string call = BEEP_MIME_HEADER + connection->script_waiting;
    connection->script_waiting.clear();
    if (!send_call(connection, call))
        say(connection, "channel %u: the call could not be sent", connection->script_channel);
    else say(connection, "channel %u: call sent, %zu octets", connection->script_channel, call.size());
}

static void channel_claimed(struct connection *connection, const struct channel_opened &opened)
{
    if (!opened.notification) {
        connection->script_channel = opened.number;
        starting = nullptr;
        say(connection, "channel %u opened: management script", opened.number);
        script_send(connection);
        return;
    }
    connection->notification_channel = opened.number;
    say(connection, "channel %u opened: notification, hostname %s, os %s, release %s; told keepalive %d s",
        opened.number, element(opened.piggyback, "hostname").c_str(), element(opened.piggyback, "os").c_str(),
        element(opened.piggyback, "release").c_str(), server.options.keepalive_s);
}

static void claim_channels(void)
{
    std::vector<struct channel_opened> all;
    all.swap(unclaimed);
    for (const struct channel_opened &opened : all)
        for (struct connection *connection : server.connections)
            if (connection->session && beep_find_channel(connection->session, opened.number) == opened.channel)
                channel_claimed(connection, opened);
}

static void claim_later(evContext, void *, const void *)
{
    claim_channels();
}

static void note_channel(struct beep_channel *channel, bool notification, const char *data, int32_t length)
{
    static const char tag = 0;
    std::string piggyback = data ? std::string(data, static_cast<size_t>(length)) : "";
    unclaimed.push_back({ channel, beep_get_channel_number(channel), notification, piggyback });
    if (evWaitFor(server.ev, &tag, claim_later, nullptr, nullptr) < 0)
        say(nullptr, "cannot wait for the channel: %s", strerror(errno));
    evDo(server.ev, &tag);
}

/* --- notification profile ---------------------------------------------------------------------------------------- */

static void greeting_seen(struct beep_session *session)
{
    say(connection_of(session), "greeting seen");
}

static uint8_t notification_start(const char *data, int32_t length, struct beep_channel *channel,
                                  struct beep_start_reply *reply)
{
    char text[64];
    snprintf(text, sizeof text, "<keepalive>%d</keepalive>", server.options.keepalive_s);
    reply->br_piggyback = strdup(text);
    note_channel(channel, true, data, length);
    return 1;
}

static void reply_arrived(struct connection *connection, const struct beep_frame *frame)
{
    say(connection, "channel %u: reply %d", frame->bf_channel, frame->bf_msgno);
    if (connection->redirect_sent) connection_end(connection, "the router has its redirect");
}

static void order_arrived(struct connection *connection, const struct beep_frame *frame)
{
    std::string text = body_of(frame);
    if (text.starts_with("<keepalive")) {
        say(connection, "channel %u: keepalive", frame->bf_channel);
    } else if (text.starts_with("<notification")) {
        say(connection, "channel %u: notification: %s", frame->bf_channel, notification_summary(text).c_str());
    } else if (text.starts_with("<close-connection")) {
        say(connection, "channel %u: close-connection", frame->bf_channel);
        connection_end(connection, "the router asked for it");
    } else {
        say(connection, "channel %u: unknown message: %s", frame->bf_channel, printable(text).c_str());
    }
}

static int notification_message(struct beep_session *session, void *, struct beep_frame *frame)
{
    claim_channels();
    struct connection *connection = connection_of(session);
    if (frame->bf_type != BEEP_MSGTYPE_MSG) {
        reply_arrived(connection, frame);
        return 0;
    }
    order_arrived(connection, frame);
    if (beep_send_rpy(session, frame->bf_channel, -1, BEEP_MORE_LAST, nullptr, 0) < 0)
        say(connection, "channel %u: the reply could not be sent", frame->bf_channel);
    return 0;
}

/* --- management script profile ------------------------------------------------------------------------------------ */

static uint8_t script_confirmed(const char *, int32_t, struct beep_channel *channel)
{
    note_channel(channel, false, nullptr, 0);
    return 1;
}

static void script_refused(const struct beep_diagnostic *diagnostic)
{
    if (!starting) return;
    say(starting, "the router refused the management script channel: [%d] %s", diagnostic ? diagnostic->code : 0,
        diagnostic && diagnostic->message ? printable(diagnostic->message).c_str() : "no text");
    starting->script_waiting.clear();
    starting = nullptr;
}

static int script_frame(struct beep_session *session, void *, struct beep_frame *frame)
{
    claim_channels();
    struct connection *connection = connection_of(session);
    say(connection, "channel %u: %s, %d octets%s", frame->bf_channel,
        frame->bf_type == BEEP_MSGTYPE_ERR ? "error reply" : "reply", frame->bf_size,
        frame->bf_more == BEEP_MORE_LAST ? ", the last" : ", more to come");
    say_block(body_of(frame));
    if (frame->bf_type == BEEP_MSGTYPE_MSG &&
        beep_send_rpy(session, frame->bf_channel, -1, BEEP_MORE_LAST, nullptr, 0) < 0)
        say(connection, "channel %u: the reply could not be sent", frame->bf_channel);
    return 0;
}

static uint8_t start_refused(const char *, int32_t, struct beep_channel *, struct beep_start_reply *)
{
    return 0;
}

static uint8_t confirm_refused(const char *, int32_t, struct beep_channel *)
{
    return 0;
}

static const struct beep_profile profiles[] = {
    { .pro_uri = NOTIFICATION_URI,
      .pro_greeting = greeting_seen,
      .pro_start_indicate = notification_start,
      .pro_start_confirm = confirm_refused,
      .pro_start_fail = nullptr,
      .pro_stop = nullptr,
      .pro_frame = nullptr,
      .pro_message = notification_message },
    { .pro_uri = SCRIPT_URI,
      .pro_greeting = nullptr,
      .pro_start_indicate = start_refused,
      .pro_start_confirm = script_confirmed,
      .pro_start_fail = script_refused,
      .pro_stop = nullptr,
      .pro_frame = script_frame,
      .pro_message = nullptr },
};
static const struct beep_profile *const script_profile = &profiles[1];

/* --- session ----------------------------------------------------------------------------------------------------- */

static void session_gone(struct beep_session *session)
{
    connection_end(connection_of(session), "the BEEP session is over");
}

void session_start(struct connection *connection, beep_read_fn read_fn, beep_write_fn write_fn)
{
    connection->session = beep_session_new(connection->fd, server.ev, BEEP_ROLE_LISTENER, profiles, std::size(profiles),
                                           read_fn, write_fn, connection);
    if (connection->session) beep_set_session_close_cb(connection->session, session_gone);
    else connection_end(connection, "cannot start BEEP: no memory");
}

void session_close_answered(struct connection *connection)
{
    say(connection, "channel %d: the router closed it", connection->close_channel);
    if (connection->close_channel == 0) connection_end(connection, "closed from here");
    if (connection->close_channel == connection->script_channel) connection->script_channel = 0;
    connection->close_channel = -1;
    connection->close_answered = true;
    connection->ok_matched = 0;
}

void session_forget(struct connection *connection)
{
    if (starting == connection) starting = nullptr;
}

const char *session_rpc(struct connection *connection, const std::string &call)
{
    if (!connection->script_waiting.empty()) return "the call before this one still waits for its channel";
    if (!beep_find_channel(connection->session, connection->script_channel))
        connection->script_channel = 0;   // the router has closed it
    if (connection->script_channel) {
        connection->script_waiting = call;
        script_send(connection);
        return nullptr;
    }
    if (starting) return "another session's channel is just being opened; try again";
    if (connection->close_channel >= 0 || connection->close_answered)
        return "no channel can be opened any more after a close; wait for the next session";
    if (beep_channel_start(connection->session, script_profile, 1, nullptr) < 0) return "the session is not ready yet";
    connection->script_waiting = call;
    starting = connection;
    say(connection, "asked the router for a management script channel");
    return nullptr;
}

const char *session_redirect(struct connection *connection, const std::string &address, uint16_t port)
{
    std::string text = BEEP_MIME_HEADER "<redirect><address>" + address + "</address><port>" + std::to_string(port) +
                       "</port></redirect>";
    struct iovec piece = { text.data(), text.size() };
    if (!connection->notification_channel) return "the router has not opened its notification channel yet";
    if (beep_send_msg(connection->session, connection->notification_channel, &piece, 1) < 0)
        return "the notification channel is closing";
    connection->redirect_sent = true;
    say(connection, "channel %u: redirect to %s port %u sent", connection->notification_channel, address.c_str(), port);
    return nullptr;
}

const char *session_close(struct connection *connection, uint16_t channel)
{
    if (connection->close_channel >= 0) return "the close before this one is not answered yet";
    if (channel != 0 && !beep_find_channel(connection->session, channel))
        return "there is no such channel; see the lines that say \"opened\"";
    int refused = channel == 0 ? beep_session_stop(connection->session, CLOSE_CODE, nullptr)
                               : beep_channel_stop(connection->session, channel, CLOSE_CODE, nullptr);
    if (refused) return "it cannot be closed now: it is closing, or a message of ours waits for its reply";
    connection->close_channel = channel;
    say(connection, "channel %u: asked the router to close it", channel);
    return nullptr;
}
