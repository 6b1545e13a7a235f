/*
 * Outbound SSH, from accept to the start of ssh.
 *
 * The octets of the identification are looked at before they are taken (MSG_PEEK), because none of those behind it may
 * be: they belong to the conversation between the router's SSH server and the ssh that gets the connection.
 *
 * Whom we believe: with a secret, only a router whose HMAC proves that it knows it; the host key that it named is then
 * the one that ssh insists on. Without a secret everybody is served, as with BEEP. A host key is insisted on all the
 * same if one was named; a router that names none may show any.
 */
#include "tools/kelserver/outbound.h"
#include "tools/kelserver/kelserver.h"

#include <errno.h>
#include <string.h>
#include <sys/socket.h>
#include <unistd.h>

enum { IDENT_LIMIT_S = 10 };

/* --- end --------------------------------------------------------------------------------------------------------- */

static void stop_reading(struct outbound *outbound)
{
    if (outbound->ident_id) evDeselectFD(server.ev, outbound->ident_id);
    if (outbound->ident_limit) evClearTimer(server.ev, outbound->ident_limit);
    outbound->ident_id = nullptr;
    outbound->ident_limit = nullptr;
}

void outbound_end(struct outbound *outbound, const std::string &reason)
{
    say_number(outbound->number, "outbound SSH ended: %s", reason.c_str());
    std::erase(server.outbound, outbound);
    stop_reading(outbound);
    ssh_stop(outbound);
    if (outbound->fd >= 0) close(outbound->fd);
    delete outbound;
}

void outbound_free_all(void)
{
    while (!server.outbound.empty()) outbound_end(server.outbound.back(), "kelserver stops");
}

/* --- identification ---------------------------------------------------------------------------------------------- */

/* Prints what the HMAC is worth. Null, or why the router is not served. */
static const char *check_proof(const struct outbound *outbound)
{
    const std::string &secret = server.options.ssh_secret;
    bool absent = outbound->reader.ident.hmac.empty();
    if (secret.empty()) {
        say_number(outbound->number, absent ? "HMAC absent" : "HMAC not checked: no secret was given");
        return nullptr;
    }
    switch (ident_check(&outbound->reader.ident, secret)) {
    case ident_proof::MATCH:
        say_number(outbound->number, "HMAC matches: the router knows the secret");
        return nullptr;
    case ident_proof::MISMATCH:
        return "HMAC mismatch: the router has another secret, or the host key is not the one that it sent";
    case ident_proof::ABSENT:
        return "HMAC absent: a router that knows the secret would have sent it";
    case ident_proof::IMPOSSIBLE:
        break;
    }
    return "the HMAC cannot be calculated";
}

/* Null, or why the connection ends here. */
static const char *hand_over(struct outbound *outbound)
{
    const struct ident *ident = &outbound->reader.ident;
    if (const char *fault = check_proof(outbound)) return fault;
    std::string known_host = ident_known_host(ident, "router-" + std::to_string(outbound->number));
    if (known_host.empty() && !ident->host_key.empty()) return "its HOST-KEY is no key that ssh would take";
    if (const char *fault = ssh_start(outbound, known_host)) return fault;
    const char *key = known_host.empty() ? "no host key was named, any is taken" : "the host must have the key named";
    say_number(outbound->number, "ssh has the connection; %s", key);
    return nullptr;
}

static const char *how_far(const struct outbound *outbound)
{
    return outbound->reader.optional.empty() ? "in the middle of its identification" : "before its SSH server spoke";
}

static void ident_late(evContext, void *uap, struct ev_timespec, struct ev_timespec)
{
    struct outbound *outbound = static_cast<struct outbound *>(uap);
    outbound->ident_limit = nullptr;
    outbound_end(outbound, std::to_string(IDENT_LIMIT_S) + " s were over " + how_far(outbound));
}

static void ident_ready(evContext, void *uap, int fd, int)
{
    struct outbound *outbound = static_cast<struct outbound *>(uap);
    char octets[2048];
    ssize_t count = recv(fd, octets, sizeof octets, MSG_PEEK);
    if (count < 0 && (errno == EAGAIN || errno == EINTR)) return;
    if (count <= 0) {
        outbound_end(outbound, std::string("the router hung up ") + how_far(outbound));
        return;
    }
    std::vector<std::string> lines;
    size_t taken = ident_feed(&outbound->reader, octets, static_cast<size_t>(count), &lines);
    if (taken > 0 && recv(fd, octets, taken, 0) != static_cast<ssize_t>(taken)) {
        outbound_end(outbound, "cannot read");
        return;
    }
    for (const std::string &line : lines) say_number(outbound->number, "%s", printable(line).c_str());
    if (outbound->reader.fault) {
        outbound_end(outbound, std::string("this is no identification: ") + outbound->reader.fault);
    } else if (outbound->reader.complete) {
        stop_reading(outbound);
        if (const char *fault = hand_over(outbound)) outbound_end(outbound, fault);
    }
}

void outbound_accept(int fd, const std::string &peer)
{
    auto *made = new outbound{ .number = ++server.accepted, .fd = fd };
    server.outbound.push_back(made);
    say_number(made->number, "outbound SSH from %s", peer.c_str());
    struct ev_timespec limit = evAddTime(evNowTime(), evConsTime(IDENT_LIMIT_S, 0));
    if (evSetTimer(server.ev, ident_late, made, limit, evConsTime(0, 0), &made->ident_limit) < 0 ||
        evSelectFD(server.ev, fd, EV_READ, ident_ready, made, &made->ident_id) < 0)
        outbound_end(made, std::string("cannot wait for the identification: ") + strerror(errno));
}

/* --- commands ----------------------------------------------------------------------------------------------------- */

static struct outbound *newest_session(void)
{
    for (auto at = server.outbound.rbegin(); at != server.outbound.rend(); ++at)
        if ((*at)->ssh > 0) return *at;
    return nullptr;
}

const char *outbound_type(const std::string &line)
{
    struct outbound *outbound = newest_session();
    if (!outbound) return "no router has an outbound SSH session";
    if (outbound->input < 0) return "its input is closed";
    // A command line is shorter than what a pipe takes in one piece: it goes in whole or not at all.
    std::string text = line + '\n';
    ssize_t written = write(outbound->input, text.data(), text.size());
    if (written < 0) return errno == EAGAIN ? "the lines before this one still wait" : "ssh takes no more input";
    return nullptr;
}

const char *outbound_close(void)
{
    struct outbound *outbound = newest_session();
    if (!outbound) return "no router has an outbound SSH session";
    if (outbound->input < 0) return "its input is closed already";
    close(outbound->input);
    outbound->input = -1;
    return nullptr;
}
