/*
 * Identification: what a router says on an outbound SSH connection before its SSH server begins to speak.
 *
 *   MSG-ID: DEVICE-CONN-INFO        always
 *   MSG-VER: V1                     always
 *   DEVICE-ID: text                 always
 *   HOST-KEY: text, zero octet      a router with a secret; an empty line if it has no host key
 *   HMAC: 40 hexadecimal digits     likewise; an empty line if it could not be calculated
 *   (an empty line)                 always
 *
 * Lines end with CR LF. The text of HOST-KEY is the content of a key file and may hold line ends of its own. The HMAC
 * is HMAC-SHA1 with the secret as key over that text without the zero octet, or over nothing.
 */
#pragma once

#include <stddef.h>
#include <string>
#include <vector>

enum { IDENT_LINE_MAX = 1024, IDENT_KEY_MAX = 16 << 10 };   // octets of a line, of a HOST-KEY line; a longer one is bad

struct ident {
    std::string device_id;
    std::string host_key;   // key text; empty if the router named none
    std::string hmac;       // 40 digits, or empty
};

struct ident_reader {
    struct ident ident;            // what was read so far
    std::string line;              // that is being read
    std::string optional;          // kinds of the lines behind DEVICE-ID: 'K'ey, 'M'AC, 'B'lank
    unsigned fixed_lines = 0;      // how many of the three that are always there
    bool complete = false;         // the next octet is the SSH server's first
    const char *fault = nullptr;   // why this is no identification; nothing more is read then
};

/* Reads on, up to length octets. The number of octets taken: all of them, unless the identification is complete (what
 * follows is SSH and not looked at) or bad. Lines that ended, empty ones apart, are added to lines without their ends.
 * The pieces in which octets come make no difference. */
size_t ident_feed(struct ident_reader *reader, const char *octets, size_t length, std::vector<std::string> *lines);

enum class ident_proof { MATCH, MISMATCH, ABSENT, IMPOSSIBLE };   // the last: no memory
/* Whether the HMAC is that of the key text with the secret. */
[[nodiscard]] enum ident_proof ident_check(const struct ident *ident, const std::string &secret);

/* The line of an ssh client's file of known hosts that gives the name alias to the router's key, LF included. Empty if
 * there is no key, or if the text is not a type and a key of the form that such files take. */
std::string ident_known_host(const struct ident *ident, const std::string &alias);
