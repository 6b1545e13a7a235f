/*
 * kelserver: a service-deployment server for trials.
 *
 * It listens, accepts every router that comes, and lets a person watch and steer: what arrives is printed, a line an
 * event, and commands are read from standard input (commands.cpp). Any number of routers may be connected at once; each
 * has a number, and commands go to the one whose session came up last. It keeps nothing: what a router says is printed
 * and forgotten. Routers that come with outbound SSH are taken on a port of their own (outbound.cpp).
 *
 * It runs on the daemon's own engine in the listener's role, so that a trial exercises both sides of it.
 */
#include "tools/kelserver/kelserver.h"
#include "tools/kelserver/outbound.h"

#include <arpa/inet.h>
#include <errno.h>
#include <fstream>
#include <getopt.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <openssl/err.h>
#include <signal.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/socket.h>
#include <unistd.h>

enum { EXIT_USAGE = 64, BACKLOG = 16 };

struct server server;

/* --- options ----------------------------------------------------------------------------------------------------- */

static constexpr char usage_text[] =
    "usage: kelserver [--port N] [--address A] [--tls CERT] [--keepalive SECONDS]\n"
    "                 [--accept-ssh N [--ssh-secret FILE] [--ssh-user NAME] [--ssh-key FILE]]\n"
    "\n"
    "A service-deployment server for trials: prints what routers send, takes commands on standard input.\n"
    "\n"
    "  --port N             listen on TCP port N (3333); 0 takes a free one and prints it\n"
    "  --address A          listen on IPv4 address A only (0.0.0.0)\n"
    "  --tls CERT           use TLS, with the certificate chain and the key in the PEM file CERT\n"
    "  --keepalive SECONDS  tell routers this interval (45); they send a keepalive at a third of it\n"
    "  --accept-ssh N       take outbound SSH on TCP port N as well, and hand it to ssh; 0 takes a free one\n"
    "  --ssh-secret FILE    check the HMAC of routers with the secret in the first line of FILE\n"
    "  --ssh-user NAME      log in as NAME\n"
    "  --ssh-key FILE       log in with the private key in FILE\n"
    "  --help               print this\n"
    "\n"
    "Commands, one a line, for the session that came up last:\n"
    "  rpc FILE               send the file as a remote procedure call\n"
    "  redirect ADDRESS PORT  send the router to another server, and end the session when it has answered\n"
    "  close CHANNEL          ask the router to close a channel; 0 is the session\n"
    "  ssh TEXT               type the text into the outbound SSH session that came last\n"
    "  ssh-close              end what is typed there, and with it the session\n"
    "  quit                   end all sessions and stop\n"
    "  help                   list the commands\n"
    "\n"
    "The end of standard input does not stop it; quit, SIGINT and SIGTERM do.\n";

[[noreturn]] static void usage_error(const char *fault, const char *value)
{
    fprintf(stderr, "kelserver: %s: '%s' (kelserver --help tells more)\n", fault, value);
    exit(EXIT_USAGE);
}

static int32_t option_number(const char *text, const char *name, int32_t high)
{
    char *end = nullptr;
    errno = 0;
    long value = strtol(text, &end, 10);
    if (*text == 0 || *end != 0 || errno != 0 || value < 0 || value > high) usage_error(name, text);
    return static_cast<int32_t>(value);
}

/* A file and not an argument, which everybody on the machine could read. */
static std::string read_secret(const char *path)
{
    std::string line;
    std::ifstream file(path);
    if (!std::getline(file, line) || line.empty()) usage_error("--ssh-secret wants a file with a secret", path);
    return line;
}

static struct options read_options(int argc, char **argv)
{
    static const struct option names[] = {
        { "port", required_argument, nullptr, 'p' },
        { "address", required_argument, nullptr, 'a' },
        { "tls", required_argument, nullptr, 't' },
        { "keepalive", required_argument, nullptr, 'k' },
        { "accept-ssh", required_argument, nullptr, 'S' },
        { "ssh-secret", required_argument, nullptr, 's' },
        { "ssh-user", required_argument, nullptr, 'u' },
        { "ssh-key", required_argument, nullptr, 'i' },
        { "help", no_argument, nullptr, 'h' },
        { nullptr, 0, nullptr, 0 },
    };
    struct options options;
    for (int option; (option = getopt_long(argc, argv, "h", names, nullptr)) != -1;) {
        switch (option) {
        case 'p':
            options.port = static_cast<uint16_t>(option_number(optarg, "--port wants 0 to 65535", UINT16_MAX));
            break;
        case 'a':
            options.address = optarg;
            break;
        case 't':
            options.certificate = optarg;
            break;
        case 'k':
            options.keepalive_s = option_number(optarg, "--keepalive wants a number of seconds", INT32_MAX);
            break;
        case 'S':
            options.accept_ssh = true;
            options.ssh_port =
                static_cast<uint16_t>(option_number(optarg, "--accept-ssh wants 0 to 65535", UINT16_MAX));
            break;
        case 's':
            options.ssh_secret = read_secret(optarg);
            break;
        case 'u':
            options.ssh_user = optarg;
            break;
        case 'i':
            options.ssh_key = optarg;
            break;
        case 'h':
            fputs(usage_text, stdout);
            exit(0);
        default:
            exit(EXIT_USAGE);   // getopt_long has said why
        }
    }
    if (optind < argc) usage_error("no such argument", argv[optind]);
    return options;
}

/* --- listening --------------------------------------------------------------------------------------------------- */

