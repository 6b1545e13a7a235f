/*
 * Names of values: tables by value, of which the last row stands for everything outside.
 *
 * Families are rows of value and name, since beyond the standard ones they are used in steps of two; the table by value
 * is made of the rows when this is compiled.
 */
#include "lib/librtsock/format/rtslib_format.h"
#include "lib/librtsock/format/value_names.h"

#include <array>

namespace {

constexpr const char *route_types[] = {
    "", "user", "ignr", "dynm", "", "perm", "", "intf", "", "dest", "ifdn", "", "iddn", "clon", "ifcl",
};
static_assert(std::size(route_types) == 15);

constexpr const char *nexthop_types[] = {
    "dscd", "rjct", "ucst", "ulst", "idxd", "indr", "hold", "rslv", "locl", "recv", "mcrt", "bcst",
    "mcst", "mgrp", "mdsc", "rtbl", "deny", "aggr", "crypto", "iflist", "sample", "flood", "service", "mcrtc",
    "comp", "unknown", "unknown", "unknown", "unknown", "unknown", "unknown", "le", "unknown", "unknown", "unknown",
    "",
};
static_assert(std::size(nexthop_types) == 36);

constexpr const char *ifstate_types[] = {
    "IFD", "IFL", "IFF", "IFA", "RTTABLE", "ROUTE", "NEXTHOP", "FIREWALL", "NAME TABLE", "COS_FABRIC", "COS_POLICY",
    "COS_RED", "COS_REWRT_TABLE", "COS_REWRT_IFLMAP", "COS_CLASS_TABLE", "COS_CLASS_IFLMAP", "COS_POLICER",
    "COS_SHAPER", "SAMPLE", "MONITOR", "RTCOS", "SYSCONF", "IFVP", "SADB", "IFVC", "ALARM", "COMMIT", "COMMIT_PROP",
    "ASP_CFG", "COS_FC_QUEUE", "L2TP tunnel CFG", "L2TP session CFG", "L2TP tunnel group", "Collector PIC CFG", "PIC",
    "KSYNC", "L2TP global config", "COS_FRAGMAP_TABLE", "COS_FRAGMAP_IFLMAP", "Generic config", "Aggregator config",
    "STP", "VLAN", "LFM", "Mesh group", "ANALYZER", "Bridge Domain", "IFBD", "KSDB", "Fabric Multicast Group",
    "Fibre Channel Fabric", "DDOS", "NOTIFY", "MARKER", "MACSEC", "UNKNOWN",
};
static_assert(std::size(ifstate_types) == 56);

constexpr const char *mtype_rcv[] = { "None", "Slot only", "All", "Selective slots", "Always TRUE", "Invalid" };

constexpr const char *daemon_issu_states[] = {
    "IDLE", "PREPARE", "READY", "SWITCHOVER_PREPARE", "SWITCHOVER_READY", "ABORT", "UNKNOWN",
};

constexpr const char *hwmgr_issu_states[] = {
    "IDLE", "DAEMON_ISSU_PREPARE", "DAEMON_ISSU_PREPARE_DONE", "FRU_ISSU", "FRU_ISSU_DONE",
    "DAEMON_SWITCHOVER_PREPARE", "DAEMON_SWITCHOVER_PREPARE_DONE", "ABORT", "UNKNOWN",
};

constexpr const char *cos_types[] = {
    "Scheduler map definition", "Scheduler map binding", "Scheduler definition", "Scheduler deletion",
    "Drop profile definition", "Drop profile binding", "Forwarding class table", "Forwarding class set",
    "Forwarding class queue map", "Classifier table", "Classifier binding", "Code point alias table",
    "Rewrite rule table", "Rewrite rule binding", "Loss priority map", "Loss priority rewrite",
    "Traffic control profile", "Traffic control binding", "Remaining traffic profile", "Interface set definition",
    "Interface set member", "Interface set profile", "Device shaping rate", "Unit shaping rate", "Queue shaping rate",
    "Guaranteed rate", "Excess rate", "Burst size", "Overhead accounting", "Buffer partition", "Shared buffer",
    "Fabric scheduler map", "Fabric priority map", "Fabric queue map", "Fragmentation map definition",
    "Fragmentation map binding", "Policer definition", "Policer binding", "Hierarchical policer", "Shaper definition",
    "Priority flow control", "Congestion notification", "Virtual output queue map", "Virtual channel group",
    "Virtual channel binding", "Multi-destination map", "Host outbound traffic", "Routing engine classifier",
    "Queue statistics request", "Class of service reset", "Invalid message type",
};
static_assert(std::size(cos_types) == 51);

constexpr const char *ppm_types[] = { "BFD", "VRRP", "CFM", "Invalid" };

struct family_row {
    uint8_t family;
    const char *name;
};
constexpr family_row families[] = {
    { 0, "unspec" }, { 1, "unix" }, { 2, "inet" }, { 3, "imp" }, { 4, "pup" }, { 5, "chaos" }, { 6, "netbios" },
    { 7, "iso" }, { 8, "ecma" }, { 9, "datakit" }, { 10, "ccitt" }, { 11, "sna" }, { 12, "DECnet" }, { 13, "DLI" },
    { 14, "LAT" }, { 15, "hylink" }, { 16, "apltlk" }, { 17, "route" }, { 18, "link" }, { 19, "xtp" }, { 20, "coip" },
    { 21, "cnt" }, { 23, "ipx" }, { 24, "sip" }, { 25, "pip" }, { 26, "isdn" }, { 27, "key" }, { 28, "inet6" },
    { 29, "natm" }, { 30, "atm" }, { 31, "hdrcmpl" }, { 32, "netgraph" }, { 39, "mpls" }, { 41, "tnp" },
    { 43, "cyclotron" }, { 45, "ccc" }, { 47, "raw-if" }, { 49, "mlppp" }, { 51, "mlfr" }, { 53, "aenet" },
    { 55, "apos" }, { 57, "tcc" }, { 59, "auth" }, { 61, "mlfr-uni-nni" }, { 63, "vpls" }, { 65, "any" },
    { 67, "rlsq" }, { 69, "comp-dev" }, { 71, "msvc" }, { 73, "ethernet-switching" }, { 75, "vmembers" },
    { 77, "device-route" }, { 79, "ethernet-io" }, { 81, "container" }, { 83, "MSTI" }, { 85, "dhcp-snooping" },
    { 87, "rms" }, { 89, "fibre-channel" }, { 91, "fc-fmembers" }, { 93, "fabric-multicast" },
    { 95, "fabric-replication" }, { 97, "dc-fabric" }, { 99, "relay" }, { 101, "pppoe" },
    { 107, "multi-services-load-balancing" }, { 109, "inetvpn" }, { 111, "gtp-u" }, { 113, "steering" },
    { 115, "tarnelocal" }, { 117, "inet6vpn" }, { 119, "mcsnoop-inet" }, { 121, "mcsnoop-inet6" },
    { 123, "dhcpv6-snooping" }, { 125, "ppp" }, { 127, "satellite-vpls" }, { 129, "satellite-inet" },
    { 131, "satellite-inet6" }, { 133, "aggregated inline-services" }, { 135, "svcs-inet" }, { 137, "svcs-inet6" },
    { 139, "evpn-mcsnoop" }, { 141, "evpn-mcsnoop-v6" }, { 143, "bier" }, { 145, "crh" },
};

/* By value, with one row more for all that have none. */
constexpr auto family_names = [] {
    std::array<const char *, families[std::size(families) - 1].family + 2> names = {};
    names.fill("unknown");
    for (const family_row &row : families)
        names[row.family] = row.name;
    return names;
}();

}   // namespace

