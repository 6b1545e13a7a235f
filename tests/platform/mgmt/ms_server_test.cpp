// Command server: lines to replies, and clients that do not behave. One server for all tests, on the test's own loop,
// whose clock only the test moves.
#include "platform/log/log.h"
#include "platform/mgmt/ms_server.h"
#include "platform/mgmt/xml_out.h"

#include <errno.h>
#include <filesystem>
#include <fstream>
#include <gtest/gtest.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <time.h>
#include <unistd.h>

using std::string;

static time_t clock_s = 1000;
static int accepts_to_fail, writes_to_take = -1, big_replies, logged;
static evContext ctx;

#pragma GCC diagnostic ignored "-Wmissing-declarations"   // of what is called by the linker's hand only
extern "C" {
int clock_gettime(clockid_t, struct timespec *now) noexcept
{
    *now = { clock_s, 0 };
    return 0;
}

decltype(accept4) __real_accept4;
int __wrap_accept4(int fd, struct sockaddr *address, socklen_t *size, int flags)
{
    errno = EMFILE;
    return accepts_to_fail-- > 0 ? -1 : __real_accept4(fd, address, size, flags);
}

decltype(mgmt_sock_write) __real_mgmt_sock_write;
ssize_t __wrap_mgmt_sock_write(struct mgmt_sock *msp, const void *data, size_t length, int flags)
{
    return writes_to_take-- == 0 ? -1 : __real_mgmt_sock_write(msp, data, length, flags);
}
}

static const struct odl_tag tag = { "number", ODL_NUMBER };

static int say_number(struct mgmt_sock *msp, const struct menu_row *row)
{
    return xml_send_all(msp, &tag, XML_ESCAPE, "%d", row->mn_argument);
}

static int say_much(struct mgmt_sock *msp, const struct menu_row *)
{
    big_replies++;
    for (int i = 0; i < 2000; i++) (void)xml_send_all(msp, &tag, XML_ESCAPE, "%s", string(1000, 'x').c_str());
    return 0;
}

static const struct menu_row things[] = {
    { "one", nullptr, 1, nullptr, say_number }, { "once", nullptr, 2, nullptr, say_number },
    { "on", nullptr, 3, nullptr, say_number }, { "much", nullptr, 0, nullptr, say_much }, {},
};
static const struct menu_row menu[] = {
    { "show", "things", 0, things, nullptr }, { "stop", nullptr, 4, nullptr, say_number }, {},
};

/* A socket at the server's address, by bind or connect. */
static int socket_by(int (*call)(int, const struct sockaddr *, socklen_t))
{
    struct sockaddr_un address;
    EXPECT_EQ(mgmt_sock_address(&address, "/var/run/test.sock"), 0);
    int fd = socket(AF_UNIX, SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0);
    EXPECT_EQ(call(fd, reinterpret_cast<struct sockaddr *>(&address), sizeof address), 0);
    return fd;
}

static auto descriptors()
{
    return std::distance(std::filesystem::directory_iterator("/proc/self/fd"), {});
}

class server : public testing::Test {
protected:
    static void SetUpTestSuite()
    {
        char root[] = "/tmp/keld-ms-XXXXXX";
        setenv("KELD_ROOT", mkdtemp(root), 1);
        std::filesystem::path path = string(root) + "/var/run/test.sock";
        std::filesystem::create_directories(path.parent_path());
        logging_register_logfunc([](int, const char *, const char *const *, const char *, va_list) { logged++; });
        logging_set_mode(LOGGING_MODE_DAEMON);
        ASSERT_EQ(evCreate(&ctx), 0);
        xml_set_send_method(ms_peer_send_line);
        xml_set_get_method(mgmt_sock_get_xml);
        xml_set_eof_method([](struct mgmt_sock *msp) { return int(msp->ms_fbp->fb_flags & FBUF_EOF); });
        // Somebody's file stays; a socket that nobody serves any more gives way.
        std::ofstream(path) << "precious";
        EXPECT_EQ(ms_init(ctx, "test", menu, 0), -1);
        EXPECT_EQ(logged, 1);
        ASSERT_TRUE(std::filesystem::is_regular_file(path));
        std::filesystem::remove(path);
        close(socket_by(bind));
        ASSERT_EQ(ms_init(ctx, "test", menu, 0), 0);
        EXPECT_EQ(std::filesystem::status(path).permissions(), std::filesystem::perms{ 0600 });
    }
    static void TearDownTestSuite() { std::filesystem::remove_all(getenv("KELD_ROOT")); }
    /* All clients go; none has left anything. */
    void TearDown() override
    {
        for (int fd : clients) close(fd);
        clients.clear();
        turns();
        EXPECT_EQ(descriptors(), before);
    }

