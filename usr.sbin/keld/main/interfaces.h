/*
 * Interface changes: which logical interfaces came, went or changed, found at a reload and told to the server.
 *
 * A logical interface is named INTERFACE.UNIT. The lists are those of keld.h; both calls belong to the loop's thread.
 */
#pragma once

#include "usr.sbin/keld/main/keld.h"

extern "C" {

enum {
    KELD_INTERFACE_ID_SIZE = 60,   // room for an interface's name, its terminator included; a longer one is cut
    KELD_UNIT_ID_SIZE = 10,        // the same for a unit's
    KELD_NOTIFICATION_SIZE = 1024, // room for a message's text, its terminator included
    KELD_NOTIFY_QUEUE_SIZE = 64,   // texts that a new keld_notify_queue takes before it grows
};

/* Compares the committed configuration with ifl_current: adds to ifl_added, ifl_deleted and ifl_changed what is
 * different, and makes what is configured now the ifl_current. initial empties all four lists first, so that everything
 * configured counts as added. Without it nothing is done if no interface changed. A database that does not open, or
 * memory that runs out, is reported; the lists are then as they were (or empty, with initial), and the next call finds
 * the same changes again, or, if it was an initial one that failed, does its work and leaves nothing to announce. */
void keld_config_interfaces(bool initial);

/* Sends what waits in keld_notify_queue, then messages that name the entries of the lists, and empties the lists. What
 * cannot be sent is put in the queue. Any list may be null. If something was sent the next keepalive is due a whole
 * interval later. Without memory for the queue nothing is sent, which is reported, and the lists stay. Entries must be
 * no longer than keld_config_interfaces makes them. There must be a session. */
void send_notifications(struct str_array *added, struct str_array *deleted, struct str_array *changed);

/* Frees keld_notify_queue and the texts in it. */
void keld_drop_notifications(void);

}   // extern "C"
