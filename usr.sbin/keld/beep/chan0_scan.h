/*
 * Scanner of channel 0 messages: what it is given and what it leaves. For chan0_parse alone.
 */
#pragma once

#include "usr.sbin/keld/beep/chan0.h"

extern "C" {

enum { SCAN_DEPTH = 256 };

/* A value in the payload. An offset of 0 means that none was seen: octet 0 is never a value's first. */
struct scan_value {
    int32_t length, offset;
};

struct scan {
    char *payload;
    int32_t size;    // octets of payload; the octet behind them is ours too
    int32_t pos;     // of the octet being scanned
    char frame_type;
    char op;         // 0 until the root element is known

    int top;                           // of the stack
    uint8_t states[SCAN_DEPTH];
    const char *names[SCAN_DEPTH];     // element opened at that height

    const char *match;                 // what MATCH still expects
    const char *error;                 // what MATCH, ATTR_EQ and ATTR_QUOTE say when they fail
    int level;                         // depth of element content, 0 outside the root element
    int brackets;                      // consecutive ']' in a CDATA section

    int32_t *count_target;             // pending targets, each may be null
    int32_t *offset_target;
    char **address_target;

    struct scan_value features, localize, server_name, number, code, xml_lang, text, uri, encoding, content;
    struct chan0_profile *profiles;    // found so far; they point into the payload
    struct chan0_profile **profiles_end;
    struct chan0_profile *current;     // the one being filled, or null
    int profile_count;
};

/* Scans the payload, which it changes in place: values become strings. s is zeroed but for payload, size, frame_type
 * and profiles_end, which points to profiles. True if the payload scans as one message. Kept on purpose: a lone CDATA
 * section does, too. The records in profiles are the caller's to free in either case; what they point to is the
 * payload's. */
[[nodiscard]] bool scan_payload(struct scan *s);
/* Ends a string at the given offset. Left out if that is neither in the payload nor right behind it. */
void scan_store_zero(struct scan *s, int64_t at);

}   // extern "C"
