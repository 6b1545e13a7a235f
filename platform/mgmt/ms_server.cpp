/*
 * Command server: clients on the event loop, each in one of two states.
 *
 *   reading    registered for EV_READ: all replies are written, the next line is waited for
 *   writing    registered for EV_WRITE: a reply was made, and the next line is not looked at before it is gone
 *
 * So a client has at most one reply in memory, whatever it sends, and one command of each client is run in a turn of
 * the loop, however many it sends at once. What a client does not read costs a place in the table. A full table gives
 * a new client the place of the one that has been standing still longest, if that is long enough, and otherwise
 * refuses it.
 *
 * A reply that could not be taken into the write buffer whole closes the connection: half a document is worse than
 * none.
 */
#include "platform/mgmt/ms_server.h"

#include "platform/log/log.h"
#include "platform/mgmt/xml_out.h"
#include "platform/text/text.h"

#include <errno.h>
#include <string.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <syslog.h>
#include <unistd.h>

enum { BACKLOG = 16, ACCEPT_PAUSE_S = 1, PATH_SIZE = 128, FAULT_TEXT_SIZE = 800 };
static constexpr size_t SHOWN_WORD_MAX = 60;
static constexpr mode_t not_for_others = 0177;

struct ms_client {
    struct mgmt_sock *cl_sock;     // owned; null: the place is free
    evFileID cl_id;                // its one registration
    int cl_events;                 // EV_READ or EV_WRITE, what that is for
    struct ev_timespec cl_moved;   // when it last made a step forward
};

static struct {
    evContext sv_ctx;                  // null: there is no server
    const struct menu_row *sv_menu;    // lent
    char sv_path[PATH_SIZE];           // as told to people
    int sv_fd;                         // listens; owned
    evFileID sv_id;                    // null during a pause
    evTimerID sv_pause;                // null except during a pause
    bool sv_reply_lost;                // a line of the reply being made was not taken
    struct ms_client sv_clients[MS_CLIENTS_MAX];
} server;

static void report(const char *what)
{
    int error = errno;
    logging(LOG_ERR, "management socket %s: %s: %s", server.sv_path, what, strerror(error));
    errno = error;
}

/* --- replies ---------------------------------------------------------------------------------------------------- */

enum { TAG_RPC_ERROR = 1, TAG_BAD_ELEMENT, TAG_MESSAGE };

static const struct odl_tag error_tags[] = {
    { "NONE", 0 },
    { "rpc-error", ODL_CONTAINER },
    { "bad-element", ODL_TEXT },
    { "message", ODL_TEXT },
    { nullptr, 0 },
};

int ms_peer_send_line(struct mgmt_sock *msp, const char *line)
{
    if (mgmt_sock_write(msp, line, strlen(line), 0) >= 0 && mgmt_sock_write(msp, "\n", 1, 0) >= 0) return 0;
    server.sv_reply_lost = true;
    return -1;
}

static void send_error(struct mgmt_sock *msp, const char *word, size_t length, const char *message)
{
    int shown = static_cast<int>(length < SHOWN_WORD_MAX ? length : SHOWN_WORD_MAX);
    (void)xml_send_open(msp, &error_tags[TAG_RPC_ERROR], XML_NEWLINE, nullptr, 0);
    (void)xml_send_all(msp, &error_tags[TAG_BAD_ELEMENT], XML_ESCAPE, "%.*s", shown, word);
    (void)xml_send_all(msp, &error_tags[TAG_MESSAGE], XML_ESCAPE, "%s", message);
    (void)xml_send_close(msp, &error_tags[TAG_RPC_ERROR], XML_NEWLINE);
}

static void run_command(struct mgmt_sock *msp, const char *line)
{
    char message[FAULT_TEXT_SIZE];
    size_t length = strlen(line);
    if (length > MS_LINE_MAX) {
        (void)snprintf_safe(message, sizeof message, "command longer than %d octets, expected a shorter one",
                            MS_LINE_MAX);
        send_error(msp, line, length, message);
        return;
    }
    struct menu_search search;
    menu_find(server.sv_menu, line, &search);
    if (search.me_outcome == MENU_FOUND) {
        (void)search.me_row->mn_handler(msp, search.me_row);
        return;
    }
    (void)menu_fault_text(line, &search, message, sizeof message);
    send_error(msp, search.me_word, search.me_length, message);
}

/* Makes the reply to line. False if not all of it could be taken. */
static bool answer(struct mgmt_sock *msp, const char *line)
{
    server.sv_reply_lost = false;
    (void)xml_send_line(msp, "<rpc-reply>");
    run_command(msp, line);
    (void)xml_send_line(msp, "</rpc-reply>");
    return !server.sv_reply_lost;
}

/* --- clients ---------------------------------------------------------------------------------------------------- */

static void client_close(struct ms_client *client)
{
    if (client->cl_id) (void)evDeselectFD(server.sv_ctx, client->cl_id);
    mgmt_sock_close(client->cl_sock, 0);
    *client = {};
}

static void client_event(evContext ctx, void *uap, int fd, int events);

/* Has client_event called for events, and for nothing else. */
static void client_await(struct ms_client *client, int events)
{
    if (client->cl_id && client->cl_events == events) return;
    if (client->cl_id) (void)evDeselectFD(server.sv_ctx, client->cl_id);
    client->cl_id = nullptr;
    client->cl_events = events;
    if (evSelectFD(server.sv_ctx, client->cl_sock->ms_fd, events, client_event, client, &client->cl_id) == 0) return;
    report("client");
    client_close(client);
}

