// keldctl show: against the daemon, against others that answer on its socket, and its completion.
#include "tests/support/router.h"

#include <gtest/gtest.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <thread>
#include <unistd.h>

using std::string;

static string show(struct router &router, const std::vector<string> &words, int status)
{
    std::vector<string> arguments = { "show" };
    arguments.insert(arguments.end(), words.begin(), words.end());
    string output;
    EXPECT_EQ(router_run(router, "keldctl", arguments, &output), status) << output;
    return output;
}

TEST(keldctl_show, the_daemons_state)
{
    struct router router;
    const std::vector<string> state = { "sys", "serv", "service-deployment" };
    EXPECT_EQ(show(router, state, 1), "keldctl: keld is not running, start it with: keld\n");

    struct kelserver server = kelserver_start(router);
    router_configure(router, "servers { 127.0.0.1 { port " + server.port + "; } }");
    struct process keld = router_start(router, "keld", { "-N" });
    string document;
    ASSERT_TRUE(within_s(LIMIT_S, [&] {
        (void)router_run(router, "keldctl", { "show", "--xml", "system", "services", "service-deployment" }, &document);
        return document.find("<peer-information>") != string::npos;
    })) << document;
    EXPECT_TRUE(document.starts_with("<kel-information xmlns=") && document.ends_with("</kel-information>\n"));
    string text = show(router, state, 0);
    string start = "Connection\n  State             connected\n  Address           127.0.0.1\n  Port              " +
                   server.port + "\n  Since             ";
    EXPECT_EQ(text.substr(0, start.size()), start);
    EXPECT_NE(text.find("\nServer last heard\n  Last              00:00:0"), string::npos) << text;
    EXPECT_NE(show(router, { "version", "brief" }, 0).find(" " KELD_RELEASE "\n"), string::npos);
    EXPECT_EQ(show(router, { "v", "<&>" }, 1),
              "keldctl: unknown word '<&>' behind 'show v', expected brief, detail or extensive\n");
    EXPECT_EQ(show(router, { "v\nb" }, 1), "keldctl: a word holds a line end, try keldctl --help\n");

    unlink((router.root + "/var/run/keld.sock").c_str());
    EXPECT_EQ(show(router, state, 1), "keldctl: keld runs but does not listen on /var/run/keld.sock, see its log for "
                                      "the reason and restart it\n");
    EXPECT_EQ(router_stop(router, keld), 0);
}

TEST(keldctl_show, answers_that_are_none)
{
    const struct { string answer; int status; string prints; } rows[] = {
        { "<rpc-reply>\n<a>", 1, "keldctl: keld broke off its answer (Connection reset by peer), try again\n" },
        { "hello\n</rpc-reply>\n", 1, "keldctl: keld broke off its answer (Protocol error), try again\n" },
        { "<rpc-reply>\n<rpc-error>\n</rpc-error>\n</rpc-reply>\n", 1,
          "keldctl: keld refused the command, try keldctl --help\n" },
        { "<rpc-reply>\n</a>\n<\n>\n<>\n</>\nx\n<b c=\"1\">d&lt;</b>\n<e>\n<f/>\n<g-h>\n"
          "<long-long-long-long-name>1</i>\n</rpc-reply>\n", 0,
          "B                   d<\nF\nG h\n  Long long long long name 1\n" },
    };
    for (const auto &row : rows) {
        struct router router;
        struct sockaddr_un address = { AF_UNIX, {} };
        (router.root + "/var/run/keld.sock").copy(address.sun_path, sizeof address.sun_path - 1);
        int listener = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
        ASSERT_EQ(bind(listener, reinterpret_cast<struct sockaddr *>(&address), sizeof address), 0);
        ASSERT_EQ(listen(listener, 1), 0);
        std::thread daemon([&] {
            int fd = accept(listener, nullptr, nullptr);
            char line[100];
            (void)!read(fd, line, sizeof line);
            (void)!write(fd, row.answer.data(), row.answer.size());
            close(fd);
        });
        EXPECT_EQ(show(router, { "x" }, row.status), row.prints);
        daemon.join();
        close(listener);
    }
}

/* What a command of the shell prints. */
static string shell(const string &command, int status)
{
    FILE *pipe = popen((command + " 2>&1").c_str(), "r");
    char text[2000] = "";
    (void)!fread(text, 1, sizeof text - 1, pipe);
    EXPECT_EQ(pclose(pipe), status << 8) << command;
    return text;
}

TEST(keldctl_shell, command_line)
{
    const struct { string arguments; int status; string text; } rows[] = {
        { "", 1, "keldctl: no command, try keldctl --help\n" },
        { "comit x", 1, "keldctl: unknown command 'comit', try keldctl --help\n" },
        { "commit", 1, "keldctl: commit needs a FILE, try keldctl --help\n" },
        { "check a b", 1, "keldctl: check does not take 'b', try keldctl --help\n" },
        { "check /none", 1, "keldctl: cannot read /none: No such file or directory\n" },
        { "version", 0, KELD_RELEASE },
        { "check -h", 0, "usage: keldctl check" },
    };
    for (const auto &row : rows) {
        string text = shell("$KELD_BIN/keldctl " + row.arguments, row.status);
        EXPECT_TRUE(row.status ? text == row.text : text.find(row.text) != string::npos) << text;
    }
}

TEST(keldctl_shell, completion)
{
    const struct { string typed, offers; } rows[] = {   // the last word is being typed
        { "''", "check commit show version --help" },
        { "show ''", "version system" },
        { "show --xml v ''", "brief detail extensive" },
        { "show sys serv s", "service-deployment" },
        { "shaw ''", "" },
        { "commit CMakeL", "CMakeLists.txt" },
    };
    const string complete = "cd $KELD_SOURCE && bash -c 'source tools/keldctl/keldctl.bash; COMP_WORDS=(keldctl "
                            "\"$@\"); COMP_CWORD=$#; _keldctl; echo \"${COMPREPLY[*]}\"' x ";
    for (const auto &row : rows) EXPECT_EQ(shell(complete + row.typed, 0), row.offers + "\n") << row.typed;
}
