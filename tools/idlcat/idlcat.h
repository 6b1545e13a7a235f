/*
 * idlcat: prints messages of the routing socket, and turns one wire form into the other.
 *
 * Input is a run of messages. Each is walked over its octets, so that every line can tell where its value stands, and
 * then decoded by the library, whose word is final: what the walk shows is what a reader of that message gets, and a
 * message that the library refuses is broken, whatever the walk found.
 */
#pragma once

#include "lib/librtsock/idl/idl.h"

#include <span>
#include <stdio.h>
#include <string>
#include <vector>

enum class wire_form { tlv, idr };

struct idlcat_options {
    const struct idl_type *type = nullptr;   // of bare records; null: enveloped messages
    bool idr = false;                        // bare records are IDR
    bool hex_in = false;                     // input is hexadecimal text
    bool hex_out = false;
    bool absent = false;                     // fields that a TLV record leaves out are listed too
    bool brief = false;                      // messages are rendered, a line each
    bool convert = false;
    wire_form to = wire_form::tlv;
};

/* What is wrong with a message: where in the input, and what. */
struct idlcat_fault {
    size_t offset = 0;
    std::string text;   // empty: nothing is wrong
};

/* --- input ----------------------------------------------------------------------------------------------------- */

/* The octets of hexadecimal text: digits in pairs, white space, comments from # to the line's end. A line may begin
 * with an offset that ends in a colon, and what stands between bars or behind two spaces and a bar is a picture, so
 * that what hexdump -C and xxd print can be given back. False with where and what in fault. */
bool parse_hex(const std::string &text, std::vector<uint8_t> &octets, idlcat_fault &fault);

/* --- walks ----------------------------------------------------------------------------------------------------- */

struct walk {
    FILE *out;                        // null: nothing is printed
    std::span<const uint8_t> input;   // offsets count from its start
    bool absent;
    idlcat_fault fault;
    std::string path;                 // of the field being walked, "rts_hdr.rtsh_info[2]"
    int depth = 0;
};

/* Prints the record or choice that fills input[begin, end). False with walk.fault for what a decoder would refuse. */
bool walk_tlv(walk &w, const struct idl_type *type, size_t begin, size_t end);
bool walk_idr(walk &w, const struct idl_type *type, size_t begin, size_t end);

/* The field or member of that tag, or null. */
const struct idl_field *field_by_tag(const struct idl_type *type, uint32_t tag);
/* The header of the choice at begin, of which at most end - begin octets are there: its tag is printed. False with
 * walk.fault if it is not whole. */
struct choice_head {
    const struct idl_field *member;   // null: unknown
    size_t body, end;                 // offsets
};
bool open_choice(walk &w, const struct idl_type *type, size_t begin, size_t end, choice_head *head);

/* One line of a field: its offset, name and value. */
void print_field(const walk &w, size_t offset, const std::string &name, const std::string &value);
std::string integer_text(uint64_t value);
/* Octets as a quoted text if they are one, and in hexadecimal otherwise; long ones are cut. */
std::string octets_text(std::span<const uint8_t> octets);
/* "wanted 4 octets, 2 are left", stored with the path of the field. Gives false. */
bool set_fault(walk &w, size_t offset, const std::string &text);

/* --- messages -------------------------------------------------------------------------------------------------- */

/* Prints or converts all messages of the input; name is the file's. What was wrong goes to err, a line for each broken
 * message. The number of those. */
size_t run_messages(const idlcat_options &options, const char *name, std::span<const uint8_t> input, FILE *out,
                    FILE *err);

/* Writes the catalogue as a document. */
void print_catalogue(FILE *out);