/* evSelectFD function, for both states: one step forward. */
static void client_event(evContext, void *uap, int, int)
{
    auto *client = static_cast<struct ms_client *>(uap);
    int waits = fwbuf_flush(&client->cl_sock->ms_fwb, FWBUF_NOWAIT);
    if (waits > 0) return client_await(client, EV_WRITE);
    if (waits < 0) return client_close(client);

    client->cl_moved = evNowTime();
    const char *line = xml_get_line(client->cl_sock);
    if (line) return answer(client->cl_sock, line) ? client_await(client, EV_WRITE) : client_close(client);
    if (xml_at_end(client->cl_sock)) return client_close(client);
    client_await(client, EV_READ);
}

/* A free place in the table; if need be, that of a client which has not moved for long. Null if there is none. */
static struct ms_client *find_place(void)
{
    struct ms_client *oldest = &server.sv_clients[0];
    for (struct ms_client &client : server.sv_clients) {
        if (!client.cl_sock) return &client;
        if (evCmpTime(client.cl_moved, oldest->cl_moved) < 0) oldest = &client;
    }
    if (evSubTime(evNowTime(), oldest->cl_moved).tv_sec < MS_IDLE_S) return nullptr;
    client_close(oldest);
    return oldest;
}

/* Takes fd. */
static void refuse(int fd)
{
    static constexpr char text[] =
        "<rpc-reply>\n<rpc-error>\n<bad-element></bad-element>\n<message>too many clients, end one or try again in a "
        "minute</message>\n</rpc-error>\n</rpc-reply>\n";
    (void)send(fd, text, sizeof text - 1, MSG_DONTWAIT | MSG_NOSIGNAL);   // a new socket has room for it
    (void)close(fd);
}

/* Takes fd. */
static void client_new(int fd)
{
    struct ms_client *client = find_place();
    if (!client) return refuse(fd);
    client->cl_sock = mgmt_sock_open_fd(fd);
    if (!client->cl_sock) {
        report("client");
        (void)close(fd);
        return;
    }
    client->cl_sock->ms_fbp->fb_line_max = MS_LINE_MAX + 1;   // one more, so that a longer line is seen to be one
    client->cl_moved = evNowTime();
    client_await(client, EV_READ);
}

/* --- listening -------------------------------------------------------------------------------------------------- */

static void accept_event(evContext ctx, void *uap, int fd, int events);

static void resume_cb(evContext, void *, struct ev_timespec, struct ev_timespec)
{
    server.sv_pause = nullptr;
    if (evSelectFD(server.sv_ctx, server.sv_fd, EV_READ, accept_event, nullptr, &server.sv_id) < 0)
        report("cannot listen again, restart the daemon");
}

/* Stops listening for a moment: a client that cannot be accepted, for want of descriptors, would be reported every
 * turn. */
static void pause_listening(void)
{
    report("no client can be accepted, trying again each second");
    struct ev_timespec due = evAddTime(evNowTime(), evConsTime(ACCEPT_PAUSE_S, 0));
    if (evSetTimer(server.sv_ctx, resume_cb, nullptr, due, evConsTime(0, 0), &server.sv_pause) < 0) return;
    (void)evDeselectFD(server.sv_ctx, server.sv_id);
    server.sv_id = nullptr;
}

static void accept_event(evContext, void *, int listener, int)
{
    int fd = accept4(listener, nullptr, nullptr, SOCK_CLOEXEC | SOCK_NONBLOCK);
    if (fd >= 0) return client_new(fd);
    if (errno != EAGAIN && errno != EINTR && errno != ECONNABORTED) pause_listening();
}

/* Makes the listening socket sv_fd. False with errno. */
static bool make_listener(void)
{
    struct sockaddr_un address;
    struct stat status;
    if (mgmt_sock_address(&address, server.sv_path) < 0) return false;
    // Only a socket is taken away: anything else that stands there is somebody's file.
    if (lstat(address.sun_path, &status) == 0 && S_ISSOCK(status.st_mode)) (void)unlink(address.sun_path);

    int fd = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0);
    if (fd < 0) return false;
    mode_t mask = umask(not_for_others);
    int bound = bind(fd, reinterpret_cast<const struct sockaddr *>(&address), sizeof address);
    int error = errno;
    (void)umask(mask);
    errno = error;
    if (bound == 0 && listen(fd, BACKLOG) == 0) {
        server.sv_fd = fd;
        return true;
    }
    error = errno;
    (void)close(fd);
    errno = error;
    return false;
}

int ms_init(evContext ctx, const char *name, const struct menu_row *menu, int)
{
    if (server.sv_ctx) {
        errno = EBUSY;
        return -1;
    }
    (void)snprintf_safe(server.sv_path, sizeof server.sv_path, "/var/run/%s.sock", name);
    if (!make_listener()) {
        report("cannot listen");
        return -1;
    }
    if (evSelectFD(ctx, server.sv_fd, EV_READ, accept_event, nullptr, &server.sv_id) < 0) {
        report("cannot listen");
        int error = errno;
        (void)close(server.sv_fd);
        errno = error;
        return -1;
    }
    server.sv_ctx = ctx;
    server.sv_menu = menu;
    return 0;
}
