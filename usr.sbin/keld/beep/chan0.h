/*
 * Channel 0 messages: <greeting>, <start>, <profile>, <close>, <ok/> and <error> (RFC 3080) as records, as text
 * written and as text scanned. The scanner knows exactly this vocabulary and is no XML parser; chan0_scan.cpp tells
 * how it reads.
 */
#pragma once

#include <stddef.h>
#include <stdint.h>

extern "C" {

struct beep_frame;
struct beep_profile;
struct beep_session;

/* In front of every channel 0 message that this side sends, but for <ok/>. */
#define BEEP_MIME_HEADER "Content-Type: application/beep+xml\r\n\r\n"
enum {
    BEEP_MIME_HEADER_LEN = 38,
    mime_header_prefix_len = 14,    // "Content-Type: "
    mime_header_trailer_len = 4,    // "\r\n\r\n"
    CHAN0_TEXT_MAX = 1024,          // buffer for one channel 0 message, terminator included
};
static_assert(sizeof BEEP_MIME_HEADER - 1 == BEEP_MIME_HEADER_LEN);

/* What an <error> or <close> says. */
struct beep_diagnostic {
    int32_t code;    // three-digit reply code, RFC 3080 section 8
    char *message;   // owned, may be null
};

/* One <profile>, in a list. */
struct chan0_profile {
    struct chan0_profile *next;
    char *uri;        // owned
    char *data;       // piggyback, null if none; a block of length octets without a terminator; owned
    int32_t length;   // octets of data
    char encoded;     // 'Y': data is base64 still to be decoded; otherwise 0
};

struct chan0_msg {
    int32_t msgno;       // of the frame, or of the request sent
    uint16_t channel;    // the channel concerned
    char type;           // frame type 'M', 'R' or 'E'
    char op;             // 'g' greeting, 's' start, 'c' close and ok, 'e' error; 0 if none was found
    struct beep_diagnostic *diagnostic;   // owned, may be null
    struct chan0_profile *profiles;       // owned, may be null
};

/* Copies text, which may be null. Null if memory is out. */
[[nodiscard]] struct beep_diagnostic *beep_diagnostic_new(int32_t code, const char *text);
void beep_diagnostic_delete(struct beep_diagnostic *diagnostic);

/* Copies diagnostic and profiles deeply; both may be null. Null if memory is out; nothing is left behind then. */
[[nodiscard]] struct chan0_msg *chan0_msg_new(uint16_t channel, int32_t msgno, char type, char op,
                                              const struct beep_diagnostic *diagnostic,
                                              const struct chan0_profile *profiles);
[[nodiscard]] struct chan0_msg *chan0_msg_clone(const struct chan0_msg *msg);
void chan0_msg_delete(struct chan0_msg *msg);

/* Reads a whole message. The frame's payload is changed in place and worthless afterwards; the frame stays the
 * caller's, and the result is. A reply is matched with the oldest request in bs_chan0_sent, which is then taken off.
 * Null if the frame is not acceptable or memory is out: the reason is a development print, the session is unchanged. */
[[nodiscard]] struct chan0_msg *chan0_msg_parse(struct beep_session *session, struct beep_frame *frame);

/* The formatters write into buf of size octets, terminated, and cut what does not fit. The octets written, without
 * the terminator. Nothing is escaped. profiles is a table of count rows; piggybacks count texts, null or with null
 * entries. */
size_t chan0_fmt_greeting(char *buf, size_t size, const struct beep_profile *profiles, int count);
size_t chan0_fmt_start(char *buf, size_t size, uint16_t channel, const struct beep_profile *profiles, int count,
                       const char *const *piggybacks);
size_t chan0_fmt_profile(char *buf, size_t size, const struct beep_profile *profile, const char *piggyback,
                         int with_mime);
size_t chan0_fmt_error(char *buf, size_t size, int32_t code, const char *text);
size_t chan0_fmt_close(char *buf, size_t size, uint16_t channel, int32_t code, const char *text);

/* Class of each octet value: bit 15 may not occur, bit 1 white space. */
extern const uint16_t XML_UTF8_charset[256];
enum { XML_CLASS_SPACE = 1 << 1, XML_CLASS_FORBIDDEN = 1 << 15 };

}   // extern "C"
