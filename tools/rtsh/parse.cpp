/*
 * From words to a request. A command is its object and its verb, then what it is about, then clauses in any order, each
 * a word and its value, none twice. Everything is judged here, so that nothing is asked of the kernel in vain.
 */
#include "tools/rtsh/rtsh.h"

#include <errno.h>
#include <stdlib.h>

namespace {

constexpr char digits[] = "0123456789";

std::string parse_table(const std::string &word, struct rtsh_request *request)
{
    request->table = word;
    bool good = word.find_first_not_of(digits) != std::string::npos ||
                rtsh_parse_number(word, UINT16_MAX, &request->table_index);
    return good ? "" : "'" + word + "' is no table: indexes end at 65535";
}

std::string parse_via(const std::string &word, struct rtsh_request *request)
{
    if (!rtsh_parse_address(word, &request->via))
        return "'" + word + "' is no address";
    return request->via.family == request->prefix.family ? "" : "the address behind via is of another family";
}

std::string parse_nexthop(const std::string &word, struct rtsh_request *request)
{
    // 0 would be none, and a route without a next hop drops packets.
    bool good = rtsh_parse_number(word, UINT32_MAX, &request->nexthop) && request->nexthop != 0;
    return good ? "" : "'" + word + "' is no index of a next hop";
}

std::string parse_type(const std::string &word, struct rtsh_request *request)
{
    bool good = rtsh_number_named(RTSH_ROUTE_TYPES, word, &request->type);
    return good ? "" : "'" + word + "' is no route type";
}

constexpr struct clause {
    const char *word;
    unsigned bit;
    std::string (*parse)(const std::string &word, struct rtsh_request *request);
} clauses[] = {
    { "table", CLAUSE_TABLE, parse_table },
    { "via", CLAUSE_VIA, parse_via },
    { "nexthop", CLAUSE_NEXTHOP, parse_nexthop },
    { "type", CLAUSE_TYPE, parse_type },
};

const struct clause *find_clause(const std::string &word, unsigned allowed)
{
    for (const auto &row : clauses) {
        if (word == row.word && (allowed & row.bit) != 0)
            return &row;
    }
    return nullptr;
}

std::string parse_clauses(const std::vector<std::string> &words, size_t at, const struct rtsh_command &command,
                          struct rtsh_request *request)
{
    for (; at < words.size(); at += 2) {
        const struct clause *row = find_clause(words[at], command.clauses);
        if (row == nullptr)
            return "'" + words[at] + "' was not expected";
        if (at + 1 == words.size())
            return words[at] + " needs a value";
        if ((request->clauses & row->bit) != 0)
            return words[at] + " stands twice";
        request->clauses |= row->bit;
        std::string wrong = row->parse(words[at + 1], request);
        if (!wrong.empty())
            return wrong;
    }
    unsigned given = request->clauses & command.one_of;
    return command.one_of == 0 || (given != 0 && given != command.one_of) ? "" : "either via or nexthop is wanted";
}

std::string parse_operand(const std::string &word, const struct rtsh_command &command, struct rtsh_request *request)
{
    if (command.operand == OPERAND_OPTIONAL_TABLE)
        return parse_table(word, request);
    if (command.operand == OPERAND_PREFIX)
        return rtsh_parse_prefix(word, &request->prefix);
    if (command.operand == OPERAND_NUMBER && !rtsh_parse_number(word, command.limit, &request->number))
        return "'" + word + "' is no number from 0 to " + std::to_string(command.limit);
    return "";
}

const struct rtsh_command *find_command(const std::string &object, const std::string &verb, bool *known)
{
    for (const struct rtsh_command *row = rtsh_commands; row->object != nullptr; row++) {
        if (object != row->object)
            continue;
        *known = true;
        if (row->verb == nullptr || verb == row->verb)
            return row;
    }
    return nullptr;
}

}   // namespace

bool rtsh_parse_number(const std::string &word, uint32_t limit, uint32_t *number)
{
    if (word.empty() || word.find_first_not_of(digits) != std::string::npos)
        return false;
    errno = 0;
    unsigned long long value = strtoull(word.c_str(), nullptr, 10);
    if (errno != 0 || value > limit)
        return false;
    *number = uint32_t(value);
    return true;
}

std::string rtsh_parse(const std::vector<std::string> &words, struct rtsh_request *request,
                       const struct rtsh_command **command)
{
    for (const std::string &word : words)
        request->text += (request->text.empty() ? "" : " ") + word;
    bool known = false;
    const struct rtsh_command *row = find_command(words[0], words.size() > 1 ? words[1] : "", &known);
    if (row == nullptr && known)
        return words.size() > 1 ? "'" + words[1] + "' is nothing that can be done here" : "what is to be done?";
    if (row == nullptr)
        return "there is no such command";
    *command = row;
    request->type = row->type;
    size_t at = row->verb != nullptr ? 2 : 1;
    if (row->operand != OPERAND_NONE && at < words.size()) {
        std::string wrong = parse_operand(words[at++], *row, request);
        if (!wrong.empty())
            return wrong;
    } else if (row->operand != OPERAND_NONE && row->operand != OPERAND_OPTIONAL_TABLE) {
        return std::string("usage is ") + row->usage;
    }
    return parse_clauses(words, at, *row, request);
}
