/*
 * ssh on a connection that stands already.
 *
 * ssh makes no connection of its own if it is given a proxy command with ProxyUseFdpass: the command hands over a
 * descriptor and is gone. The connection has to get into that command, and ssh closes whatever it inherits above
 * standard error. So its standard error is one end of a pair of Unix sockets: we leave the connection in there before
 * ssh starts, the proxy command, which is this program again and inherits the socket, takes it out and passes it on to
 * ssh, and from then on the socket carries only the text of errors. No file, no port and no other user can get between.
 *
 * What ssh and the commands on the router print is printed line by line. The process is watched through a pidfd: its
 * end, not the end of its output, ends the session.
 */
#include "tools/kelserver/kelserver.h"
#include "tools/kelserver/outbound.h"

#include <errno.h>
#include <fcntl.h>
#include <limits.h>
#include <signal.h>
#include <stdlib.h>
#include <string.h>
#include <sys/socket.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

enum { OUTPUT_LINE_MAX = 4096, STATUS_CANNOT_RUN = 127 };
static constexpr char program_variable[] = "KELSERVER_PROGRAM";

/* --- passing a descriptor ----------------------------------------------------------------------------------------- */

/* One octet, without which a stream carries no descriptor, and room for one descriptor. */
struct carrier {
    char octet = 0;
    struct iovec piece = { &octet, 1 };
    alignas(struct cmsghdr) char control[CMSG_SPACE(sizeof(int))] = {};
    struct msghdr message = { nullptr, 0, &piece, 1, control, sizeof control, 0 };
};

static bool descriptor_send(int socket, int fd)
{
    struct carrier carrier;
    struct cmsghdr *header = CMSG_FIRSTHDR(&carrier.message);
    header->cmsg_level = SOL_SOCKET;
    header->cmsg_type = SCM_RIGHTS;
    header->cmsg_len = CMSG_LEN(sizeof fd);
    memcpy(CMSG_DATA(header), &fd, sizeof fd);
    return sendmsg(socket, &carrier.message, 0) == 1;
}

/* The descriptor, or -1. */
static int descriptor_receive(int socket)
{
    int fd = -1;
    struct carrier carrier;
    if (recvmsg(socket, &carrier.message, MSG_CMSG_CLOEXEC) != 1) return -1;
    const struct cmsghdr *header = CMSG_FIRSTHDR(&carrier.message);
    if (header && header->cmsg_type == SCM_RIGHTS) memcpy(&fd, CMSG_DATA(header), sizeof fd);
    return fd;
}

int ssh_pass_connection(void)
{
    int fd = descriptor_receive(STDERR_FILENO);
    return fd >= 0 && descriptor_send(STDOUT_FILENO, fd) ? 0 : 1;
}

/* --- what ssh prints ---------------------------------------------------------------------------------------------- */

static void stream_close(struct ssh_stream *stream)
{
    if (!stream->line.empty()) say_block(stream->line);
    stream->line.clear();
    if (stream->id) evDeselectFD(server.ev, stream->id);
    if (stream->fd >= 0) close(stream->fd);
    stream->id = nullptr;
    stream->fd = -1;
}

/* False when nothing more can come now. */
static bool stream_read(struct ssh_stream *stream)
{
    char octets[OUTPUT_LINE_MAX];
    ssize_t count = read(stream->fd, octets, sizeof octets);
    if (count < 0 && (errno == EAGAIN || errno == EINTR)) return false;
    if (count <= 0) {
        stream_close(stream);
        return false;
    }
    stream->line.append(octets, static_cast<size_t>(count));
    size_t end = stream->line.rfind('\n');
    if (end == std::string::npos && stream->line.size() < OUTPUT_LINE_MAX) return true;
    end = end == std::string::npos ? stream->line.size() : end + 1;
    say_block(stream->line.substr(0, end));
    stream->line.erase(0, end);
    return true;
}

static void stream_ready(evContext, void *uap, int, int)
{
    (void)stream_read(static_cast<struct ssh_stream *>(uap));   // the loop calls again for what is left
}

static void ssh_ended(evContext, void *uap, int, int)
{
    struct outbound *outbound = static_cast<struct outbound *>(uap);
    int status = 0;
    for (struct ssh_stream *stream : { &outbound->output, &outbound->errors })
        while (stream->fd >= 0 && stream_read(stream))
            ;
    pid_t ended = waitpid(outbound->ssh, &status, WNOHANG);
    outbound->ssh = -1;
    std::string how = ended > 0 && WIFEXITED(status) ? "status " + std::to_string(WEXITSTATUS(status)) : "a signal";
    outbound_end(outbound, "ssh ended with " + how);
}

/* --- starting ----------------------------------------------------------------------------------------------------- */

/* The child's ends of what lies between us and ssh. */
struct child_ends {
    int input = -1, output = -1, errors = -1;
};

static void child_ends_close(const struct child_ends *ends)
{
    for (int fd : { ends->input, ends->output, ends->errors })
        if (fd >= 0) close(fd);
}

