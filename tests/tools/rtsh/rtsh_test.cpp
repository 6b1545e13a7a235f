/*
 * rtsh: what a person types and sees, in runs of the program on a model filled from model.txt.
 */
#include <fnmatch.h>
#include <gtest/gtest.h>
#include <stdio.h>
#include <stdlib.h>
#include <string>
#include <sys/wait.h>

static const struct {
    const char *arguments, *input;
    int status;
    const char *output;   // '*': anything
} runs[] = {
    // objects
    { "table", "", 0,
      "default index 0 family inet\ninet.0 index 4 family inet\nblue index 5 family inet tenant 9\n" },
    { "--family inet6 table list", "", 0, "default index 0 family inet6\ninet6.0 index 4 family inet6\n" },
    { "-", "table blue\ntable index 4\ntable 5", 0,
      "blue index 5 family inet tenant 9\ninet.0 index 4 family inet\nblue index 5 family inet tenant 9\n" },
    { "route list table inet.0", "", 0,
      "0.0.0.0/0 type user nexthop 512 table inet.0 ack 2\n10.0.0.0/8 type user nexthop 512 table inet.0 ack 3\n"
      "10.64.0.0/10 type intf nexthop 513 table inet.0 ack 4\n" },
    { "-", "route list\nroute list --family inet6 table 4", 0,
      "192.0.2.0/24 type perm nexthop 513 table default ack 1\n"
      "2001:db8::/32 type user nexthop 514 table inet6.0 ack 5\n" },
    { "route get 10.0.0.0/8 table blue", "", 0, "10.0.0.0/8 type user nexthop 513 table blue ack 6\n" },
    { "route match 10.70.0.1 table inet.0", "", 0, "10.64.0.0/10 type intf nexthop 513 table inet.0\n" },
    { "nexthop list", "", 0,
      "512 family inet type ucst interface 70 address 10.1.1.1 references 2\n"
      "513 family inet type rjct references 3\n"
      "514 family inet6 type ucst interface 70 address 2001:db8::1 references 1\n" },
    { "--family inet6 nexthop list", "", 0,
      "514 family inet6 type ucst interface 70 address 2001:db8::1 references 1\n" },
    { "--brief route get 10.0.0.0/8 table blue", "", 0, "*route*get*10/8*\n" },
    // changes live from line to line
    { "-", "route add 172.16.0.0/12 table blue nexthop 512\nroute get 172.16.0.0/12 table 5 # there\n\n"
           "route delete 172.16.0.0/12 table blue\nroute get 172.16.0.0/12 table blue", 1,
      "172.16.0.0/12 type user nexthop 512 table blue ack 7\n172.16.0.0/12 type user nexthop 512 table blue ack 7\n"
      "rtsh: line 5: route get 172.16.0.0/12 table blue: ENOENT (2): no such object\n" },
    { "-", "route add 2001:db8:1::/48 via 2001:db8::9 table inet6.0 type 5\nroute get 2001:db8:1::/48 table inet6.0\n"
           "nexthop get 1\nroute delete 2001:db8:1::/48 table inet6.0 type 5\nnexthop get 1", 1,
      "2001:db8:1::/48 type perm nexthop 1 table inet6.0 ack 7\n"
      "2001:db8:1::/48 type perm nexthop 1 table inet6.0 ack 7\n"
      "1 family inet6 type ucst address 2001:db8::9 references 1\n"
      "rtsh: line 5: nexthop get 1: ENOENT (2): no such object\n" },
    { "-", "nexthop delete 512\nroute delete 0.0.0.0/0 table inet.0\nroute delete 10.0.0.0/8 table inet.0\n"
           "nexthop delete 512\nnexthop get 512", 1,
      "rtsh: line 1: nexthop delete 512: EBUSY (16): the object is in use\n"
      "rtsh: line 5: nexthop get 512: ENOENT (2): no such object\n" },
    // what the kernel refuses
    { "route get 10.9.0.0/16", "", 1, "rtsh: route get 10.9.0.0/16: ENOENT (2): no such object\n" },
    { "route get 10.9.0.0/16 table green", "", 1, "rtsh: table green: ENOENT (2): no such object\n" },
    { "route add 10.0.0.0/8 table blue nexthop 512", "", 1,
      "rtsh: route add 10.0.0.0/8 table blue nexthop 512: EEXIST (17): the object exists already\n" },
    { "route get 10.0.0.0/8 table blue type perm", "", 1,
      "rtsh: route get 10.0.0.0/8 table blue type perm: ENOENT (2): no such object\n" },
    { "route get 0.0.0.0/0 type perm", "", 1, "rtsh: route get 0.0.0.0/0 type perm: ENOENT (2): no such object\n" },
    { "route delete 10.0.0.0/8 table blue type perm", "", 1,
      "rtsh: route delete 10.0.0.0/8 table blue type perm: ENOENT (2): no such object\n" },
    { "route match 198.51.100.1", "", 1, "rtsh: route match 198.51.100.1: ENOENT (2): no such object\n" },
    { "--load /nowhere/model table", "", 1, "rtsh: /nowhere/model: No such file or directory\n" },
    { "--load $COMPLETION table", "", 1, "rtsh: */rtsh.bash:2: *\n" },
    // what means nothing; nothing is asked then
    { "", "", 2, "rtsh: a command is wanted; see rtsh --help\n" },
    { "route add 10.5.0.0/16 nexthop 0", "", 2,
      "rtsh: route add 10.5.0.0/16 nexthop 0: '0' is no index of a next hop; see rtsh --help\n" },
    { "frob", "", 2, "rtsh: frob: there is no such command; see rtsh --help\n" },
    { "route", "", 2, "rtsh: route: what is to be done?; see rtsh --help\n" },
    { "-", "route frob\n--kernel linux table\ntable blue", 2,
      "rtsh: line 1: route frob: 'frob' is nothing that can be done here; see rtsh --help\n"
      "rtsh: line 2: unknown option '--kernel'; see rtsh --help\nblue index 5 family inet tenant 9\n" },
    { "route get", "", 2, "rtsh: route get: usage is route get PREFIX *; see rtsh --help\n" },
    { "route get 10.1.0.0/8", "", 2, "*: '10.1.0.0/8' has bits set behind its length; see rtsh --help\n" },
    { "route get 10.0.0.0/33", "", 2, "*: '10.0.0.0/33' has no number of bits from 0 to 32; see rtsh --help\n" },
    { "route get 10.0.0.0/8 table 65536", "", 2, "*: '65536' is no table: indexes end at 65535; see rtsh --help\n" },
    { "route get 10.0.0.0/8 table", "", 2, "*: table needs a value; see rtsh --help\n" },
    { "route get 10.0.0.0/8 type user type user", "", 2, "*: type stands twice; see rtsh --help\n" },
    { "route get 10.0.0.0/8 nexthop 1", "", 2, "*: 'nexthop' was not expected; see rtsh --help\n" },
    { "route add 10.0.0.0/8 via 10.1.1.1 nexthop 1", "", 2, "*: either via or nexthop is wanted; see rtsh --help\n" },
    { "route add 10.0.0.0/8 via 2001:db8::1", "", 2, "*: the address behind via is of another family; *" },
    { "nexthop get 4294967296", "", 2, "*: '4294967296' is no number from 0 to 4294967295; see rtsh --help\n" },
    { "--family inet7 table", "", 2, "rtsh: 'inet7' is no address family; see rtsh --help\n" },
    { "--kernel linux table", "", 2, "rtsh: --load goes with --kernel model; see rtsh --help\n" },
    { "--all nexthop get 513", "", 0, "000000  message 1: IDR, type 10 rnh_msg, * idx = 513 *\n" },
};

