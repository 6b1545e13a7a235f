/*
 * Chassis: whether this router is one routing engine of a cluster, and which one.
 *
 * All of it stands in the stanza `chassis` of the configuration. It is read whenever dax_open_db opens the committed
 * one; until the next such opening the answers stay, whether a database is open or not. At start, and without the
 * stanza, the router stands alone: no cluster, master, no capabilities.
 */
#pragma once

#include <stdint.h>

extern "C" {

/* True if `cluster` is configured. */
bool nmchassis_cluster_is_enabled(void);
/* False on a backup routing engine: `routing-engine backup`. */
bool mcontrol_re_is_master(void);

struct nmchassis_cap {
    uint8_t nc_capabilities;   // bit 0: a backup routing engine makes no connections of its own
};
/* The chassis's capabilities; null if none are configured. The record is the platform's. */
extern const struct nmchassis_cap *nmchassis_cap_p;

/* Reads the stanza in the open database. True if anything is not as it was. A value that breaks its rule is reported
 * and taken for absent. */
bool nmchassis_read_config(void);

}   // extern "C"
