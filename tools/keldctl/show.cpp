/*
 * keldctl show: asks the daemon, and prints its answer for people or as it is.
 *
 * The words go to the daemon as they were typed; which commands there are is its business, and what it says about a
 * word that it does not know is passed on. The answer is read whole before anything is printed, so that a daemon that
 * ends in the middle leaves no half output, and a slow terminal keeps no place in the daemon's table of clients.
 *
 * A document has an element a line. For people a container becomes a heading, with its leaves below it, indented and
 * their values in one column; its outermost element is left out, since the question named it.
 */
#include "tools/keldctl/keldctl.h"

#include "platform/mgmt/mgmt_sock.h"
#include "platform/process/process.h"
#include "platform/text/text.h"

#include <algorithm>
#include <errno.h>
#include <stdio.h>
#include <string>
#include <string.h>
#include <string_view>
#include <sys/socket.h>
#include <sys/time.h>
#include <sys/un.h>
#include <unistd.h>
#include <vector>

using std::string;
using std::string_view;

static constexpr char socket_name[] = "/var/run/keld.sock";
static constexpr char pid_name[] = "/var/run/keld.pid";
static constexpr char reply_begin[] = "<rpc-reply>\n", reply_end[] = "</rpc-reply>\n";
static constexpr struct timeval patience = { 10, 0 };
static constexpr size_t reply_max = 32 << 20, column = 20, indent = 2;

/* --- asking ----------------------------------------------------------------------------------------------------- */

static int fail_to_connect()
{
    if (errno == EACCES || errno == EPERM)
        return keldctl_fail("may not use %s, run keldctl as the user that runs keld", socket_name);
    if (errno == EAGAIN) return keldctl_fail("keld does not answer, try again");
    if (errno != ENOENT && errno != ECONNREFUSED)
        return keldctl_fail("cannot use %s: %s", socket_name, strerror(errno));
    if (pid_read(pid_name) > 0)
        return keldctl_fail("keld runs but does not listen on %s, see its log for the reason and restart it",
                            socket_name);
    return keldctl_fail("keld is not running, start it with: keld");
}

/* A socket to the daemon, whose calls give up in time; -1 with errno. */
static int connect_to_keld()
{
    struct sockaddr_un address;
    if (mgmt_sock_address(&address, socket_name) < 0) return -1;
    int fd = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
    if (fd < 0) return -1;
    (void)setsockopt(fd, SOL_SOCKET, SO_RCVTIMEO, &patience, sizeof patience);
    (void)setsockopt(fd, SOL_SOCKET, SO_SNDTIMEO, &patience, sizeof patience);
    if (connect(fd, reinterpret_cast<const struct sockaddr *>(&address), sizeof address) == 0) return fd;
    int error = errno;
    (void)close(fd);
    errno = error;
    return -1;
}

/* True if all of line was sent. False with errno. */
static bool send_line(int fd, string_view line)
{
    while (!line.empty()) {
        ssize_t sent = send(fd, line.data(), line.size(), MSG_NOSIGNAL);
        if (sent < 0 && errno == EINTR) continue;
        if (sent < 0) return false;
        line.remove_prefix(static_cast<size_t>(sent));
    }
    return true;
}

/* Sends the line and takes the document of the reply. False with errno. */
static bool exchange(int fd, const string &line, string *document)
{
    // A daemon that has hung up may have said why before it did, for instance that it has too many clients.
    if (!send_line(fd, line) && errno != EPIPE) return false;
    string reply;
    while (!reply.ends_with(reply_end)) {
        char piece[16 * 1024];
        ssize_t got = recv(fd, piece, sizeof piece, 0);
        if (got < 0 && errno == EINTR) continue;
        if (got == 0) errno = ECONNRESET;
        if (got <= 0) return false;
        reply.append(piece, static_cast<size_t>(got));
        if (reply.size() <= reply_max) continue;
        errno = EMSGSIZE;
        return false;
    }
    if (!reply.starts_with(reply_begin)) {
        errno = EPROTO;
        return false;
    }
    size_t begin = sizeof reply_begin - 1;
    *document = reply.substr(begin, reply.size() - begin - (sizeof reply_end - 1));
    return true;
}

/* --- the document ----------------------------------------------------------------------------------------------- */

enum class element_kind { open, close, leaf, empty };

/* One line of a document. */
struct element {
    element_kind el_kind;
    string_view el_name;
    string el_text;   // of a leaf, without entities
};

static string without_entities(string_view text)
{
    string plain(text);
    plain.resize(xml_unescape(text.data(), text.size(), plain.data(), 0));
    return plain;
}

