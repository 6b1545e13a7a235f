/*
 * Router: processes, files and waits of a router under test; router.h tells what for.
 *
 * The child's streams: standard input is a pipe that the test holds open (so that no program sees its end by chance),
 * both outputs go to one file in the root, in the order in which they were written.
 */
#include "tests/support/router.h"

#include <fcntl.h>
#include <filesystem>
#include <fstream>
#include <gtest/gtest.h>
#include <poll.h>
#include <stdlib.h>
#include <sys/wait.h>
#include <time.h>
#include <unistd.h>

enum { POLL_MS = 5 };

bool within_s(int limit_s, const std::function<bool()> &state)
{
    time_t end = time(nullptr) + limit_s + 1;
    while (!state()) {
        if (time(nullptr) > end) return false;
        poll(nullptr, 0, POLL_MS);
    }
    return true;
}

router::router()
{
    char name[] = "/tmp/keld-router-XXXXXX";
    root = mkdtemp(name) ? name : "";
    for (const char *folder : { "/var/run", "/var/log", "/var/etc/ssl/local" })
        std::filesystem::create_directories(root + folder);
}

router::~router()
{
    while (!started.empty()) router_stop(*this, started.back(), SIGKILL);
    if (testing::Test::HasFailure())
        for (const auto &entry : std::filesystem::recursive_directory_iterator(root))
            if (entry.path().extension() == ".out" || entry.path().parent_path().filename() == "log")
                fprintf(stderr, "--- %s\n%s", entry.path().c_str(), file_read(entry.path()).c_str());
    std::filesystem::remove_all(root);
}

std::string file_read(const std::string &path)
{
    std::ifstream file(path, std::ios::binary);
    return { std::istreambuf_iterator<char>(file), {} };
}

void router_write(const struct router &router, const std::string &path, const std::string &text)
{
    std::filesystem::path whole = router.root + path;
    std::filesystem::create_directories(whole.parent_path());
    std::ofstream(whole, std::ios::binary) << text;
}

void router_configure(const struct router &router, const std::string &stanza, const std::string &rest)
{
    router_write(router, "/var/etc/keld.conf",
                 "system { services { service-deployment {\n" + stanza + "\ntraceoptions { flag all; }\n} } }\n" +
                     rest);
}

[[noreturn]] static void become(const struct router &router, const std::string &name,
                                const std::vector<std::string> &arguments, int input, int output)
{
    std::string program = std::string(getenv("KELD_BIN")) + "/" + name;
    std::vector<char *> argv = { program.data() };
    for (const std::string &argument : arguments) argv.push_back(const_cast<char *>(argument.c_str()));
    argv.push_back(nullptr);
    setenv("KELD_ROOT", router.root.c_str(), 1);
    dup2(input, STDIN_FILENO);
    dup2(output, STDOUT_FILENO);
    dup2(output, STDERR_FILENO);
    execv(program.c_str(), argv.data());
    _exit(127);
}

struct process router_start(struct router &router, const std::string &name, const std::vector<std::string> &arguments)
{
    static unsigned count;
    struct process process;
    int ends[2];
    process.output_path = router.root + "/" + name + "-" + std::to_string(++count) + ".out";
    int output = open(process.output_path.c_str(), O_WRONLY | O_CREAT | O_APPEND | O_CLOEXEC, 0600);
    if (output < 0 || pipe2(ends, O_CLOEXEC) < 0) {
        ADD_FAILURE() << "cannot start " << name;
        return process;
    }
    process.input = ends[1];
    process.pid = fork();
    if (process.pid == 0) become(router, name, arguments, ends[0], output);
    close(ends[0]);
    close(output);
    router.started.push_back(process);
    return process;
}

int router_stop(struct router &router, const struct process &process, int signal_number)
{
    int status = 0;
    if (signal_number) kill(process.pid, signal_number);
    bool ended = within_s(LIMIT_S, [&] { return waitpid(process.pid, &status, WNOHANG) == process.pid; });
    EXPECT_TRUE(ended) << process.output_path << " does not end";
    if (!ended && kill(process.pid, SIGKILL) == 0) waitpid(process.pid, &status, 0);
    close(process.input);
    pid_t pid = process.pid;   // process may be the entry that is erased
    std::erase_if(router.started, [pid](const struct process &entry) { return entry.pid == pid; });
    return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
}

int router_run(struct router &router, const std::string &name, const std::vector<std::string> &arguments,
               std::string *output)
{
    struct process process = router_start(router, name, arguments);
    int status = router_stop(router, process, 0);
    if (output) *output = file_read(process.output_path);
    return status;
}

static bool file_gets(const std::string &path, const std::string &text)
{
    return within_s(LIMIT_S, [&] { return file_read(path).find(text) != std::string::npos; });
}

bool printed(const struct process &process, const std::string &text) { return file_gets(process.output_path, text); }

bool logged(const struct router &router, const std::string &text)
{
    return file_gets(router.root + "/var/log/messages", text);
}

bool traced(const struct router &router, const std::string &text)
{
    return file_gets(router.root + "/var/log/keld", text);
}

void type_line(const struct process &process, const std::string &line)
{
    std::string text = line + "\n";
    EXPECT_EQ(write(process.input, text.data(), text.size()), static_cast<ssize_t>(text.size()));
}

struct kelserver kelserver_start(struct router &router, const std::vector<std::string> &options)
{
    std::vector<std::string> arguments = { "--port", "0", "--address", "127.0.0.1" };
    arguments.insert(arguments.end(), options.begin(), options.end());
    struct kelserver server = { router_start(router, "kelserver", arguments), "" };
    static const std::string before = "listening on 127.0.0.1 port ";
    EXPECT_TRUE(printed(server.process, before));
    std::string text = file_read(server.process.output_path);
    size_t at = text.find(before);
    if (at != std::string::npos) server.port = std::to_string(atoi(text.c_str() + at + before.size()));
    return server;
}
