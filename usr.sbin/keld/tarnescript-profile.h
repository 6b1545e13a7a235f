/*
 * Management script profile: remote procedure calls of the server, carried out by the local management daemon.
 *
 * The server opens a channel and calls with MSG; nothing is ever called from here. For each channel there is a
 * connection of its own to the management daemon, under the server's user name. The text of a call goes there as it
 * comes, and what the daemon says goes back in RPY frames, up to the line "</rpc-reply>". Calls of a channel come
 * one after the other: the engine holds a MSG with another number back until this one is answered.
 */
#pragma once

#include "platform/ev/ev.h"
#include "platform/mgmt/mgmt_sock.h"
#include "usr.sbin/keld/beep/beep.h"

#include <stdint.h>

extern "C" {

#define TS_PROFILE_URI KELD_URI_BASE "/beep/TARNESCRIPT"

enum { TS_BUFFER_SIZE = 4057 };   // octets of a reply's frame, the MIME header of the first one included

/* One channel's relay: the channel's user data. */
struct ts_channel {
    struct mgmt_sock *tc_sock;   // owned; null after the management daemon was lost
    evFileID tc_read_id;         // null while not registered
    evFileID tc_write_id;        // registered while a call waits to be written
    uint16_t tc_channel;         // the channel's number
    uint16_t tc_canonical;       // 1: each line of a reply goes out at once, as a frame of its own
    char *tc_buf;                // owned; TS_BUFFER_SIZE octets of reply that were not sent
    char *tc_ptr;                // where the next octets go
    char *tc_end;                // end of tc_buf
};

/* Fills a row of the engine's profile table, which is zeroed. */
void ts_pro_init(struct beep_profile *row);

/* The row's functions. A channel is accepted (1) if the management daemon takes the connection, which may hold up
 * the loop for MGMT_HANDSHAKE_S and another second; "<mode><canonical/></mode>" at the end of the piggyback chooses
 * canonical mode. */
uint8_t ts_start_indicate(const char *data, int32_t length, struct beep_channel *channel,
                          struct beep_start_reply *reply);
uint8_t ts_start_confirm(const char *data, int32_t length, struct beep_channel *channel);   // 0: never asked for
int ts_frame(struct beep_session *session, void *user_data, struct beep_frame *frame);
void ts_stop(void *user_data);   // frees the record; null allowed

/* The loop's functions for the connection to the management daemon; uap is the record. Replies go to keld_sp. */
void ts_read_event(evContext ctx, void *uap, int fd, int events);
/* Also called directly, then with any fd. Watches the descriptor for as long as octets are left. */
void ts_flush_event(evContext ctx, void *uap, int fd, int events);

}   // extern "C"
