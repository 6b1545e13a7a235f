/*
 * Client: one connection, from the login to its end.
 *
 *   login line -> XML declaration -> hello line, answered with a hello -> calls and replies until the client hangs up
 *
 * Reading and answering take turns: while calls wait or a reply is on its way nothing is read, and one call is
 * answered in a turn of the loop. So a client costs the calls of one read and one reply, however fast it calls and
 * however slowly it reads, and the others wait for one answer at most. What is wrong in the first three lines ends
 * the connection; what is wrong in a call is answered.
 *
 * A call ends with "</rpc>". Text that does not come to that has no end that could be seen, and yet its sender waits
 * for an answer. It gets one when nothing more has come for a while.
 */
#include "tools/vrd/vrd.h"

#include <errno.h>
#include <string.h>
#include <sys/socket.h>
#include <unistd.h>

enum {
    READ_MAX = 64 << 10,
    LINE_MAX_OCTETS = 4096,
    STRAY_QUIET_S = 1,     // text outside of any call
    CALL_QUIET_S = 60,     // a call that has begun
};

static void read_ready(evContext ctx, void *uap, int fd, int events);
static void write_ready(evContext ctx, void *uap, int fd, int events);

/* --- end --------------------------------------------------------------------------------------------------------- */

static void stop_quiet_timer(struct client *client)
{
    if (client->quiet_id) (void)evClearTimer(vrd.ev, client->quiet_id);
    client->quiet_id = nullptr;
}

static void deselect(evFileID *id)
{
    if (*id) (void)evDeselectFD(vrd.ev, *id);
    *id = nullptr;
}

void client_free(struct client *client)
{
    stop_quiet_timer(client);
    deselect(&client->read_id);
    deselect(&client->write_id);
    close(client->fd);
    vrd.clients.erase(client);
    delete client;
}

static void client_end(struct client *client, const char *reason)
{
    say(client, "ended: %s", reason);
    client_free(client);
}

/* --- output ------------------------------------------------------------------------------------------------------ */

/* Has write_ready called at the next turn, or when there is room. The client may be gone after this. */
static void wait_to_write(struct client *client)
{
    deselect(&client->read_id);
    if (!client->write_id && evSelectFD(vrd.ev, client->fd, EV_WRITE, write_ready, client, &client->write_id) < 0)
        client_end(client, strerror(errno));
}

static void answer_next(struct client *client)
{
    std::string name;
    struct call call = std::move(client->calls.front());
    client->calls.pop_front();
    client->output = call_answer(call, &name);
    say(client, "user %s: %s%s%s, %zu octets in reply", client->user.c_str(), printable(name).c_str(),
        call.fault ? ", refused: " : "", call.fault ? call.fault : "", client->output.size());
}

/* Sends what is on its way and then answers one call, or reads on if none waits. The client may be gone after this. */
static void client_turn(struct client *client)
{
    while (client->written < client->output.size()) {
        ssize_t sent = send(client->fd, client->output.data() + client->written,
                            client->output.size() - client->written, MSG_NOSIGNAL);
        if (sent < 0 && errno == EINTR) continue;
        if (sent < 0 && errno == EAGAIN) return wait_to_write(client);
        if (sent < 0) return client_end(client, strerror(errno));
        client->written += static_cast<size_t>(sent);
    }
    client->output.clear();
    client->output.shrink_to_fit();
    client->written = 0;

    if (!client->calls.empty()) {
        answer_next(client);
        return wait_to_write(client);
    }
    deselect(&client->write_id);
    if (!client->read_id && evSelectFD(vrd.ev, client->fd, EV_READ, read_ready, client, &client->read_id) < 0)
        client_end(client, strerror(errno));
}

static void write_ready(evContext, void *uap, int, int)
{
    client_turn(static_cast<struct client *>(uap));
}

/* --- the first lines --------------------------------------------------------------------------------------------- */

/* The word behind "user " in a login line. */
static std::string login_user(const std::string &line)
{
    static const std::string word = "user ";
    size_t end = line.find(' ', word.size());
    return printable(line.substr(word.size(), end == line.npos ? end : end - word.size()));
}

/* Takes a line of the phases before CALLS. Null, or why the client cannot stay. */
static const char *client_line(struct client *client)
{
    static const struct {
        const char *start, *fault;
    } lines[] = {
        { "user ", "the login line does not begin with \"user\"" },
        { "<?xml ", "the line behind the login is no XML declaration" },
        { "<hello", "the line behind the XML declaration is no <hello>" },
    };
    static_assert(sizeof lines / sizeof *lines == client::CALLS);

    const auto &row = lines[client->phase];
    if (!client->line.starts_with(row.start)) return row.fault;
    if (client->phase == client::LOGIN) {
        client->user = login_user(client->line);
        say(client, "login: %s", printable(client->line).c_str());
    }
    if (client->phase == client::HELLO) client->output += "<hello server=\"vrd\" release=\"" KELD_RELEASE "\"/>\n";
    client->phase = static_cast<decltype(client->phase)>(client->phase + 1);
    return nullptr;
}

/* Takes lines off the front of what was read, until the calls begin. Null, or why the client cannot stay. */
static const char *take_lines(struct client *client, std::string_view *octets)
{
    while (client->phase != client::CALLS && !octets->empty()) {
        size_t end = octets->find('\n');
        client->line += octets->substr(0, end);
        octets->remove_prefix(end == octets->npos ? octets->size() : end + 1);
        if (client->line.size() > LINE_MAX_OCTETS) return "one of the first lines is longer than 4096 octets";
        if (end == octets->npos) break;
        const char *fault = client_line(client);
        if (fault) return fault;
        client->line.clear();
    }
    return nullptr;
}

/* --- input ------------------------------------------------------------------------------------------------------- */

static void quiet(evContext, void *uap, struct ev_timespec, struct ev_timespec)
{
    auto *client = static_cast<struct client *>(uap);
    client->quiet_id = nullptr;
    client->calls.push_back(call_reader_give_up(&client->reader));
    client_turn(client);
}

/* Sets the timer for what is there of a call. */
static void watch_part(struct client *client)
{
    stop_quiet_timer(client);
    if (!call_reader_holds_part(&client->reader)) return;
    int32_t limit_s = client->reader.in_call ? CALL_QUIET_S : STRAY_QUIET_S;
    struct ev_timespec due = evAddTime(evNowTime(), evConsTime(limit_s, 0));
    if (evSetTimer(vrd.ev, quiet, client, due, evConsTime(0, 0), &client->quiet_id) < 0)
        say(client, "cannot watch the time: %s", strerror(errno));   // an unfinished call then waits for its end
}

static void read_ready(evContext, void *uap, int fd, int)
{
    static char buffer[READ_MAX];
    auto *client = static_cast<struct client *>(uap);
    ssize_t got = read(fd, buffer, sizeof buffer);
    if (got < 0 && (errno == EAGAIN || errno == EINTR)) return;
    if (got <= 0) return client_end(client, got == 0 ? "the client hung up" : strerror(errno));

    std::string_view octets = { buffer, static_cast<size_t>(got) };
    const char *fault = take_lines(client, &octets);
    if (fault) return client_end(client, fault);
    call_reader_feed(&client->reader, octets.data(), octets.size(), &client->calls);
    watch_part(client);
    client_turn(client);
}

void client_accept(int fd)
{
    auto *client = new struct client;
    client->fd = fd;
    client->number = vrd.next_number++;
    vrd.clients.insert(client);
    if (evSelectFD(vrd.ev, fd, EV_READ, read_ready, client, &client->read_id) < 0) client_end(client, strerror(errno));
}
