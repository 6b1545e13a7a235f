/*
 * Both clocks of the C library are replaced for the whole program, so that the loop's time and the daemon's time of day
 * go together. Failing calls are put in by the linker.
 */
#include "tests/usr.sbin/keld/main/core_fixture.h"

#include <errno.h>
#include <filesystem>
#include <fstream>
#include <sys/socket.h>

enum { EPOCH_S = 1700000000, TURNS_MAX = 1000 };
static int clock_s = 1000;
int failing;

#pragma GCC diagnostic ignored "-Wmissing-declarations"   // of what is called by the linker's hand only
#pragma GCC diagnostic ignored "-Wformat-nonliteral"       // of what is logged
extern "C" {

int clock_gettime(clockid_t, struct timespec *now) noexcept
{
    *now = { clock_s, 0 };
    return 0;
}

time_t time(time_t *now) noexcept
{
    time_t result = EPOCH_S + clock_s;
    if (now) *now = result;
    return result;
}

static bool fails(int call)
{
    errno = failing & call ? ENOMEM : errno;
    return failing & call;
}

decltype(socket) __real_socket;
int __wrap_socket(int domain, int type, int protocol)
{
    return domain == AF_INET && fails(FAIL_SOCKET) ? -1 : __real_socket(domain, type, protocol);
}

decltype(bind) __real_bind;
int __wrap_bind(int fd, const struct sockaddr *address, socklen_t size)
{
    return fails(FAIL_BIND) ? -1 : __real_bind(fd, address, size);
}

decltype(evConnect) __real_evConnect;
int __wrap_evConnect(evContext ctx, int fd, const void *address, int size, evConnFunc func, void *uap, evConnID *id)
{
    return fails(FAIL_CONNECT) ? -1 : __real_evConnect(ctx, fd, address, size, func, uap, id);
}

decltype(evSetTimer) __real_evSetTimer;
int __wrap_evSetTimer(evContext ctx, evTimerFunc func, void *uap, struct ev_timespec due, struct ev_timespec inter,
                      evTimerID *id)
{
    return func == keepalive_cb && fails(FAIL_KEEPALIVE_TIMER) ? -1 : __real_evSetTimer(ctx, func, uap, due, inter, id);
}

decltype(beep_session_new) __real_beep_session_new;
struct beep_session *__wrap_beep_session_new(int fd, evContext ctx, char role, const struct beep_profile *rows,
                                             uint16_t count, beep_read_fn reader, beep_write_fn writer, void *transport)
{
    if (fails(FAIL_SESSION)) return nullptr;
    return __real_beep_session_new(fd, ctx, role, rows, count, reader, writer, transport);
}

decltype(SSL_connect) __real_SSL_connect;
int __wrap_SSL_connect(SSL *ssl)
{
    return fails(FAIL_HANDSHAKE) ? 0 : __real_SSL_connect(ssl);
}

}   // extern "C"

static std::string lines;   // logged since SetUp

static void catch_line(int severity, const char *, const char *const *, const char *format, va_list args)
{
    char text[512];
    (void)vsnprintf(text, sizeof text, format, args);
    lines += std::to_string(severity) + " " + text + "\n";
}

void core::SetUp()
{
    char name[] = "/tmp/keld-core-XXXXXX";
    root = mkdtemp(name);
    std::filesystem::create_directories(root + "/var/etc");
    setenv("KELD_ROOT", root.c_str(), 1);
    logging_register_logfunc(catch_line);
    logging_set_mode(LOGGING_MODE_DAEMON);
    ASSERT_EQ(evCreate(&keld_evctx), 0);
    sighup_job(keld_evctx, nullptr, nullptr);   // finds nothing to read, and waits from here on
    lines.clear();
    peer_listen(server);
}

void core::TearDown()
{
    if (keld_sp) clean_up_session();
    else if (keld_fd >= 0) keld_close_socket();
    evDestroy(keld_evctx);
    keld_conn_id = nullptr;
    keld_retry_id = keld_keepalive_id = nullptr;
    keld_config_free(&current_config);
    current_server = {};
    for (struct str_array **list : { &ifl_added, &ifl_changed, &ifl_deleted, &ifl_current }) {
        str_array_free(*list);
        *list = nullptr;
    }
    failing = 0;
    (void)redirect_get_and_reset(&current_server);
    if (HasFailure()) fputs(lines.c_str(), stderr);
    std::filesystem::remove_all(root);
}

void core::restart()
{
    TearDown();
    peer_hang_up(server);
    close(server.listen_fd);
    server = {};
    SetUp();
}

void core::configure(std::string servers, const std::string &more)
{
    for (size_t at; (at = servers.find("PORT")) != std::string::npos;)
        servers.replace(at, 4, "port " + std::to_string(server.port));
    std::ofstream(root + "/var/etc/keld.conf")
        << "system { services { service-deployment { " << more << " servers { " << servers << " } } } }\n";
}

void core::start(const std::string &servers, const std::string &more)
{
    configure(servers, more);
    ASSERT_EQ(keld_config(0, &current_config), 0);
    keld_arm_retry(keld_evctx, KELD_FIRST_DELAY_S);
    turns();
}

void core::reload()
{
    (void)evDo(keld_evctx, reinterpret_cast<const void *>(sighup_job));
    turns();
}

void core::turns()
{
    int left = TURNS_MAX;
    for (int idle = 0; idle < 3 && left > 0; left--) idle = evTurn(keld_evctx, 1) > 0 ? 0 : idle + 1;
    EXPECT_GT(left, 0) << "the loop never comes to rest";
}

void core::pass(int seconds)
{
    while (seconds-- > 0) {
        clock_s++;
        turns();
    }
}

void core::answer(const char *type, unsigned channel, unsigned msgno, const std::string &payload)
{
    peer_frame(server, type, channel, msgno, payload);
    turns();
}

void core::greet()
{
    ASSERT_TRUE(peer_accept(server));
    answer("RPY", 0, 0, "<greeting></greeting>");
    ASSERT_EQ(heard("<start number='1'>"), 1u) << server.received;
}

void core::confirm(const char *piggyback)
{
    answer("RPY", 0, 1, std::string("<profile uri='" TKEL_PROFILE_URI "'><![CDATA[") + piggyback + "]]></profile>");
}

static size_t occurrences(const std::string &in, const std::string &text)
{
    size_t times = 0;
    for (size_t at = 0; (at = in.find(text, at)) != std::string::npos; at++) times++;
    return times;
}

size_t core::heard(const std::string &text)
{
    char octets[4096];
    ssize_t count;
    while ((count = recv(server.fd, octets, sizeof octets, MSG_DONTWAIT)) > 0)
        server.received.append(octets, static_cast<size_t>(count));
    return occurrences(server.received, text);
}

size_t core::logged(const std::string &text) const
{
    return occurrences(lines, text);
}
