/*
 * rtsh: commands on the objects behind the routing socket, typed by people.
 *
 * A line of words is parsed into a request by the table of commands (parse.cpp), which names the function that carries
 * it out over the library (commands.cpp); what the kernel tells is printed a line for each object, or field by field
 * (print.cpp). Numbers that have a name (names.cpp) and forms of addresses (addresses.cpp) stand in one place. Families
 * and results are the target's.
 */
#pragma once

#include "lib/librtsock/rtslib.h"

#include <stdio.h>
#include <string>
#include <vector>

/* How a run or one of its commands ended, and the program's exit status: the worst. */
enum rtsh_status { RTSH_DONE = 0, RTSH_FAILED = 1, RTSH_USAGE = 2 };

struct rtsh {
    struct rtslib_cookie *cookie = nullptr;
    FILE *out = stdout;
    bool all = false;               // every field of a record
    bool brief = false;             // as traces show messages
    uint8_t family = 0;             // of tables and next hops, where nothing else tells it
    bool family_given = false;      // or else it is the usual one
    uint32_t line = 0;              // of standard input, 0: the command stands on the command line
};

struct rtsh_prefix {
    uint8_t family = 0;
    uint16_t bits = 0;
    uint8_t octets[32] = {};   // of a multicast route, which may be longer than an address: group and source
};

/* What may follow the object of a command, as bits. */
enum { CLAUSE_TABLE = 1, CLAUSE_VIA = 2, CLAUSE_NEXTHOP = 4, CLAUSE_TYPE = 8 };

struct rtsh_request {
    std::string text;                // as typed, for messages
    uint32_t number = 0;             // the object's
    struct rtsh_prefix prefix;       // the object's
    unsigned clauses = 0;            // that were given
    std::string table;               // name or index; empty: none was given
    uint32_t table_index = UINT32_MAX;   // not an index: table is a name
    struct rtsh_prefix via;          // an address: all its bits
    uint32_t nexthop = 0;
    uint8_t type = 0;
};

/* Carries a request out and prints. False after a report of what failed. */
typedef bool (*rtsh_run_func)(const struct rtsh &shell, const struct rtsh_request &request);

/* What stands for the object of a command. */
enum rtsh_operand { OPERAND_NONE, OPERAND_OPTIONAL_TABLE, OPERAND_NUMBER, OPERAND_PREFIX };

struct rtsh_command {
    const char *object, *verb;       // verb null: any word that is not a verb of this object
    enum rtsh_operand operand;
    uint32_t limit;                  // of a number
    unsigned clauses;                // that may be given
    unsigned one_of;                 // of which exactly one must be, if any
    uint8_t type;                    // the route type, if none is given
    rtsh_run_func run;
    const char *usage, *help;
};

/* Null-terminated. */
extern const struct rtsh_command rtsh_commands[];

/* --- parsing: empty, or what is wrong -------------------------------------------------------------------------- */

/* *command: which one it is. */
std::string rtsh_parse(const std::vector<std::string> &words, struct rtsh_request *request,
                       const struct rtsh_command **command);
/* Decimal, at most limit. */
bool rtsh_parse_number(const std::string &word, uint32_t limit, uint32_t *number);

/* --- addresses ------------------------------------------------------------------------------------------------- */

bool rtsh_parse_address(const std::string &word, struct rtsh_prefix *address);
std::string rtsh_parse_prefix(const std::string &word, struct rtsh_prefix *prefix);
/* One of a multicast route may go on behind the group with the source: "GROUP,SOURCE/BITS". */
std::string rtsh_prefix_text(const uint8_t *octets, size_t length, uint8_t family, uint16_t bits);
/* An address of that family, or in a sockaddr of any; other octets in hexadecimal. */
std::string rtsh_address_text(const uint8_t *octets, size_t length, uint8_t family);
enum { RTSH_SOCKADDR_MAX = 28 };
/* address is one that was parsed. */
void rtsh_put_sockaddr(const struct rtsh_prefix &address, uint8_t sockaddr[RTSH_SOCKADDR_MAX]);

/* --- names, and decimal numbers for what has none --------------------------------------------------------------- */

enum rtsh_names { RTSH_FAMILIES, RTSH_ROUTE_TYPES, RTSH_NEXTHOP_TYPES };
std::string rtsh_name(enum rtsh_names kind, uint8_t number);
bool rtsh_number_named(enum rtsh_names kind, const std::string &word, uint8_t *number);

/* --- printing -------------------------------------------------------------------------------------------------- */

/* One object, decoded: a line, or all fields. table: the name of its table, for routes. */
void rtsh_print_table(const struct rtsh &shell, const void *message, const void *mask);
void rtsh_print_route(const struct rtsh &shell, const void *message, const void *mask, const std::string &table);
void rtsh_print_match(const struct rtsh &shell, const void *message, const void *mask, const std::string &table);
void rtsh_print_nexthop(const struct rtsh &shell, const void *message, const void *mask);

/* A text of a record, which may end without a terminator; null allowed. */
std::string rtsh_text(const char *text, uint32_t length);

/* "rtsh: WHAT: ENOENT (2): no such object", result being the library's. False, for those that give up with it. */
bool rtsh_report(const struct rtsh &shell, const std::string &what, int result);
/* "rtsh: TEXT", with the line of standard input. */
void rtsh_complain(const struct rtsh &shell, const std::string &text);