static bool open_ends(struct outbound *outbound, struct child_ends *child)
{
    int input[2], output[2], errors[2];
    if (pipe2(input, O_CLOEXEC) < 0) return false;
    child->input = input[0];
    outbound->input = input[1];
    if (pipe2(output, O_CLOEXEC) < 0) return false;
    outbound->output.fd = output[0];
    child->output = output[1];
    if (socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, errors) < 0) return false;
    outbound->errors.fd = errors[0];
    child->errors = errors[1];
    return fcntl(outbound->input, F_SETFL, O_NONBLOCK) == 0;
}

static bool write_known_hosts(struct outbound *outbound, const std::string &text)
{
    char path[] = "/tmp/kelserver-XXXXXX";
    int fd = mkostemp(path, O_CLOEXEC);
    if (fd < 0) return false;
    outbound->known_hosts = path;
    bool written = write(fd, text.data(), text.size()) == static_cast<ssize_t>(text.size());
    return close(fd) == 0 && written;
}

static std::vector<std::string> ssh_arguments(const struct outbound *outbound)
{
    const struct options &options = server.options;
    bool host_known = !outbound->known_hosts.empty();
    std::string alias = "router-" + std::to_string(outbound->number);
    std::vector<std::string> arguments = { "ssh", "-F", "none", "-T" };
    for (const std::string &option : std::initializer_list<std::string>{
             "BatchMode=yes", "LogLevel=ERROR", "ProxyUseFdpass=yes",
             std::string("ProxyCommand=\"$") + program_variable + "\" " SSH_PROXY_OPTION, "HostKeyAlias=" + alias,
             "UserKnownHostsFile=" + (host_known ? outbound->known_hosts : "/dev/null"), "GlobalKnownHostsFile=none",
             std::string("StrictHostKeyChecking=") + (host_known ? "yes" : "accept-new") })
        arguments.insert(arguments.end(), { "-o", option });
    if (options.ssh_user) arguments.insert(arguments.end(), { "-l", options.ssh_user });
    if (options.ssh_key) arguments.insert(arguments.end(), { "-o", "IdentitiesOnly=yes", "-i", options.ssh_key });
    arguments.push_back(alias);
    return arguments;
}

[[noreturn]] static void become_ssh(std::vector<std::string> arguments, const char *program,
                                    const struct child_ends *ends)
{
    std::vector<char *> argv;
    argv.reserve(arguments.size() + 1);
    for (std::string &argument : arguments) argv.push_back(argument.data());
    argv.push_back(nullptr);
    signal(SIGPIPE, SIG_DFL);
    setenv(program_variable, program, 1);
    setenv("SHELL", "/bin/sh", 1);   // reads the proxy command
    dup2(ends->input, STDIN_FILENO);
    dup2(ends->output, STDOUT_FILENO);
    dup2(ends->errors, STDERR_FILENO);
    execvp(argv[0], argv.data());
    dprintf(STDERR_FILENO, "cannot run ssh: %s\n", strerror(errno));
    _exit(STATUS_CANNOT_RUN);
}

static bool watch(struct outbound *outbound)
{
    outbound->process = static_cast<int>(syscall(SYS_pidfd_open, outbound->ssh, 0));
    if (outbound->process < 0) return false;
    for (struct ssh_stream *stream : { &outbound->output, &outbound->errors })
        if (evSelectFD(server.ev, stream->fd, EV_READ, stream_ready, stream, &stream->id) < 0) return false;
    return evSelectFD(server.ev, outbound->process, EV_READ, ssh_ended, outbound, &outbound->process_id) == 0;
}

const char *ssh_start(struct outbound *outbound, const std::string &known_host)
{
    static const char failed[] = "ssh cannot be started: no memory, descriptors or processes";
    char program[PATH_MAX] = "";
    if (readlink("/proc/self/exe", program, sizeof program - 1) < 0) return "kelserver does not find itself in /proc";
    if (!known_host.empty() && !write_known_hosts(outbound, known_host)) return "cannot write a file in /tmp";

    struct child_ends child;
    bool ready = open_ends(outbound, &child) && fcntl(outbound->fd, F_SETFL, 0) == 0 &&
                 descriptor_send(outbound->errors.fd, outbound->fd);
    if (ready) outbound->ssh = fork();
    if (outbound->ssh == 0) become_ssh(ssh_arguments(outbound), program, &child);
    child_ends_close(&child);
    if (outbound->ssh < 0 || !watch(outbound)) return failed;
    close(outbound->fd);
    outbound->fd = -1;
    return nullptr;
}

void ssh_stop(struct outbound *outbound)
{
    if (outbound->ssh > 0) {
        kill(outbound->ssh, SIGKILL);   // it leaves nothing behind that it would have to put in order
        waitpid(outbound->ssh, nullptr, 0);
    }
    stream_close(&outbound->output);
    stream_close(&outbound->errors);
    if (outbound->process_id) evDeselectFD(server.ev, outbound->process_id);
    if (outbound->process >= 0) close(outbound->process);
    if (outbound->input >= 0) close(outbound->input);
    if (!outbound->known_hosts.empty()) (void)unlink(outbound->known_hosts.c_str());   // a few octets in /tmp stay
}
