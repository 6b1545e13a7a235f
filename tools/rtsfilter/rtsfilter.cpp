/*
 * rtsfilter: compiles a filter of the routing socket and shows the program, so that an expression can be tried before
 * it is registered.
 *
 * The library says what is wrong, on standard error; the tool adds where, and for an expression on the command line it
 * points there. What the language skips without a word is named as well: whoever writes "=" for "==" should hear of it.
 */
#include "lib/librtsock/filter/filter_build.h"
#include "tools/rtsfilter/listing.h"

#include <errno.h>
#include <getopt.h>
#include <stdlib.h>
#include <string.h>

#include <string>
#include <vector>

enum { EXIT_USAGE = 64, LARGEST = sizeof(struct rts_filter_head) + RTS_FILTER_LENGTH_MAX };

static constexpr char usage_text[] =
    "usage: rtsfilter [--octets] [--size N] EXPRESSION\n"
    "       rtsfilter [--octets] [--size N] --file PATH\n"
    "\n"
    "Compiles a filter of the routing socket and prints the program: offset, code, operand, jump of each instruction.\n"
    "\n"
    "  --file PATH  read the expression from a file; - is standard input\n"
    "  --size N     refuse a program longer than N octets; a registration has room for 748\n"
    "  --octets     print the program's octets in hexadecimal instead\n"
    "  --help       print this\n"
    "\n"
    "An expression on the command line is one argument of 511 octets at most, so quote it:\n"
    "  rtsfilter 'rtm_type == RTM_ADD && dst == 10.1.0.0/16'\n";

struct request {
    const char *expression;   // or null
    const char *path;         // or null: standard input, if there is no expression
    size_t size;
    bool octets;
};

[[noreturn]] static void refuse_usage(const char *what)
{
    fprintf(stderr, "rtsfilter: %s; see rtsfilter --help\n", what);
    exit(EXIT_USAGE);
}

static size_t read_size(const char *text)
{
    char *end;
    errno = 0;
    unsigned long size = strtoul(text, &end, 10);
    if (*text < '0' || *text > '9' || *end || errno || size == 0 || size > LARGEST)
        refuse_usage("--size takes a number from 1 to 65550");
    return size;
}

static struct request read_options(int argc, char **argv)
{
    static const struct option options[] = {
        { "file", required_argument, nullptr, 'f' }, { "size", required_argument, nullptr, 's' },
        { "octets", no_argument, nullptr, 'o' },     { "help", no_argument, nullptr, 'h' },
        { nullptr, 0, nullptr, 0 },
    };
    struct request request = { nullptr, nullptr, LARGEST, false };
    int option;
    while ((option = getopt_long(argc, argv, "", options, nullptr)) != -1) {
        switch (option) {
        case 'f': request.path = optarg; break;
        case 's': request.size = read_size(optarg); break;
        case 'o': request.octets = true; break;
        case 'h': fputs(usage_text, stdout); exit(EXIT_SUCCESS);
        default: fputs("see rtsfilter --help\n", stderr); exit(EXIT_USAGE);
        }
    }
    if (argc - optind != (request.path ? 0 : 1))
        refuse_usage(request.path ? "with --file there is no expression" : "one expression is wanted; quote it");
    if (!request.path) request.expression = argv[optind];
    else if (strcmp(request.path, "-") == 0) request.path = nullptr;
    return request;
}

/* The line of a text that has line ends, from 1. */
static std::string line_of(const std::string &text, unsigned line)
{
    size_t start = 0;
    while (--line > 0) start = text.find('\n', start) + 1;
    return text.substr(start, text.find('\n', start) - start);
}

/* Says where the library stopped. Its own words stand above. */
static void report_place(const struct request &request, const char *what)
{
    unsigned line, column;
    rts_filter_error_place(&line, &column);
    fprintf(stderr, "rtsfilter: %s, at line %u, column %u\n", what, line, column);
    if (!request.expression) return;
    std::string before = line_of(request.expression, line);
    fprintf(stderr, "    %s\n    ", before.c_str());
    for (size_t i = 0; i + 1 < column && i < before.size(); i++) fputc(before[i] == '\t' ? '\t' : ' ', stderr);
    fputs("^\n", stderr);
}

static void report(const struct request &request, int result)
{
    if (result == RTS_FILTER_REFUSED) return report_place(request, "refused");
    if (result == RTS_FILTER_FULL) {
        std::string what = "the program takes more than " + std::to_string(request.size) + " octets";
        return report_place(request, what.c_str());
    }
    if (request.path) fprintf(stderr, "rtsfilter: cannot open %s\n", request.path);
    else if (request.expression && strlen(request.expression) > RTS_FILTER_SOURCE_MAX)
        fputs("rtsfilter: a longer expression than 511 octets goes into a file; use --file\n", stderr);
}

/* Compiles into block, and names what was skipped. The library's result. */
static int compile(const struct request &request, void *block)
{
    char *skipped = nullptr;
    size_t length = 0;
    yyrtsout = open_memstream(&skipped, &length);
    FILE *stream = yyrtsout;
    int result = request.expression ? rts_filter_string_parse(request.expression, block, request.size)
                                    : rts_filter_parse(request.path, block, request.size);
    if (stream) fclose(stream);
    for (size_t i = 0; i < length; i++)
        if (skipped[i] < ' ' || skipped[i] > '~') skipped[i] = '?';
    if (length != 0) fprintf(stderr, "rtsfilter: skipped, for it means nothing in a filter: %s\n", skipped);
    free(skipped);
    return result;
}

int main(int argc, char **argv)
{
    struct request request = read_options(argc, argv);
    std::vector<char> block(request.size);
    int result = compile(request, block.data());
    if (result != RTS_FILTER_DONE) {
        report(request, result);
        return EXIT_FAILURE;
    }
    if (request.octets) listing_print_octets(stdout, block.data(), block.size());
    else listing_print(stdout, block.data(), block.size());
    if (fflush(stdout) == 0 && !ferror(stdout)) return EXIT_SUCCESS;
    perror("rtsfilter: standard output");
    return EXIT_FAILURE;
}
