/*
 * The text form of objects, as far as words go. Internal.
 */
#pragma once

#include <stddef.h>
#include <stdint.h>

extern "C" {

/* What stands behind a keyword. */
enum rm_clause : uint32_t {
    RM_INDEX = 1 << 0,
    RM_FAMILY = 1 << 1,
    RM_TENANT = 1 << 2,
    RM_SNMP = 1 << 3,
    RM_MTU = 1 << 4,
    RM_MAC = 1 << 5,
    RM_DOWN = 1 << 6,
    RM_LR = 1 << 7,
    RM_PARENT = 1 << 8,
    RM_DONOR = 1 << 9,
    RM_DESTINATION = 1 << 10,
    RM_TYPE = 1 << 11,
    RM_INTERFACE = 1 << 12,
    RM_ADDRESS = 1 << 13,
    RM_NEXTHOP = 1 << 14,
};
enum { RM_CLAUSES = 15 };

struct rm_prefix {
    uint8_t octets[16];   // network order
    uint16_t bits, most;  // as written, or all; of an address of the family
};

/* A line, read. */
struct rm_line {
    char *name;
    uint8_t family;               // the target's
    struct rm_prefix prefix;      // without a length it has all bits
    uint32_t seen;                // enum rm_clause
    uint32_t number[RM_CLAUSES];  // of clauses with a number or a type
    uint8_t mac[6];
    struct rm_prefix address, destination;
    const char *wrong;            // what add found wrong with the values, or null
};

struct rm_statement;
typedef int (*rm_line_func)(struct rm_line *line);

/* What a line of a kind says: up to three words without a keyword, N number (the index), F family, P prefix, W name;
 * then clauses. */
struct rm_statement {
    const char *word;
    const char *places;
    uint32_t allowed, required;   // enum rm_clause
    uint32_t index_min, index_max;
    const char *(*type)(int);     // name of a number, for RM_TYPE
    int types;                    // numbers that have one
    rm_line_func add;             // the target's error, or 0
    const char *base;             // what is not there if that is ENOENT
};

/* Reads line, whose words it ends in place, by one of count statements, and adds. 0, or an error with what is wrong in
 * error. An empty line is nothing. */
int rm_line_run(const struct rm_statement *statements, size_t count, char *line, char *error, size_t size);

}   // extern "C"
