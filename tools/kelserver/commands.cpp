/*
 * Commands: what a person or a script types on standard input.
 *
 * A command is one line; it acts on the session that came up last, of the kind that the command is for. A line that
 * cannot be carried out gets one line that says why, and nothing else happens.
 *
 * The end of standard input ends the commands, not the server: scripts close it, or never open it, and want to be
 * served all the same. "quit", SIGINT and SIGTERM end the server. A regular file is read at once. A terminal is opened
 * anew, because the loop reads without blocking and the terminal's own descriptor belongs to the shell as well.
 */
#include "tools/kelserver/kelserver.h"
#include "tools/kelserver/outbound.h"

#include <algorithm>
#include <arpa/inet.h>
#include <errno.h>
#include <fcntl.h>
#include <fstream>
#include <sstream>
#include <stdlib.h>
#include <string.h>
#include <unistd.h>

enum { LINE_MAX_OCTETS = 4096, CALL_MAX_OCTETS = 16 << 20 };
static constexpr size_t REST_OF_LINE = SIZE_MAX;   // an argument count: one argument, with the blanks in it

using words = std::vector<std::string>;

static struct connection *newest_session(void)
{
    for (auto at = server.connections.rbegin(); at != server.connections.rend(); ++at)
        if ((*at)->session && !(*at)->end_timer) return *at;
    return nullptr;
}

/* A decimal number from low to 65535, or -1. */
static int32_t number_of(const std::string &word, int32_t low)
{
    char *end = nullptr;
    errno = 0;
    long value = strtol(word.c_str(), &end, 10);
    bool good = !word.empty() && *end == 0 && errno == 0 && value >= low && value <= UINT16_MAX;
    return good ? static_cast<int32_t>(value) : -1;
}

/* --- the commands ------------------------------------------------------------------------------------------------ */

static const char *command_rpc(struct connection *connection, const words &line)
{
    std::ifstream file(line[1], std::ios::binary | std::ios::ate);
    if (!file || file.tellg() < 0) return "the file cannot be read";
    if (file.tellg() == 0 || file.tellg() > CALL_MAX_OCTETS) return "the file is empty or larger than 16 MiB";
    file.seekg(0);
    std::stringstream call;
    call << file.rdbuf();
    return file ? session_rpc(connection, call.str()) : "the file cannot be read";
}

static const char *command_redirect(struct connection *connection, const words &line)
{
    struct in_addr address;
    int32_t port = number_of(line[2], 1);
    if (inet_pton(AF_INET, line[1].c_str(), &address) != 1) return "ADDRESS is not an IPv4 address such as 192.0.2.1";
    if (port < 0) return "PORT is not a number from 1 to 65535";
    return session_redirect(connection, line[1], static_cast<uint16_t>(port));
}

static const char *command_close(struct connection *connection, const words &line)
{
    int32_t channel = number_of(line[1], 0);
    if (channel < 0) return "CHANNEL is not a number from 0 to 65535";
    return session_close(connection, static_cast<uint16_t>(channel));
}

static const char *command_ssh(struct connection *, const words &line)
{
    return outbound_type(line[1]);
}

static const char *command_ssh_close(struct connection *, const words &)
{
    return outbound_close();
}

static const char *command_quit(struct connection *, const words &)
{
    server.stopping = true;
    return nullptr;
}

static const char *command_help(struct connection *, const words &);

static const struct command {
    const char *word, *arguments, *help;
    size_t argument_count;   // or REST_OF_LINE
    bool needs_session;
    const char *(*run)(struct connection *connection, const words &line);
} commands[] = {
    { "rpc", "FILE", "send the file as a remote procedure call", 1, true, command_rpc },
    { "redirect", "ADDRESS PORT", "send the router to another server", 2, true, command_redirect },
    { "close", "CHANNEL", "ask the router to close a channel; 0 is the session", 1, true, command_close },
    { "ssh", "TEXT", "type the text into the newest outbound SSH session", REST_OF_LINE, false, command_ssh },
    { "ssh-close", "", "end what is typed there, and with it the session", 0, false, command_ssh_close },
    { "quit", "", "end all sessions and stop", 0, false, command_quit },
    { "help", "", "print this", 0, false, command_help },
};

