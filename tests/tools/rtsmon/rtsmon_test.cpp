/*
 * rtsmon: what it prints of changes to the model, and of those of Linux in a network namespace of the test's own.
 */
#include "platform/rtsock/model/rtsock_model.h"

#include <fnmatch.h>
#include <gtest/gtest.h>
#include <sched.h>
#include <stdio.h>
#include <stdlib.h>
#include <string>
#include <sys/wait.h>
#include <unistd.h>
#include <vector>

int rtsmon_main(int argc, char **argv);   // the program's main

static std::string output_of(const std::string &command, int *status)
{
    std::string text;
    FILE *pipe = popen((command + " 2>&1").c_str(), "r");
    if (pipe == nullptr) return text;
    char line[4096];
    while (fgets(line, sizeof line, pipe) != nullptr) text += line;
    int wait = pclose(pipe);
    *status = WIFEXITED(wait) ? WEXITSTATUS(wait) : -1;
    return text;
}

static const std::string program = std::string("timeout 20 ") + getenv("KELD_BIN") + "/rtsmon ";
static constexpr char objects[] = "table blue index 5 family inet\ndevice ge-0/0/0 index 7\nunit ge-0/0/0.3 index 70\n"
                                  "family 70 inet\naddress 70 inet 10.1.1.1/24\nbad\n"
                                  "nexthop 512 family inet type ucst\nroute blue inet 10.0.0.0/8 type user nexthop 512\n";

TEST(Rtsmon, PrintsWhatChangesInTheModel)
{
    static const struct {
        const char *arguments;
        int status;
        const char *output;   // '*': anything
    } runs[] = {
        { "", 0, "add rttable tid 5 af 2*name blue*\nadd ifdev *ge-0/0/0*\nadd iflogical *ifl_idx 70*unit 3*\n"
                 "add iffamily *\nadd ifaddr *\nrtsmon: *bad*\nadd route tid 5 af 2 *nhidx 512*prefix 10.0.0.0/8*\n" },
        { "route table", 0, "add rttable *\nrtsmon: *bad*\nadd route *\n" },
        { "--json route", 0, "rtsmon: *\n{\"type\":\"route\",\"op\":\"add\",\"seq\":*,\"tid\":5,\"af\":2,*"
                             "\"prefix\":\"10.0.0.0/8\"*}\n" },
        { "--filter 'tid == 5 && type == 2'", 0, "rtsmon: *bad*\nadd route *\n" },
        { "--count 1 --brief", 0, "*rttable*add*\n" },
        { "--filter 'tid =='", 1, "*rtsmon: the filter is refused*" },
        { "--count", 2, "rtsmon: --count needs a value; see rtsmon --help\n" },
        { "--count x", 2, "rtsmon: --count does not take 'x'; see rtsmon --help\n" },
        { "router", 2, "rtsmon: 'router' is neither an option nor a class; see rtsmon --help\n" },
        { "--load nowhere", 1, "rtsmon: nowhere: *\n" },
    };
    for (const auto &run : runs) {
        int status = -1;
        std::string command = "printf '" + std::string(objects) + "' | " + program + "--kernel model " + run.arguments;
        std::string output = output_of(command, &status);
        EXPECT_EQ(status, run.status) << run.arguments;
        EXPECT_EQ(fnmatch(run.output, output.c_str(), 0), 0) << run.arguments << "\n" << output;
    }
}

/* Raw messages of types that have records. The model sends all so, to a monitor in a child of this process. */
TEST(Rtsmon, TellsRawMessagesByTheirHeaders)
{
    static const char input[] = "table blue index 5 family inet\ndevice ge-0/0/0 index 7\n";
    static const char lines[] = "add rttable raw * octets\nadd ifdev raw * octets\n";
    static const struct {
        std::string form;
        const char *output;
    } runs[] = { { "table", lines }, { "--brief", lines }, { "--full", lines },
                 { "--json", "{\"type\":\"rttable\",\"op\":\"add\",\"seq\":*,\"raw\":*}\n{\"type\":\"ifdev\"*}\n" } };
    for (const auto &run : runs) {
        std::string words[] = { "rtsmon", "--kernel", "model", "table", "device", run.form };
        std::vector<char *> arguments;
        for (std::string &word : words) arguments.push_back(word.data());
        int in[2], out[2], status = -1;
        ASSERT_TRUE(pipe(in) == 0 && pipe(out) == 0);
        EXPECT_EQ(write(in[1], input, sizeof input - 1), ssize_t(sizeof input - 1));
        fflush(stdout);
        pid_t child = fork();
        if (child == 0) {
            dup2(in[0], STDIN_FILENO), dup2(out[1], STDOUT_FILENO), close(in[1]);
            rtsock_model_form(RK_FORM_RAW);
            status = rtsmon_main(int(arguments.size()), arguments.data());
            fflush(stdout);
            _exit(status);
        }
        close(in[0]), close(in[1]), close(out[1]);
        char text[4096] = "";
        for (ssize_t at = 0, n; (n = read(out[0], text + at, sizeof text - 1 - size_t(at))) > 0;) at += n;
        close(out[0]);
        waitpid(child, &status, 0);
        EXPECT_EQ(status, 0);
        EXPECT_EQ(fnmatch(run.output, text, 0), 0) << text;
    }
}

TEST(Rtsmon, PrintsWhatChangesOnLinux)
{
    if (unshare(CLONE_NEWNET) != 0) GTEST_SKIP() << "network namespaces are not permitted here";
    int status = -1;
    // The changes begin once rtsmon has said, by its first line, that it listens.
    std::string output = output_of(
        "ip link set lo up; (while ! ip route add blackhole 10.1.0.0/16; do :; done;"
        " for i in 1 2 3 4 5 6 7 8 9 10; do sleep 0.1; ip route replace blackhole 10.2.0.0/16;"
        " ip route replace 10.2.0.0/16 dev lo; done;"
        " ip link add va type veth peer name vb; ip address add 192.0.2.1/24 dev va; ip link set va up;"
        " ip route add 10.3.0.0/16 dev va table 100; ip link del va) & " + program + "--count 70 --json & "
        "sleep 3; kill $! 2>/dev/null; wait", &status);
    for (const char *part : { "\"type\":\"route\",\"op\":\"change\"", "\"prefix\":\"10.2.0.0/16\"",
                              "\"type\":\"ifdev\",\"op\":\"add\"", "\"type\":\"ifaddr\",\"op\":\"add\"", "\"local\":\"192.0.2.1/32\"",
                              "\"prefix\":\"10.3.0.0/16\"", "\"type\":\"ifdev\",\"op\":\"delete\"" })
        EXPECT_NE(output.find(part), std::string::npos) << part << "\n" << output;
}