/* False if the line is none of the forms that documents are made of. */
static bool read_element(string_view line, struct element *element)
{
    size_t end = line.find('>');
    if (!line.starts_with('<') || end == string_view::npos || end < 2) return false;
    bool closes = line[1] == '/', empty = line[end - 1] == '/';
    string_view tag = line.substr(closes ? 2 : 1, end - (closes ? 2 : 1));
    element->el_name = tag.substr(0, tag.find_first_of(" /"));
    size_t last = line.rfind("</");
    if (closes) element->el_kind = element_kind::close;
    else if (empty) element->el_kind = element_kind::empty;
    else if (last > end && last != string_view::npos) element->el_kind = element_kind::leaf;
    else element->el_kind = element_kind::open;
    if (element->el_kind != element_kind::leaf) return true;
    element->el_text = without_entities(line.substr(end + 1, last - end - 1));
    return true;
}

static std::vector<struct element> read_document(string_view document)
{
    std::vector<struct element> elements;
    while (!document.empty()) {
        size_t end = document.find('\n');
        struct element element = {};
        if (read_element(document.substr(0, end), &element)) elements.push_back(element);
        document.remove_prefix(end == string_view::npos ? document.size() : end + 1);
    }
    return elements;
}

/* --- for people ------------------------------------------------------------------------------------------------- */

/* What a tag is called, and what its value counts. Others are called as the tag is. */
static constexpr struct label {
    string_view la_tag;
    const char *la_text, *la_unit;
} labels[] = {
    { "connection-status", "Connection", "" },
    { "keepalive-information", "Keepalives", "" },
    { "notification-information", "Notifications", "" },
    { "peer-information", "Server last heard", "" },
    { "unconfigured", "No server in use", "" },
    { "date-time", "Since", "" },
    { "elapsed-time", "Last", " ago" },
    { "interval", "Interval", " s" },
    { "keepalive-count", "Sent", "" },
    { "notification-count", "Sent", "" },
    { "tls-library", "TLS library", "" },
    { "c-library", "C library", "" },
};

static struct label label_of(string_view tag)
{
    for (const struct label &row : labels)
        if (row.la_tag == tag) return row;
    return { tag, nullptr, "" };
}

static string words_of(const struct label &label)
{
    string words(label.la_text ? label.la_text : label.la_tag);
    for (char &character : words)
        if (character == '-') character = ' ';
    if (!words.empty() && words[0] >= 'a' && words[0] <= 'z') words[0] = static_cast<char>(words[0] - 'a' + 'A');
    return words;
}

static void print_for_people(const string &document)
{
    size_t depth = 0;
    for (const struct element &element : read_document(document)) {
        if (element.el_kind == element_kind::close) {
            depth -= depth > 0;
            continue;
        }
        struct label label = label_of(element.el_name);
        string text(depth > 0 ? (depth - 1) * indent : 0, ' ');
        text += words_of(label);
        if (element.el_kind == element_kind::leaf) {
            text.resize(std::max(column, text.size() + 1), ' ');
            text += element.el_text + label.la_unit;
        }
        if (element.el_kind != element_kind::open || depth > 0) (void)puts(text.c_str());
        depth += element.el_kind == element_kind::open;
    }
}

/* The text of the <message> of an <rpc-error>; empty if the document is none. */
static string error_of(const string &document)
{
    if (!document.starts_with("<rpc-error>\n")) return "";
    for (const struct element &element : read_document(document))
        if (element.el_name == "message") return element.el_text;
    return "keld refused the command, try keldctl --help";
}

/* --- the command ------------------------------------------------------------------------------------------------ */

int keldctl_show(int count, char **words)
{
    string line = "show";
    bool as_document = false;
    for (int i = 0; i < count; i++) {
        if (strpbrk(words[i], "\r\n")) return keldctl_fail("a word holds a line end, try keldctl --help");
        if (strcmp(words[i], "--xml") == 0) as_document = true;
        else line += string(" ") + words[i];
    }
    int fd = connect_to_keld();
    if (fd < 0) return fail_to_connect();
    string document;
    bool answered = exchange(fd, line + "\n", &document);
    int error = errno;
    (void)close(fd);
    if (!answered && error == EAGAIN) return keldctl_fail("keld does not answer, try again or look at its log");
    if (!answered) return keldctl_fail("keld broke off its answer (%s), try again", strerror(error));

    string refused = error_of(document);
    if (!refused.empty()) return keldctl_fail("%s", refused.c_str());
    if (as_document) (void)fputs(document.c_str(), stdout);
    else print_for_people(document);
    if (fflush(stdout) == 0) return 0;
    return keldctl_fail("cannot print the answer (%s), print it elsewhere", strerror(errno));
}