static const char *command_help(struct connection *, const words &)
{
    for (const struct command &row : commands) say(nullptr, "  %-9s %-12s  %s", row.word, row.arguments, row.help);
    return nullptr;
}

/* --- lines ------------------------------------------------------------------------------------------------------- */

/* The words of the text, at most most of them: the last is then the rest of the text. */
static words split(const std::string &text, size_t most)
{
    static constexpr char blanks[] = " \t\r\v\f";
    words line;
    for (size_t at = text.find_first_not_of(blanks); at != std::string::npos;) {
        size_t end = line.size() + 1 == most ? text.size() : std::min(text.find_first_of(blanks, at), text.size());
        line.push_back(text.substr(at, end - at));
        at = text.find_first_not_of(blanks, end);
    }
    return line;
}

static void run_line(const std::string &text)
{
    words line = split(text, SIZE_MAX);
    if (line.empty()) return;

    auto row = std::find_if(std::begin(commands), std::end(commands),
                            [&](const struct command &candidate) { return line[0] == candidate.word; });
    if (row == std::end(commands)) {
        say(nullptr, "no such command: '%s'; there are rpc, redirect, close, ssh, ssh-close, quit, help",
            printable(line[0]).c_str());
        return;
    }
    bool takes_rest = row->argument_count == REST_OF_LINE;
    if (takes_rest) line = split(text, 2);
    if (line.size() != (takes_rest ? 2 : row->argument_count + 1)) {
        say(nullptr, "usage: %s %s", row->word, row->arguments);
        return;
    }
    struct connection *connection = newest_session();
    const char *fault = row->needs_session && !connection ? "no router is connected" : row->run(connection, line);
    if (fault) say(nullptr, "%s: %s", row->word, fault);
}

struct input {
    int fd;
    evFileID id;        // null for a regular file
    std::string line;   // what came of the line so far
    bool too_long;      // the rest of this line is skipped
};

static void take_octet(struct input *input, char octet)
{
    if (octet != '\n') {
        input->too_long = input->too_long || input->line.size() >= LINE_MAX_OCTETS;
        if (!input->too_long) input->line += octet;
        return;
    }
    if (input->too_long) say(nullptr, "a command of more than %d octets was skipped", LINE_MAX_OCTETS);
    else run_line(input->line);
    input->line.clear();
    input->too_long = false;
}

static void input_ended(struct input *input)
{
    if (!input->line.empty()) take_octet(input, '\n');   // a last line without its end counts
    if (input->id) evDeselectFD(server.ev, input->id);
    input->id = nullptr;
    if (!server.stopping) say(nullptr, "no more commands: standard input ended; serving goes on");
}

/* False when nothing more can come now: the end, or nothing to read yet. */
static bool read_some(struct input *input)
{
    char octets[1024];
    ssize_t count = read(input->fd, octets, sizeof octets);
    if (count < 0 && (errno == EAGAIN || errno == EINTR)) return false;
    for (ssize_t i = 0; i < count && !server.stopping; i++) take_octet(input, octets[i]);
    if (count <= 0) input_ended(input);
    return count > 0 && !server.stopping;
}

static void input_ready(evContext, void *uap, int, int)
{
    while (read_some(static_cast<struct input *>(uap)))
        ;
}

void commands_start(void)
{
    static struct input input;
    int terminal = isatty(STDIN_FILENO) ? open("/dev/tty", O_RDONLY | O_CLOEXEC) : -1;
    input.fd = terminal >= 0 ? terminal : STDIN_FILENO;
    if (evSelectFD(server.ev, input.fd, EV_READ, input_ready, &input, &input.id) == 0) return;
    // Regular files and /dev/null cannot be waited for; they never block either.
    while (read_some(&input))
        ;
}