const char *format_name_of(std::span<const char *const> names, int value)
{
    size_t last = names.size() - 1;
    return names[value < 0 || size_t(value) > last ? last : size_t(value)];
}

const char *rtslib_format_rtm_type(int type)
{
    return format_name_of(rtm_types, type);
}

const char *rtslib_format_op(int operation)
{
    return format_name_of(rtm_ops, operation);
}

const char *rtslib_format_route_type(int type)
{
    return format_name_of(route_types, type);
}

const char *rtslib_format_nexthop_type(int type)
{
    return format_name_of(nexthop_types, type);
}

const char *rtslib_format_ifstate_type(int type)
{
    return format_name_of(ifstate_types, type);
}

const char *rtslib_format_mtype_rcv(int value)
{
    return format_name_of(mtype_rcv, value);
}

const char *rtslib_format_daemon_issu_state(int state)
{
    return format_name_of(daemon_issu_states, state);
}

const char *rtslib_format_hwmgr_issu_state(int state)
{
    return format_name_of(hwmgr_issu_states, state);
}

const char *rtslib_format_cos_type(int type)
{
    return format_name_of(cos_types, type);
}

const char *rtslib_format_ppm_type(int type)
{
    return format_name_of(ppm_types, type);
}

const char *rtslib_format_ifsclim_subtype(int subtype)
{
    return subtype == 0 ? "IFS EndOfChain" : "Unknown";
}

const char *rtslib_format_af(int family)
{
    return format_name_of(family_names, family);
}

const char *rtslib_format_lb_attr(int attribute)
{
    static constexpr struct {
        int attribute;
        const char *name;
    } rows[] = {
        { 0, "None" }, { 1, "Flow label PUSH" }, { 2, "Entropy label" }, { 4, "Stitching point" },
        { 8, "Flow label POP" },
    };
    for (const auto &row : rows) {
        if (row.attribute == attribute)
            return row.name;
    }
    return "Unknown";
}
