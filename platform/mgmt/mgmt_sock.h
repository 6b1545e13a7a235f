/*
 * Management socket: text lines both ways over a Unix stream socket, for the management daemon's clients and for the
 * programs that take commands.
 *
 * A handle owns a descriptor, which never blocks, a read buffer and a write buffer. Input comes as whole lines. Output
 * is taken into the write buffer and leaves it with fwbuf_flush, so that a peer that does not read costs memory up to a
 * bound, and no time. The descriptor is for the caller's event loop: readable means that mgmt_sock_input has something
 * to say, also when the line came together with one that was taken before.
 *
 * A handle belongs to one thread. Every function here takes a null handle: it then fails with EINVAL, or does nothing
 * where it has no result. Results: -1 or null is failure with errno set.
 */
#pragma once

#include <stddef.h>
#include <stdint.h>
#include <sys/types.h>

extern "C" {

#define MGMT_VRD_SOCKET "/var/run/vrd.sock"   // below the root

enum {
    MGMT_LINE_MAX = 32 << 20,     // octets of one line of input, without its end
    FWBUF_MAX = 32 << 20,         // octets that wait for a peer that does not read
    MGMT_LOGIN_MAX = 1024,        // room for a login line, or a hello line, as text
    MGMT_HANDSHAKE_S = 10,        // for the management daemon's answer
};

/* --- records ------------------------------------------------------------------------------------------------------ */

enum : uint8_t { FBUF_EOF = 1 };   // fb_flags

/* Read buffer. Only fb_flags and fb_line_max are for users. */
struct fbuf {
    uint8_t fb_flags;      // FBUF_EOF: nothing more will come, for the reason in fb_errno
    int fb_errno;          // ECONNRESET after an orderly end of the stream
    char *fb_data;         // owned; null until the first octet
    size_t fb_size;        // of fb_data
    size_t fb_line_max;    // set by the user: of a longer line at least so many octets are kept; 0: it is kept whole
    size_t fb_start;       // where the next line begins
    size_t fb_scanned;     // no line end stands before this, from fb_start on
    size_t fb_end;         // where the next octets go
};

/* Write buffer: what was taken and has not been written. */
struct fwbuf {
    int fw_fd;             // the handle's
    int fw_errno;          // why writing failed for good; 0 while it works
    char *fw_data;         // owned; null while nothing waits
    size_t fw_size;        // of fw_data
    size_t fw_start;       // the octets that wait stand from here
    size_t fw_end;         // up to here
};

enum : uint32_t { MGMT_SOCK_NOWAIT = 8 };   // ms_flags

struct mgmt_sock {
    int ms_fd;               // owned
    uint32_t ms_flags;       // MGMT_SOCK_NOWAIT: input never waits for longer than ms_wait says; without it, and with a
                             // ms_wait of (0, 0), it waits as long as it takes
    struct fbuf *ms_fbp;     // owned
    struct fwbuf ms_fwb;
    struct {
        int32_t mw_sec, mw_usec;
    } ms_wait;               // set by the user: how long input may wait, all calls together, from the first one that
                             // finds it set until it is cleared; then it gives nothing more. (0, 0): not at all
    int64_t ms_deadline_us;  // of ms_wait, on the event clock; 0 while none runs
};

/* --- handles ----------------------------------------------------------------------------------------------------- */

/* Connects to the management daemon and sends login, a line without its end. Does not wait: a daemon with a full
 * queue of callers counts as absent. Null if there is none, or with EINVAL for a login that is null or holds a line
 * end. */
[[nodiscard]] struct mgmt_sock *mgmt_sock_vrd(const char *login);
/* A handle on fd, a connected stream socket, with MGMT_SOCK_NOWAIT set. Takes fd, and makes it non-blocking. Null if
 * memory is out or fd is none; fd is then still the caller's. */
[[nodiscard]] struct mgmt_sock *mgmt_sock_open_fd(int fd);
/* Drops what was not written, closes the descriptor, frees the handle. flags is 0. End the loop's registrations
 * first. */
void mgmt_sock_close(struct mgmt_sock *msp, int flags);

/* The address of the Unix socket at path, below the root. 0, or -1 with ENAMETOOLONG if no such address can hold it. */
struct sockaddr_un;
[[nodiscard]] int mgmt_sock_address(struct sockaddr_un *address, const char *path);

/* --- input and output -------------------------------------------------------------------------------------------- */

enum : uint32_t { MGMT_INPUT_LINE = 0x100000 };   // flags of mgmt_sock_input: a line, and without its end

/* The next line as text, without its line feed; cut at a zero octet. The handle's, valid until the next call; the
 * caller may write to its octets. Null with
 *   EAGAIN   no whole line is there (yet), and the time that it may wait is over
 *   EINTR    a signal came while waiting
 *   others   FBUF_EOF is set: the stream has ended, failed, or sent a line longer than MGMT_LINE_MAX (EMSGSIZE).
 *            Octets behind the last line end are dropped. It stays so.
 * flags is MGMT_INPUT_LINE. */
char *mgmt_sock_input(struct mgmt_sock *msp, uint32_t flags);
/* The same, under the name by which the XML layer reads. */
char *mgmt_sock_get_xml(struct mgmt_sock *msp, uint32_t flags);
/* Takes length octets, all or none: copies them and may write some at once, without waiting. length; or -1: ENOBUFS if
 * FWBUF_MAX octets would wait, ENOMEM, or the reason for which writing failed before. 0 only if length is 0. */
[[nodiscard]] ssize_t mgmt_sock_write(struct mgmt_sock *msp, const void *data, size_t length, int flags);

enum { FWBUF_NOWAIT = 8 };   // flags of fwbuf_flush: only what goes at once; without it, all, however long it takes

/* Writes out. 1 if octets remain: call again when the descriptor is writable. 0 if all is written. -1 if writing has
 * failed for good or fwb is null: what waited is dropped, and mgmt_sock_write will fail too. */
int fwbuf_flush(struct fwbuf *fwb, int flags);

/* The opening exchange of the XML protocol on a new handle: says hello for host and, if *answer_due is not 0, waits
 * up to MGMT_HANDSHAKE_S for a line that begins with "<hello", and clears *answer_due. Octets of host that no host
 * name has are sent as '?'. 0; -1 with EPROTO for another line, ETIMEDOUT, or as mgmt_sock_input. flags is 0. */
[[nodiscard]] int xml_initial_handshake(struct mgmt_sock *msp, const char *host, int *answer_due, int flags);

}   // extern "C"