[[noreturn]] static void fail(const char *what, const char *reason)
{
    fprintf(stderr, "kelserver: %s: %s\n", what, reason);
    exit(1);
}

/* Any certificate that the router shows is taken, to be printed: this server checks nobody. */
static int take_any_certificate(int, X509_STORE_CTX *)
{
    return 1;
}

static SSL_CTX *tls_context(const char *certificate)
{
    SSL_CTX *ctx = SSL_CTX_new(TLS_server_method());
    if (!ctx) fail("TLS", "no memory");
    if (SSL_CTX_use_certificate_chain_file(ctx, certificate) <= 0 ||
        SSL_CTX_use_PrivateKey_file(ctx, certificate, SSL_FILETYPE_PEM) <= 0) {
        char text[256];
        ERR_error_string_n(ERR_get_error(), text, sizeof text);
        fail(certificate, text);
    }
    SSL_CTX_set_mode(ctx, SSL_MODE_ENABLE_PARTIAL_WRITE | SSL_MODE_ACCEPT_MOVING_WRITE_BUFFER);
    SSL_CTX_set_session_cache_mode(ctx, SSL_SESS_CACHE_OFF);
    SSL_CTX_set_verify(ctx, SSL_VERIFY_PEER, take_any_certificate);
    return ctx;
}

static std::string peer_name(const struct sockaddr_in &address)
{
    char text[INET_ADDRSTRLEN] = "?";
    inet_ntop(AF_INET, &address.sin_addr, text, sizeof text);
    return std::string(text) + ":" + std::to_string(ntohs(address.sin_port));
}

/* What is done with a connection that was accepted; it is taken. */
struct service {
    void (*accepted)(int fd, const std::string &peer);
};

static void accept_ready(evContext, void *uap, int fd, int)
{
    struct sockaddr_in address = {};
    socklen_t size = sizeof address;
    int on = 1;
    int client = accept4(fd, reinterpret_cast<struct sockaddr *>(&address), &size, SOCK_CLOEXEC);
    if (client < 0) {
        if (errno != EAGAIN && errno != ECONNABORTED) say(nullptr, "cannot accept: %s", strerror(errno));
        return;
    }
    // A frame goes out in three writes; without this each would wait for the acknowledgement of the one before.
    setsockopt(client, IPPROTO_TCP, TCP_NODELAY, &on, sizeof on);
    static_cast<const struct service *>(uap)->accepted(client, peer_name(address));
}

/* Listens; the port, which is one that the kernel chose if wanted is 0. */
static uint16_t listen_start(uint16_t wanted, struct service *service)
{
    const char *host = server.options.address;
    struct sockaddr_in address = {};
    socklen_t size = sizeof address;
    int on = 1;
    address.sin_family = AF_INET;
    address.sin_port = htons(wanted);
    if (inet_pton(AF_INET, host, &address.sin_addr) != 1)
        usage_error("--address wants an IPv4 address such as 127.0.0.1", host);

    int fd = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    if (fd < 0) fail("socket", strerror(errno));
    setsockopt(fd, SOL_SOCKET, SO_REUSEADDR, &on, sizeof on);
    struct sockaddr *generic = reinterpret_cast<struct sockaddr *>(&address);
    if (bind(fd, generic, sizeof address) < 0 || listen(fd, BACKLOG) < 0 || getsockname(fd, generic, &size) < 0)
        fail((std::string("cannot listen on ") + host + " port " + std::to_string(wanted)).c_str(), strerror(errno));
    if (evSelectFD(server.ev, fd, EV_READ, accept_ready, service, nullptr) < 0) fail("event loop", strerror(errno));
    return ntohs(address.sin_port);
}

static void services_start(void)
{
    static struct service beep = { connection_accept }, ssh = { outbound_accept };
    const struct options &options = server.options;
    uint16_t port = listen_start(options.port, &beep);
    say(nullptr, "listening on %s port %u%s", options.address, port, options.certificate ? " with TLS" : "");
    if (!options.accept_ssh) return;
    port = listen_start(options.ssh_port, &ssh);
    say(nullptr, "outbound SSH is taken on %s port %u%s", options.address, port,
        options.ssh_secret.empty() ? "; HMACs are not checked, no secret was given" : "");
}

/* --- the loop ---------------------------------------------------------------------------------------------------- */

static void stop_now(evContext, void *, const void *)
{
    server.stopping = true;
}

static void stop_signal(int)
{
    evDo(server.ev, reinterpret_cast<const void *>(stop_now));
}

int main(int argc, char **argv)
{
    if (argc == 2 && strcmp(argv[1], SSH_PROXY_OPTION) == 0) return ssh_pass_connection();
    server.options = read_options(argc, argv);
    signal(SIGPIPE, SIG_IGN);
    if (evCreate(&server.ev) < 0) fail("event loop", strerror(errno));
    if (server.options.certificate) server.tls = tls_context(server.options.certificate);
    if (evWaitFor(server.ev, reinterpret_cast<const void *>(stop_now), stop_now, nullptr, nullptr) < 0)
        fail("event loop", strerror(errno));
    signal(SIGINT, stop_signal);
    signal(SIGTERM, stop_signal);

    services_start();
    commands_start();
    while (!server.stopping)
        if (evTurn(server.ev, -1) < 0) fail("event loop", strerror(errno));

    connections_free();
    outbound_free_all();
    SSL_CTX_free(server.tls);
    evDestroy(server.ev);
    say(nullptr, "stopped");
    return 0;
}