static std::string run(const std::string &command, int *status)
{
    std::string output;
    FILE *pipe = popen(command.c_str(), "r");
    for (int c; pipe != nullptr && (c = fgetc(pipe)) != EOF;)
        output += char(c);
    int ended = pipe != nullptr ? pclose(pipe) : -1;
    *status = WIFEXITED(ended) ? WEXITSTATUS(ended) : -1;
    return output;
}

TEST(rtsh, prints_changes_and_refuses)
{
    for (const auto &row : runs) {
        SCOPED_TRACE(std::string(row.arguments) + "\n" + row.input);
        setenv("INPUT", row.input, 1);
        int status;
        std::string output = run("printf %s \"$INPUT\" | \"$KELD_BIN\"/rtsh --kernel model --load \"$MODEL\" " +
                                     std::string(row.arguments) + " 2>&1", &status);
        EXPECT_EQ(status, row.status);
        EXPECT_EQ(fnmatch(row.output, output.c_str(), 0), 0) << output;
    }
}

TEST(rtsh, completes_words)
{
    static const struct { const char *words, *offered; } rows[] = {
        { "rtsh n", "nexthop" },
        { "rtsh --kernel model route ''", "get match add delete list" },
        { "rtsh route add 10.0.0.0/8 table blue v", "via" },
        { "rtsh --kernel ''", "linux model" },
    };
    for (const auto &row : rows) {
        int status;
        std::string words = row.words;
        EXPECT_EQ(run("bash -c 'source \"$COMPLETION\"; COMP_WORDS=(\"$@\"); COMP_CWORD=$(($# - 1)); _rtsh; "
                      "echo \"${COMPREPLY[*]}\"' - " + words, &status), std::string(row.offered) + "\n") << row.words;
    }
}
