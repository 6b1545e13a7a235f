/*
 * rtsh: options, the kernel, and where commands come from.
 *
 * Options may stand anywhere. A command on the command line is one run; with "-" each line of standard input is one, on
 * one connection, so that what the model kernel holds lives from line to line.
 */
#include "tools/rtsh/rtsh.h"

#include "platform/process/process.h"
#include "platform/rtsock/linux/rtsock_linux.h"
#include "platform/rtsock/model/rtsock_model.h"
#include "platform/target.h"

#include <algorithm>
#include <stdlib.h>
#include <string.h>

namespace {

enum { SENDER = 0, USAGE_WIDTH = 66, ERROR_SIZE = 512 };

constexpr struct kernel {
    const char *name;
    const struct rtsock_kernel *kernel;
} kernels[] = {
    { "linux", &rtsock_linux },
    { "model", &rtsock_model },
};

struct options {
    const struct kernel *kernel = &kernels[0];
    std::string load;
    struct rtsh shell;
    std::vector<std::string> words;
};

/* The library's reports. None ends the program: the command that they belong to fails. */
void print_report(struct rtslib_cookie *, uintptr_t context, int severity, const char *text)
{
    std::string line = text;
    while (!line.empty() && line.back() == '\n')
        line.pop_back();
    if (severity > RTSLIB_INFO)
        rtsh_complain(*reinterpret_cast<const struct rtsh *>(context), line);
}

void print_help(void)
{
    fputs("usage: rtsh [OPTION...] COMMAND   ask the kernel for its tables, routes and next hops, or change them\n"
          "       rtsh [OPTION...] -         the same for each line of standard input\n",
          stdout);
    for (const struct rtsh_command *row = rtsh_commands; row->object != nullptr; row++)
        printf("  %-*s  %s\n", int(USAGE_WIDTH), row->usage, row->help);
    fputs("A TABLE is a name or an index; without one it is table 0. A TYPE is a name such as user, or a number.\n"
          "  --kernel linux|model   the host's kernel, or an empty one of the program's own\n"
          "  --load FILE            fill the model kernel from a file\n"
          "  --family FAMILY        of tables and routes, inet if not given; of next hops listed, all if not given:\n"
          "                         inet, inet6, iso, ...\n"
          "  --all                  print every field\n"
          "  --brief                print messages as traces show them\n"
          "  --version              print the release\n"
          "  --help, -h             print this\n"
          "Exit status: 0; 1 if an operation failed; 2 for a command that means nothing.\n",
          stdout);
}

/* Options with a value. Empty, or what is wrong. */
std::string set_kernel(struct options *options, const std::string &value)
{
    const auto *row = std::find_if(std::begin(kernels), std::end(kernels), [&](auto &k) { return value == k.name; });
    if (row == std::end(kernels))
        return "--kernel takes linux or model, not '" + value + "'";
    options->kernel = row;
    return "";
}

std::string set_load(struct options *options, const std::string &value)
{
    options->load = value;
    return "";
}

std::string set_family(struct options *options, const std::string &value)
{
    bool good = rtsh_number_named(RTSH_FAMILIES, value, &options->shell.family);
    options->shell.family_given = good;
    return good ? "" : "'" + value + "' is no address family";
}

constexpr struct value_option {
    const char *word;
    std::string (*set)(struct options *options, const std::string &value);
    bool of_command;   // may stand in a line of standard input
} value_options[] = {
    { "--kernel", set_kernel, false },
    { "--load", set_load, false },
    { "--family", set_family, true },
};

/* Takes the options out of words. Empty, or what is wrong. */
std::string read_options(const std::vector<std::string> &words, bool of_command, struct options *options)
{
    for (size_t at = 0; at < words.size(); at++) {
        const std::string &word = words[at];
        if (word.rfind("--", 0) != 0) {
            options->words.push_back(word);
            continue;
        }
        if (word == "--all") {
            options->shell.all = true;
            continue;
        }
        if (word == "--brief") {
            options->shell.brief = true;
            continue;
        }
        const auto *row = std::find_if(std::begin(value_options), std::end(value_options), [&](auto &o) {
            return word == o.word && (o.of_command || !of_command);
        });
        if (row == std::end(value_options))
            return "unknown option '" + word + "'";
        if (++at == words.size())
            return word + " needs a value";
        std::string wrong = row->set(options, words[at]);
        if (!wrong.empty())
            return wrong;
    }
    return "";
}

enum rtsh_status refuse(const struct rtsh &shell, const std::string &text)
{
    rtsh_complain(shell, text + "; see rtsh --help");
    return RTSH_USAGE;
}

enum rtsh_status run_command(const struct rtsh &shell, const std::vector<std::string> &words)
{
    struct rtsh_request request;
    const struct rtsh_command *command = nullptr;
    std::string wrong = rtsh_parse(words, &request, &command);
    if (!wrong.empty())
        return refuse(shell, request.text + ": " + wrong);
    return command->run(shell, request) ? RTSH_DONE : RTSH_FAILED;
}

std::vector<std::string> split(const char *line)
{
    std::string text(line, strcspn(line, "#\n"));
    std::vector<std::string> words;
    const char *blanks = " \t\r";
    for (size_t at = 0; (at = text.find_first_not_of(blanks, at)) != std::string::npos;) {
        size_t end = std::min(text.find_first_of(blanks, at), text.size());
        words.push_back(text.substr(at, end - at));
        at = end;
    }
    return words;
}

enum rtsh_status run_line(const struct rtsh &shell, const char *line)
{
    struct options options;
    options.shell = shell;
    std::string wrong = read_options(split(line), true, &options);
    if (!wrong.empty())
        return refuse(shell, wrong);
    return options.words.empty() ? RTSH_DONE : run_command(options.shell, options.words);
}

enum rtsh_status run_lines(struct rtsh *shell)
{
    enum rtsh_status worst = RTSH_DONE;
    char *line = nullptr;
    size_t size = 0;
    while (getline(&line, &size, stdin) != -1) {
        shell->line++;
        worst = std::max(worst, run_line(*shell, line));
        fflush(shell->out);   // whoever waits for the answer before the next line
    }
    free(line);
    shell->line = 0;
    return worst;
}

/* Sets the kernel up and connects. False after a report. */
bool open_shell(struct options *options)
{
    rtsock_set_kernel(options->kernel->kernel);
    char error[ERROR_SIZE] = "";
    int result = options->load.empty() ? 0 : rtsock_model_load(options->load.c_str(), error, sizeof error);
    if (result != 0 && *error != '\0') {
        rtsh_complain(options->shell, error);
        return false;
    }
    if (result != 0)
        return rtsh_report(options->shell, options->load, result);
    struct rtslib_cookie *cookie = rtslib_cookie_create();
    if (cookie == nullptr)
        return rtsh_report(options->shell, "connecting", TARGET_ENOMEM);
    rtslib_lib_error_register(cookie, reinterpret_cast<uintptr_t>(&options->shell), print_report);
    options->shell.cookie = rtslib_set_defaults(cookie, SENDER);
    if (options->shell.cookie != nullptr)
        return true;
    rtsh_complain(options->shell, std::string("no connection to the kernel ") + options->kernel->name);
    return false;
}

enum rtsh_status run(struct options *options)
{
    struct rtsh *shell = &options->shell;
    if (!options->load.empty() && options->kernel->kernel != &rtsock_model)
        return refuse(*shell, "--load goes with --kernel model");
    if (options->words.empty())
        return refuse(*shell, "a command is wanted");
    bool lines = options->words[0] == "-";
    if (lines && options->words.size() > 1)
        return refuse(*shell, "commands stand on the command line or on standard input");
    if (!open_shell(options))
        return RTSH_FAILED;
    enum rtsh_status status = lines ? run_lines(shell) : run_command(*shell, options->words);
    rtslib_close(shell->cookie);
    return status;
}

}   // namespace

int main(int argc, char **argv)
{
    struct options options;
    options.shell.family = TARGET_AF_INET;
    std::vector<std::string> words(argv + 1, argv + argc);
    for (const std::string &word : words) {
        if (word == "--help" || word == "-h")
            return print_help(), RTSH_DONE;
        if (word == "--version")
            return show_daemon_version("rtsh", 1, 0), RTSH_DONE;
    }
    std::string wrong = read_options(words, false, &options);
    int status = wrong.empty() ? run(&options) : refuse(options.shell, wrong);
    if (fflush(stdout) == 0 && ferror(stdout) == 0)
        return status;
    perror("rtsh: standard output");
    return RTSH_FAILED;
}
