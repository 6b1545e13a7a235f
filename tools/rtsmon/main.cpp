/*
 * rtsmon: options, the kernel, registrations, and the loop.
 *
 * On Linux the changes are the host's. The model kernel is this process's own: each line of standard input is an object
 * put into it (platform/rtsock/model/rtsock_model.h tells the form), and what that changes is printed.
 */
#include "tools/rtsmon/rtsmon.h"

#include "lib/librtsock/filter/rts_filter.h"
#include "lib/librtsock/format/rtslib_format.h"
#include "lib/librtsock/idl/idl.h"
#include "lib/librtsock/rtslib_async.h"
#include "platform/ev/ev.h"
#include "platform/process/process.h"
#include "platform/rtsock/linux/rtsock_linux.h"
#include "platform/rtsock/model/rtsock_model.h"

#include <errno.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <unistd.h>

#include <algorithm>
#include <iterator>

namespace {

enum { DONE = 0, FAILED = 1, USAGE = 2, SENDER = 0, LINE_SIZE = 1024, ERROR_SIZE = 512 };

enum form { FORM_LINE, FORM_JSON, FORM_BRIEF, FORM_FULL };

struct monitor {
    enum form form;
    uint64_t left;   // events to print, then the end
    struct rtslib_cookie *cookie;
    evContext loop;
    std::string line;   // of standard input, not whole yet
};

struct options {
    const struct rtsock_kernel *kernel = &rtsock_linux;
    std::string load, filter;
    unsigned classes = 0;
    bool help = false, version = false;
    struct monitor monitor = { FORM_LINE, UINT64_MAX, nullptr, nullptr, "" };
};

void complain(const std::string &text)
{
    fprintf(stderr, "rtsmon: %s\n", text.c_str());
}

void print_report(struct rtslib_cookie *, uintptr_t, int severity, const char *text)
{
    std::string line = text;
    while (!line.empty() && line.back() == '\n')
        line.pop_back();
    if (severity > RTSLIB_INFO)
        complain(line);
}

/* As traces show it. A message that does not fit is cut, which the library reports. */
std::string rendered(struct rtslib_cookie *cookie, enum form form, const void *message)
{
    enum { TYPE_DEVICE = 5 };
    char text[RTSLIB_FORMAT_FULL_SIZE] = "";
    if (form == FORM_FULL && static_cast<const struct rts_hdr *>(message)->rtsh_type == TYPE_DEVICE)
        rtslib_ifdm_format_full_output(cookie, text, message);
    else
        rtslib_format_output(cookie, text, sizeof text,
                             form == FORM_BRIEF ? RTSLIB_FORMAT_MODE_BRIEF : RTSLIB_FORMAT_MODE_FULL, message);
    std::string line = text;
    while (!line.empty() && line.back() == '\n')
        line.pop_back();
    return line;
}

/* Nothing in a message that is handed over tells how it came, but what was read does. A read brings one message. */
bool came_raw(const struct rtslib_cookie *cookie)
{
    uint32_t magic;
    memcpy(&magic, cookie->rbuf_data, sizeof magic);
    return magic != IDL_MAGIC_TLV && magic != IDL_MAGIC_IDR;
}

std::string event_text(const struct monitor *monitor, const void *message)
{
    if (came_raw(monitor->cookie))
        return rtsmon_raw(static_cast<const struct rts_raw_hdr *>(message), monitor->form == FORM_JSON);
    const auto *header = static_cast<const struct rts_hdr *>(message);
    switch (monitor->form) {
    case FORM_LINE:
        return rtsmon_text(header);
    case FORM_JSON:
        return rtsmon_json(header);
    default:
        return rendered(monitor->cookie, monitor->form, message);
    }
}

void print_event(struct rtslib_cookie *cookie, uintptr_t context, void *message, void *)
{
    auto *monitor = reinterpret_cast<struct monitor *>(context);
    if (monitor->left != 0) {
        puts(event_text(monitor, message).c_str());
        monitor->left--;
    }
    if (came_raw(cookie))
        rtslib_msg_free(cookie, message);
    else
        rtslib_msg_idl_release(cookie, message);
}

/* --- what is listened to ---------------------------------------------------------------------------------------- */

enum { BOTH_FLAGS = 1 | 4 };   // all classes of families and of addresses

constexpr struct event_class {
    const char *word;
    int (*listen)(struct rtslib_cookie *cookie, uintptr_t context);
} classes[] = {
    { "device", [](auto *c, uintptr_t context) { return rtslib_ifdm_async_register(c, context, print_event); } },
    { "unit", [](auto *c, uintptr_t context) { return rtslib_iflm_async_register(c, context, print_event); } },
    { "family",
      [](auto *c, uintptr_t context) { return rtslib_iffm_async_register(c, BOTH_FLAGS, context, print_event); } },
    { "address",
      [](auto *c, uintptr_t context) { return rtslib_ifam_async_register(c, BOTH_FLAGS, context, print_event); } },
    { "table", [](auto *c, uintptr_t context) { return rtslib_rtbm_async_register(c, context, print_event); } },
    { "route", [](auto *c, uintptr_t context) { return rtslib_rtm_async_register(c, context, print_event); } },
    { "blob", [](auto *c, uintptr_t context) { return rtslib_gencfg_async_register(c, context, print_event); } },
};

bool listen(struct options *options)
{
    struct monitor *monitor = &options->monitor;
    for (size_t i = 0; i < std::size(classes); i++) {
        bool wanted = options->classes == 0 || (options->classes >> i & 1) != 0;
        if (wanted && classes[i].listen(monitor->cookie, reinterpret_cast<uintptr_t>(monitor)) != 0) {
            complain(std::string("cannot listen to ") + classes[i].word + ": " + strerror(errno));
            return false;
        }
    }
    if (options->filter.empty())
        return true;
    alignas(RTS_FILTER_ALIGN) uint8_t program[RTS_FILTER_BLOCK_SIZE] = {};
    if (rts_filter_string_parse(options->filter.c_str(), program, sizeof program) != RTS_FILTER_DONE) {
        complain("the filter is refused; rtsfilter shows where");
        return false;
    }
    if (rtslib_async_register_filters(monitor->cookie, program) == 0)
        return true;
    complain(std::string("the kernel refuses the filter: ") + strerror(errno));
    return false;
}

/* --- the loop ---------------------------------------------------------------------------------------------------- */

/* What a line changes is printed before the next one is taken. */
void take_line(struct monitor *monitor, const std::string &line)
{
    char error[ERROR_SIZE] = "";
    if (rtsock_model_line(line.c_str(), error, sizeof error) != 0)
        complain(error);
    while (rtslib_async_event_process(monitor->cookie) == 0)
        continue;
}

/* Lines for the model. The end of them is the end of the program. */
void read_lines(evContext, void *context, int fd, int)
{
    auto *monitor = static_cast<struct monitor *>(context);
    char octets[LINE_SIZE];
    ssize_t count = read(fd, octets, sizeof octets);
    if (count < 0 && (errno == EAGAIN || errno == EINTR))
        return;
    monitor->line.append(octets, size_t(std::max<ssize_t>(count, 0)));
    for (size_t end; (end = monitor->line.find('\n')) != std::string::npos; monitor->line.erase(0, end + 1))
        take_line(monitor, monitor->line.substr(0, end));
    if (count > 0)
        return;
    if (!monitor->line.empty())
        take_line(monitor, monitor->line);
    monitor->left = 0;
}

bool connect_to_kernel(struct options *options)
{
    struct monitor *monitor = &options->monitor;
    rtsock_set_kernel(options->kernel);
    struct rtslib_cookie *cookie = rtslib_cookie_create();
    if (cookie != nullptr) {
        rtslib_lib_error_register(cookie, 0, print_report);
        monitor->cookie = rtslib_set_defaults(cookie, SENDER);
    }
    if (monitor->cookie != nullptr && rtslib_set_async_context(monitor->cookie, monitor->loop) == 0 &&
        rtslib_set_async_mode(monitor->cookie, RTSLIB_ASYNC_ON | RTSLIB_ASYNC_ONE_MESSAGE) == 0)
        return true;
    complain("no connection to the kernel");
    return false;
}

int run(struct options *options)
{
    struct monitor *monitor = &options->monitor;
    char error[ERROR_SIZE] = "";
    setvbuf(stdout, nullptr, _IOLBF, 0);
    if (!options->load.empty() && rtsock_model_load(options->load.c_str(), error, sizeof error) != 0) {
        complain(*error != '\0' ? std::string(error) : options->load + ": " + strerror(errno));
        return FAILED;
    }
    if (evCreate(&monitor->loop) < 0 || !connect_to_kernel(options) || !listen(options))
        return FAILED;
    // A file cannot be waited for, and need not be.
    bool lines = options->kernel == &rtsock_model, waits = !lines;
    if (lines)
        waits = evSelectFD(monitor->loop, STDIN_FILENO, EV_READ, read_lines, monitor, nullptr) == 0;
    while (monitor->left != 0 && evTurn(monitor->loop, waits ? -1 : 0) >= 0) {
        if (!waits)
            read_lines(monitor->loop, monitor, STDIN_FILENO, EV_READ);
    }
    rtslib_close(monitor->cookie);
    evDestroy(monitor->loop);
    return ferror(stdout) != 0 ? FAILED : DONE;
}

/* --- options ----------------------------------------------------------------------------------------------------- */

void print_help(void)
{
    fputs("usage: rtsmon [OPTION...] [CLASS...]   print changes as the kernel tells of them, a line each\n"
          "CLASS is device, unit, family, address, table, route or blob; all of them if none is given.\n"
          "  --kernel linux|model   the host's kernel, or one of the program's own: each line of standard input is\n"
          "                         an object put into it, and the end of input is the end of the program\n"
          "  --load FILE            fill the model kernel from a file first\n"
          "  --filter EXPRESSION    only what holds under it\n"
          "  --json                 one JSON object a line\n"
          "  --brief, --full        as traces show messages, instead of by the names of fields\n"
          "  --count N              end after N changes\n"
          "  --version              print the release\n"
          "  --help, -h             print this\n"
          "Exit status: 0; 1 if something failed; 2 for wrong usage.\n",
          stdout);
}

bool set_kernel(struct options *options, const std::string &value)
{
    options->kernel = value == "model" ? &rtsock_model : &rtsock_linux;
    return value == "model" || value == "linux";
}

bool set_load(struct options *options, const std::string &value)
{
    options->load = value;
    return true;
}

bool set_filter(struct options *options, const std::string &value)
{
    options->filter = value;
    return !value.empty();
}

bool set_count(struct options *options, const std::string &value)
{
    char *end;
    errno = 0;
    options->monitor.left = strtoull(value.c_str(), &end, 10);
    return !value.empty() && value[0] >= '0' && value[0] <= '9' && *end == '\0' && errno == 0;
}

constexpr struct value_option {
    const char *word;
    bool (*set)(struct options *options, const std::string &value);
} value_options[] = {
    { "--kernel", set_kernel }, { "--load", set_load }, { "--filter", set_filter }, { "--count", set_count },
};

constexpr struct flag_option {
    const char *word;
    void (*set)(struct options *options);
} flag_options[] = {
    { "--json", [](struct options *o) { o->monitor.form = FORM_JSON; } },
    { "--brief", [](struct options *o) { o->monitor.form = FORM_BRIEF; } },
    { "--full", [](struct options *o) { o->monitor.form = FORM_FULL; } },
    { "--help", [](struct options *o) { o->help = true; } },
    { "-h", [](struct options *o) { o->help = true; } },
    { "--version", [](struct options *o) { o->version = true; } },
};

/* Empty, or what is wrong. */
std::string read_options(int argc, char **argv, struct options *options)
{
    for (int i = 1; i < argc; i++) {
        std::string word = argv[i];
        auto is_word = [&](const auto &row) { return word == row.word; };
        const auto *class_row = std::find_if(std::begin(classes), std::end(classes), is_word);
        const auto *flag = std::find_if(std::begin(flag_options), std::end(flag_options), is_word);
        const auto *option = std::find_if(std::begin(value_options), std::end(value_options), is_word);
        if (class_row != std::end(classes))
            options->classes |= 1U << (class_row - classes);
        else if (flag != std::end(flag_options))
            flag->set(options);
        else if (option == std::end(value_options))
            return "'" + word + "' is neither an option nor a class";
        else if (++i == argc)
            return word + " needs a value";
        else if (!option->set(options, argv[i]))
            return word + " does not take '" + argv[i] + "'";
    }
    if (!options->load.empty() && options->kernel != &rtsock_model)
        return "--load is for the model kernel";
    return "";
}

}   // namespace

int main(int argc, char **argv)
{
    struct options options;
    std::string wrong = read_options(argc, argv, &options);
    if (!wrong.empty()) {
        complain(wrong + "; see rtsmon --help");
        return USAGE;
    }
    if (options.help) {
        print_help();
        return DONE;
    }
    if (options.version) {
        show_daemon_version("rtsmon", 1, 0);
        return DONE;
    }
    return run(&options);
}
