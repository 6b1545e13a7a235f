/*
 * Call reader: finds calls, "<rpc> ... </rpc>", in a stream of octets that comes in pieces. It takes anything, and
 * keeps CALL_MAX octets of it at most.
 */
#pragma once

#include <deque>
#include <stddef.h>
#include <string>

enum { CALL_MAX = 1 << 20 };   // octets of a call; a longer one is refused

struct call {
    std::string text;              // from "<rpc" to "</rpc>"; not all of it if there is a fault
    const char *fault = nullptr;   // why it cannot be carried out, or null
};

struct call_reader {
    enum { TEXT, MARKUP, QUOTED, INSTRUCTION, COMMENT, CDATA } state = TEXT;
    char quote = 0;           // that ends QUOTED
    std::string tag;          // MARKUP: what stands behind '<', as far as it matters
    char last[2] = {};        // octets before this one, within one state
    bool in_call = false;     // behind "<rpc>"
    bool stray = false;       // something else than a call was there
    bool too_long = false;
    std::string text;         // of the call, or of the markup that may begin one
};

/* Reads on. Calls that are complete are added to calls. */
void call_reader_feed(struct call_reader *reader, const char *octets, size_t length, std::deque<struct call> *calls);
/* True if something was read that is not white space, and is no complete call yet. */
bool call_reader_holds_part(const struct call_reader *reader);
/* Nothing more comes: what is held becomes a call with a fault, and the reader is as new. */
struct call call_reader_give_up(struct call_reader *reader);

/* The name of what is called. Null if the text is a call with one element in it and nothing else; or the fault, and
 * name is left alone. */
const char *call_name(const std::string &text, std::string *name);
