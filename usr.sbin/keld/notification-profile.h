/*
 * Notification profile: the channel on which the daemon talks to the service-deployment server.
 *
 * It is opened from here as soon as a session is ready, with the router's identity in the start request. The server's
 * confirmation gives the keepalive interval. Notification texts and keepalives go out on it; redirects to another
 * server come in. There is one such channel in the process, and one pending redirect at most.
 */
#pragma once

#include "usr.sbin/keld/beep/beep.h"
#include "usr.sbin/keld/config.h"

#include <stdint.h>
#include <time.h>

extern "C" {

#define TKEL_PROFILE_URI KELD_URI_BASE "/beep/tkel-notification/1.0"

enum { TKEL_DEFAULT_KEEPALIVE_S = 15 };

/* Kept by the daemon core and written here: keepalive when the channel is confirmed, last_rcvd_time then and with every
 * message. */
extern int32_t keepalive;        // seconds between two keepalives; 0 if the server asks for less than 3 seconds
extern time_t last_rcvd_time;    // when the server was last heard on this channel; 0: not in this session

/* Fills a row of the engine's profile table. */
void tkel_pro_init(struct beep_profile *row);
/* Asks for the channel. Its number, or 0 if the request could not be sent. */
uint16_t tkel_start(struct beep_session *session);
/* Sends text as one message. 0; -1 if the channel is not there (yet, or any more) or cannot take it. Copies text. */
[[nodiscard]] int tkel_log(struct beep_session *session, const char *text);
/* If a redirect is pending: stores its target in ks_addr and ks_port of *server, forgets it, and gives server.
 * Otherwise null, and *server is left alone. */
struct keld_server *redirect_get_and_reset(struct keld_server *server);

}   // extern "C"
