/*
 * keldctl: the operator's tool.
 *
 * A command is a row: its word, how many arguments it takes, and its function. Whatever does not fit a row gets one
 * line that names the word and points to the help. A wish for help is met wherever it stands.
 */
#include "tools/keldctl/keldctl.h"

#include "platform/process/process.h"

#include <limits.h>
#include <stdarg.h>
#include <stdio.h>
#include <string.h>

#include <algorithm>

static constexpr char help_text[] =
    "usage: keldctl check [FILE]   check FILE, or the candidate or committed configuration\n"
    "       keldctl commit FILE    check FILE and put it in force\n"
    "       keldctl show [--xml] system services service-deployment\n"
    "                              print the state of the connection; --xml: the document that tells it\n"
    "       keldctl show [--xml] version brief|detail|extensive\n"
    "                              print what the running daemon is\n"
    "       keldctl version        print the release\n"
    "       keldctl --help, -h     print this\n";

int keldctl_fail(const char *format, ...)
{
    va_list args;
    va_start(args, format);
    (void)fputs("keldctl: ", stderr);
    (void)vfprintf(stderr, format, args);
    (void)fputc('\n', stderr);
    va_end(args);
    return 1;
}

static int print_version(int, char **)
{
    show_daemon_version("keldctl", 1, 0);
    return 0;
}

static bool is_help(const char *argument)
{
    return strcmp(argument, "--help") == 0 || strcmp(argument, "-h") == 0;
}

static int run_check(int count, char **arguments)
{
    return keldctl_check(count > 0 ? arguments[0] : nullptr);
}

static int run_commit(int, char **arguments)
{
    return keldctl_commit(arguments[0]);
}

static constexpr struct command {
    const char *cm_word;
    int cm_min, cm_max;   // arguments behind the word
    int (*cm_run)(int count, char **arguments);
} commands[] = {
    { "check", 0, 1, run_check },
    { "commit", 1, 1, run_commit },
    { "show", 0, INT_MAX, keldctl_show },
    { "version", 0, 0, print_version },
};

int main(int argc, char **argv)
{
    if (argc < 2) return keldctl_fail("no command, try keldctl --help");
    if (std::any_of(argv + 1, argv + argc, is_help)) return fputs(help_text, stdout) < 0;
    int arguments = argc - 2;
    for (const struct command &command : commands) {
        if (strcmp(command.cm_word, argv[1]) != 0) continue;
        if (arguments < command.cm_min) return keldctl_fail("%s needs a FILE, try keldctl --help", argv[1]);
        if (arguments > command.cm_max)
            return keldctl_fail("%s does not take '%s', try keldctl --help", argv[1], argv[2 + command.cm_max]);
        return command.cm_run(arguments, argv + 2);
    }
    return keldctl_fail("unknown command '%s', try keldctl --help", argv[1]);
}