    static void turns()
    {
        for (int idle = 0; idle < 3;) idle = evTurn(ctx, 0) > 0 ? 0 : idle + 1;
    }
    int client()
    {
        clients.push_back(socket_by(connect));
        turns();
        return clients.back();
    }
    static void type(int fd, const string &text)
    {
        for (size_t at = 0; at < text.size(); turns()) {
            ssize_t put = send(fd, text.data() + at, text.size() - at, MSG_NOSIGNAL);
            ASSERT_TRUE(put > 0 || errno == EAGAIN) << strerror(errno);
            at += put > 0 ? static_cast<size_t>(put) : 0;
        }
    }
    /* All that comes now, after typing text; "(end)" stands for the end of the stream. */
    static string heard(int fd, const string &text = "")
    {
        type(fd, text);
        string all;
        ssize_t got;
        for (char piece[65536]; turns(), (got = read(fd, piece, sizeof piece)) > 0;)
            all.append(piece, static_cast<size_t>(got));
        return all + (got < 0 && errno == EAGAIN ? "" : "(end)");
    }
    std::vector<int> clients;
    decltype(descriptors()) before = descriptors();
};

static string number(int value)
{
    return "<rpc-reply>\n<number>" + std::to_string(value) + "</number>\n</rpc-reply>\n";
}

static string error(const string &word, const string &message)
{
    return "<rpc-reply>\n<rpc-error>\n<bad-element>" + word + "</bad-element>\n<message>" + message +
           "</message>\n</rpc-error>\n</rpc-reply>\n";
}

TEST_F(server, every_line_has_a_reply)
{
    const string too_long = "command longer than 4096 octets, expected a shorter one";
    const struct { string line, reply; } rows[] = {
        { "\t sh  o\tmuc x", error("o", "ambiguous word 'o' behind 'sh', expected one, once or on") },
        { " sh on \r", number(3) },   // whole, though others begin with it
        { "", error("", "incomplete command '', expected show or stop") },
        { "stop it now", error("it", "unknown word 'it' behind 'stop', expected nothing more") },
        { "<&\"\x01\xff>",
          error("&lt;&amp;&quot;??&gt;", "unknown word '&lt;&amp;&quot;??&gt;', expected show or stop") },
        { string("stop\0x", 6), number(4) },
        { string(4096 - 4, ' ') + "stop", number(4) },
        { string(4097 - 4, ' ') + "stop", error(string(60, ' '), too_long) },
        { string(1 << 20, 'y') + " show one", error(string(60, 'y'), too_long) },
    };
    int fd = client();
    for (const auto &row : rows)
        EXPECT_EQ(heard(fd, row.line + "\nst\n"), row.reply + number(4)) << row.line.substr(0, 100);
    type(fd, "stop");   // without its end a line is none
    shutdown(fd, SHUT_WR);
    EXPECT_EQ(heard(fd), "(end)");
}

TEST_F(server, who_does_not_read_holds_up_nobody)
{
    int deaf = client();
    for (int i = 0; i < 20; i++) type(deaf, "show much\n");
    EXPECT_EQ(big_replies, 1);   // the next one is made when this one is gone
    EXPECT_EQ(heard(client(), "stop\n"), number(4));
    EXPECT_EQ(heard(deaf).size(), 20u * (2000 * (1000 + 18) + 25));
    type(deaf, "show much\n");   // and it goes in the middle of this one
}

TEST_F(server, many_come_and_go)
{
    for (int round = 0; round < 40; round++, TearDown())
        for (const char *text : { "", "show", "stop\nshow on", "show much\n", "\n" }) type(client(), text);
    // A full table refuses who comes next, until somebody has been idle for too long.
    for (int i = 0; i < MS_CLIENTS_MAX; i++, clock_s++) (void)client();
    EXPECT_EQ(heard(clients[0], "stop\n"), number(4));
    EXPECT_EQ(heard(client()), error("", "too many clients, end one or try again in a minute") + "(end)");
    clock_s += MS_IDLE_S - MS_CLIENTS_MAX + 1;
    EXPECT_EQ(heard(client(), "stop\n"), number(4));
    EXPECT_EQ(heard(clients[1]), "(end)");
    EXPECT_EQ(heard(clients[0]), "");
}

TEST_F(server, runs_out_of_descriptors_and_of_memory)
{
    logged = 0;
    accepts_to_fail = 1;
    int fd = client();
    EXPECT_EQ(heard(fd, "stop\n"), "");
    EXPECT_EQ(logged, 1);
    clock_s++;
    EXPECT_EQ(heard(fd), number(4));
    writes_to_take = 3;   // no reply is better than half a reply
    EXPECT_EQ(heard(fd, "stop\n"), "(end)");
}

TEST(xml, content_is_bounded)
{
    static string line;
    xml_set_send_method([](struct mgmt_sock *, const char *text) { line = text; return 0; });
    EXPECT_EQ(xml_send_all(nullptr, &tag, XML_ESCAPE, "%s", string(5000, '"').c_str()), 0);
    EXPECT_EQ(line.size(), 6u * XML_TEXT_MAX + 17);
    xml_send_open(nullptr, &tag, 0, xml_attr_xmlns(string(300, '&').c_str()), 0);
    for (int i = 0; i < 10; i++) xml_jxo_data(nullptr, XML_ESCAPE, "%s", string(XML_TEXT_MAX, 'x').c_str());
    xml_send_close(nullptr, &tag, XML_NEWLINE);
    EXPECT_TRUE(line.ends_with("x</number>")) << line;
}
