/*
 * Show command: what operators can ask the daemon, and the documents with which it answers.
 *
 * Commands come over the command server's socket, /var/run/keld.sock. Each runs between two events of the loop, so a
 * document shows one moment.
 */
#pragma once

#include "platform/ev/ev.h"
#include "platform/mgmt/menu.h"
#include "platform/mgmt/mgmt_sock.h"
#include "platform/mgmt/xml_out.h"

#include <time.h>

extern "C" {

#define KELD_UI_NAMESPACE KELD_URI_BASE "/tarne/" KELD_RELEASE "/tarne-kel"

extern const struct menu_row master_menu[];      // ends with a row of zeros
extern const struct odl_tag odl_kel_tags[];      // a placeholder first; ends with a row of zeros

/* Serves master_menu on ctx. 0, or -1 with errno if that cannot be; it has been logged then. */
int keld_ui_init(evContext ctx);
/* End-of-file test of the XML layer: non-zero if nothing more will come on msp. EINVAL and 1 for null; 1 for a handle
 * without read buffer, after an insist line. */
int keld_ui_eof(struct mgmt_sock *msp);

/* Handlers of the menu. Always 0. */
int xml_show_daemon_version(struct mgmt_sock *msp, const struct menu_row *row);
int xml_show_connection(struct mgmt_sock *msp, const struct menu_row *row = nullptr);   // row is not looked at

/* Sends <date-time> for a point in time and <elapsed-time> for a number of seconds; what is null is left out. */
void xml_show_times(struct mgmt_sock *msp, const time_t *date, const time_t *elapsed);

}   // extern "C"
