/*
 * idlcat: options, files and exit status.
 */
#include "tools/idlcat/idlcat.h"

#include "platform/process/process.h"

#include <errno.h>
#include <string.h>

namespace {

constexpr char help_text[] =
    "usage: idlcat [OPTION...] [FILE...]   print the messages in each FILE, or from standard input\n"
    "  --type NAME     the input is one bare record of that type\n"
    "  --idr           ... in IDR; without it in TLV, in the type's own dialect\n"
    "  --hex           the input is hexadecimal text\n"
    "  --brief         print a line for each message, as traces have them\n"
    "  --absent        list the fields that a TLV record leaves out, too\n"
    "  --to tlv|idr    write the messages in that form instead\n"
    "  --hex-out       ... as hexadecimal text\n"
    "  --types         list the types that have a description\n"
    "  --catalogue     print the descriptions as a document\n"
    "  --version       print the release\n"
    "  --help, -h      print this\n"
    "Exit status: 0; 1 if a message was broken or the command could not be carried out.\n";

int fail(const std::string &text)
{
    fprintf(stderr, "idlcat: %s\n", text.c_str());
    return 1;
}

bool read_all(FILE *file, std::string &text)
{
    char buffer[65536];
    for (size_t count; (count = fread(buffer, 1, sizeof buffer, file)) > 0;)
        text.append(buffer, count);
    return ferror(file) == 0;
}

int run_text(const idlcat_options &options, const char *name, const std::string &text)
{
    std::vector<uint8_t> octets(text.begin(), text.end());
    if (options.hex_in) {
        idlcat_fault fault;
        octets.clear();
        if (!parse_hex(text, octets, fault))
            return fail(std::string(name) + ": octet " + std::to_string(fault.offset) + ": " + fault.text);
    }
    return run_messages(options, name, octets, stdout, stderr) == 0 ? 0 : 1;
}

int run_file(const idlcat_options &options, const char *name)
{
    FILE *file = strcmp(name, "-") == 0 ? stdin : fopen(name, "rb");
    if (file == nullptr)
        return fail(std::string(name) + ": " + strerror(errno));
    std::string text;
    bool good = read_all(file, text);
    int error = errno;
    if (file != stdin)
        fclose(file);
    return good ? run_text(options, name, text) : fail(std::string(name) + ": " + strerror(error));
}

int print_types(void)
{
    for (uint32_t i = 0; i < idl_catalogue_count; i++)
        printf("%s\n", idl_catalogue[i]->it_name);
    return 0;
}

int print_document(void)
{
    print_catalogue(stdout);
    return 0;
}

int print_help(void)
{
    fputs(help_text, stdout);
    return 0;
}

int print_release(void)
{
    show_daemon_version("idlcat", 1, 0);
    return 0;
}

/* Options that do their work and end. */
constexpr struct {
    const char *word;
    int (*func)(void);
} ends[] = {
    { "--help", print_help },       { "-h", print_help },
    { "--version", print_release }, { "--types", print_types },
    { "--catalogue", print_document },
};

constexpr struct {
    const char *word;
    bool idlcat_options::*flag;
} flags[] = {
    { "--idr", &idlcat_options::idr },
    { "--hex", &idlcat_options::hex_in },
    { "--hex-out", &idlcat_options::hex_out },
    { "--absent", &idlcat_options::absent },
    { "--brief", &idlcat_options::brief },
};

bool set_flag(idlcat_options &options, const char *word)
{
    for (const auto &row : flags) {
        if (strcmp(word, row.word) == 0)
            return options.*row.flag = true;
    }
    return false;
}

/* Empty on success, otherwise what is wrong. */
std::string set_value(idlcat_options &options, const std::string &word, const char *value)
{
    if (word != "--type" && word != "--to")
        return "unknown option '" + word + "'; see idlcat --help";
    if (value == nullptr)
        return word + " needs a value; see idlcat --help";
    if (word == "--type") {
        options.type = idl_type_by_name(value);
        return options.type != nullptr ? "" : std::string("no type '") + value + "'; idlcat --types lists them";
    }
    options.convert = true;
    options.to = strcmp(value, "idr") == 0 ? wire_form::idr : wire_form::tlv;
    bool known = options.to == wire_form::idr || strcmp(value, "tlv") == 0;
    return known ? "" : std::string("--to takes tlv or idr, not '") + value + "'";
}

/* What cannot go together, forms that the type does not have among it. */
std::string unfit(const idlcat_options &options)
{
    if (options.brief && (options.convert || options.type != nullptr))
        return "--brief prints whole messages: it goes neither with --to nor with --type";
    if (options.type == nullptr)
        return options.idr ? "--idr goes with --type: an enveloped message tells its form" : "";
    bool idr = options.idr || (options.convert && options.to == wire_form::idr);
    bool tlv = !options.idr || (options.convert && options.to == wire_form::tlv);
    if (idr && options.type->it_dialect == IDL_DIALECT_NETWORK)
        return std::string(options.type->it_name) + " has no IDR form";
    if (tlv && options.type->it_dialect == IDL_DIALECT_IDR)
        return std::string(options.type->it_name) + " has only an IDR form: add --idr";
    return "";
}

}   // namespace

int main(int argc, char **argv)
{
    idlcat_options options;
    std::vector<const char *> files;
    for (int i = 1; i < argc; i++) {
        for (const auto &row : ends) {
            if (strcmp(argv[i], row.word) == 0)
                return row.func();
        }
        if (argv[i][0] != '-' || strcmp(argv[i], "-") == 0) {
            files.push_back(argv[i]);
        } else if (!set_flag(options, argv[i])) {
            const char *word = argv[i++];
            std::string wrong = set_value(options, word, i < argc ? argv[i] : nullptr);
            if (!wrong.empty())
                return fail(wrong);
        }
    }
    std::string wrong = unfit(options);
    if (!wrong.empty())
        return fail(wrong);
    if (files.empty())
        files.push_back("-");
    int status = 0;
    for (const char *name : files)
        status |= run_file(options, name);
    return status;
}
