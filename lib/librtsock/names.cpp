/*
 * The compiled-in catalogue of message types and operations: names, and the versions that this library speaks.
 *
 * Versions count up from 98 and are written as letters in the table's text form, which begins "nbbhhejkfe": 110 types,
 * interface version 98, then each type. The kernel returns a table of the same layout; rtslib_open compares the two.
 */
#include "lib/librtsock/rtslib_names.h"

extern "C" {

const char *const rtm_types[RTSLIB_TYPES + 1] = {
    "nop", "rttable", "route", "redirect", "rtstats", "ifdev", "iflogical", "iffamily", "ifaddr", "ifstats",
    "nexthop", "resolve", "rtmatch", "mgroup", "firewall", "ifdstats", "iflstats", "ifdadd", "ifdest", "ifmismatch",
    "ifdalarm", "nhopstats", "dfwstats", "firewall log", "pfe info", "pfe stats", "rtsock stats", "ifvc", "rt class",
    "rt class stats", "iftable", "cos info", "cos fabric", "cos fqstats", "cos class", "cos policy", "cos red",
    "cos rewrt", "cos policer", "cos shaper", "sampling", "sa info", "pkcs info", "monitoring", "mon stats",
    "pk-crypto-sys reply", "ifvp", "ifstate", "sysconf", "commit", "mac_db", "mac_stats", "sadb_stats", "asp config",
    "asp ipsec", "cos_fc_q", "l2tp config", "l2tp async", "cpic params", "cpic file spec", "cpic iif_cp_map",
    "cpic iif_fspec_map", "cpic dst_unavail", "cpic file_fail", "cpic ovload", "cpic mem_ovload", "cpic stats",
    "cpic file_stats", "pic", "ksync", "iff vpls_stats", "cos fragmap", "gencfg", "flow_aggr_hist", "flow_aggr_inst",
    "flow_aggr_flt", "flow_aggr_flt_fst", "flow_aggr_cfg", "flow_aggr_stats", "async opaque", "jsr", "pfe dwn map",
    "stp", "NH-comp", "vlan", "ifsclinfo", "gencfg-stats", "mesh-group", "analyzer", "bridge-domain", "ifbdmesg",
    "ksdb", "bulkstats", "fabric mc group", "fc fabric", "voq stats", "pkt inject", "ddos", "notify msg",
    "kuack messages", "residx", "sysstats", "marker", "macsec", "mac-pinning", "libcos-fcinfo", "libcos-misc-info",
    "libcos-intf-info", "rr-aspath", "rts-err",
    "unknown",
};

const uint8_t rtslib_versions[RTSLIB_TYPES + 1] = {
    RTSLIB_TYPES, RTSLIB_INTERFACE_VERSION,
    98, 104, 104, 101, 106, 107, 102, 101, 0, 109, 99, 99, 99, 100, 99, 100, 99, 99, 101, 101, 101, 101, 101, 99, 100,
    99, 113, 99, 100, 98, 98, 98, 99, 98, 99, 98, 99, 98, 98, 99, 99, 99, 101, 99, 99, 100, 99, 99, 99, 99, 101, 101,
    102, 99, 98, 105, 100, 101, 100, 100, 100, 100, 100, 100, 100, 100, 100, 100, 100, 100, 98, 105, 101, 101, 101,
    101, 101, 99, 98, 99, 98, 98, 99, 98, 98, 105, 98, 98, 98, 99, 0, 0, 98, 98, 98, 98, 99, 98, 99, 98, 98, 99, 99,
    0, 0, 0, 0, 0, 0,
};

const char *const rtm_ops[RTSLIB_OPS + 1] = {
    "nop", "add", "change", "delete", "get", "getnext", "clear", "deleteall", "add_get", "chg_get", "unknown",
};

const char *const rtm_ops_brief[RTSLIB_OPS + 1] = {
    "nop", "add", "chg", "del", "get", "get_nxt", "clr", "del_all", "add_get", "chg_get", "ukn",
};

}   // extern "C"
