/*
 * The inventory of this system: who sends on the routing socket, and what its configuration blobs are about.
 *
 * Numbers are for ever: a sender's is compiled into it and a blob's stands in what the kernel has stored, so a row is
 * never moved, and a new one goes to the end of its table. Names of senders fill a column of ten letters and no more.
 */
#include "lib/librtsock/format/rtslib_format.h"
#include "lib/librtsock/format/value_names.h"

namespace {

constexpr size_t SENDER_COLUMN = 10;

/* Who has no id of its own is the kernel. */
constexpr const char *senders[] = {
    "kernel", "routing", "interface", "keld", "vrd", "keldctl", "rtsh", "rtsmon", "chassis", "card-mgr",
    "fwd-mgr", "alarms", "craft", "environ", "power", "fans", "clock", "ntp", "snmp", "mib",
    "syslog", "archive", "commit", "confdb", "cli", "netconf", "rest-api", "telemetry", "ssh", "telnet",
    "ftp", "http", "dhcp", "dhcpv6", "dhcp-relay", "dns", "tftp", "arp", "neighbor", "rt-advert",
    "icmp", "igmp", "mld", "pim", "msdp", "mc-snoop", "mc-fwd", "rip", "ospf", "ospf6",
    "isis", "bgp", "ldp", "rsvp", "mpls-oam", "bfd", "vrrp", "cfm", "lfm", "lldp",
    "lacp", "stp", "erp", "l2-learn", "l2-control", "vlan", "vpls", "evpn", "vxlan", "pbb",
    "l2tp", "ppp", "pppoe", "mlppp", "atm", "frame-rly", "tunnels", "gre", "ipsec", "ike",
    "macsec", "pki", "auth", "radius", "tacacs", "dot1x", "subscriber", "services", "ancp", "accounting",
    "firewall", "policer", "cos", "sampling", "flow-mon", "mirror", "ddos", "rpf", "nat", "idp",
    "sfw", "cgnat", "load-bal", "sdk-apps", "multi-svcs", "collector", "rpm", "twamp", "ptp", "synce",
    "optics", "otn", "fabric", "fibre-chan", "fcoe", "satellite", "vchassis", "redundancy", "ksync", "upgrade",
    "install", "license", "watchdog", "crash", "monitor", "trace", "pkt-inject", "resolver", "bier", "segment-rt",
    "unknown",
};

constexpr const char *classes[] = {
    "none", "System", "Chassis", "Interface", "Interface set", "Interface range", "Aggregated interface",
    "Link protection", "Logical tunnel", "Service interface", "Forwarding class", "Scheduler", "Scheduler map",
    "Drop profile", "Traffic control profile", "Class-of-service interface", "Classifier", "Rewrite rule",
    "Policer", "Hierarchical policer", "Firewall filter", "Filter template", "Filter binding", "Multi-field classifier",
    "Prefix list", "Sampling", "Flow monitoring", "Flow export", "Port mirroring", "Analyzer",
    "Forwarding table", "Forwarding instance", "Load balancing", "Hash key", "Reverse path", "Route resolution",
    "Fast reroute", "Multicast", "Multicast snooping", "Multicast replication", "Bridge domain", "VLAN",
    "VLAN translation", "MAC table", "MAC limit", "Mesh group", "Pseudowire", "VPLS", "EVPN", "VXLAN",
    "Provider backbone bridge", "Spanning tree", "Ring protection", "Link discovery", "Link fault management",
    "Connectivity fault management", "Periodic packets", "Bidirectional forwarding detection", "Router redundancy",
    "Storm control", "Port security", "DHCP relay", "DHCP snooping", "DHCPv6 snooping", "ARP inspection",
    "Neighbor inspection", "Source guard", "Access control", "Subscriber", "Subscriber service", "Access line",
    "Point-to-point protocol", "PPP over Ethernet", "Multilink bundle", "Layer 2 tunnel", "IP tunnel",
    "GRE tunnel", "UDP tunnel", "IPsec association", "IPsec policy", "Key exchange", "MACsec", "Key chain",
    "Certificate", "Stateful firewall", "Security zone", "Security policy", "Address book", "Application",
    "Intrusion detection", "Screen", "Network address translation", "Address pool", "Port block", "Session limit",
    "Service set", "Service chain", "Service redundancy", "Control plane protection", "Host path", "Packet injection",
    "Packet capture", "Performance monitoring", "Active measurement", "Timing", "Synchronous Ethernet", "Optics",
    "Optical transport", "Fabric", "Fabric multicast", "Fibre Channel", "Satellite", "Virtual chassis",
    "Kernel synchronisation", "Software upgrade", "License", "Telemetry", "Accounting profile", "Segment routing",
    "Replication label",
    "unknown",
};

/* What a class holds, for the classes that hold more than one kind. The last row of each stands for the rest. */
constexpr const char *periodic_minors[] = { "Session", "Adjacency", "Interface", "Statistics", "unknown" };
constexpr const char *cos_minors[] = { "Table", "Entry", "Binding", "Queue", "Statistics", "unknown" };
constexpr const char *filter_minors[] = { "Program", "Term", "Counter", "Policer", "Key", "Data", "unknown" };
constexpr const char *learning_minors[] = { "Table", "Entry", "Limit", "Move", "Flush", "unknown" };
constexpr const char *access_minors[] = { "Global", "Interface", "Session", "Link options", "Statistics", "unknown" };
constexpr const char *line_minors[] = { "Global", "Interface", "Subscriber", "unknown" };
constexpr const char *tunnel_minors[] = { "Endpoint", "Session", "Peer", "Statistics", "unknown" };
constexpr const char *security_minors[] = {
    "Zone", "Zone interface", "Policy", "Policy context", "Policy rule", "Address", "Address set", "Application",
    "Application set", "Scheduler", "Log profile", "Counter", "unknown",
};
constexpr const char *screen_minors[] = { "Profile", "Flood limit", "Scan limit", "Packet check", "unknown" };
constexpr const char *nat_minors[] = { "Rule set", "Rule", "Pool", "Pool address", "Port block", "Binding", "unknown" };
constexpr const char *key_minors[] = { "Association", "Policy", "Proposal", "Key", "Counter", "unknown" };

constexpr struct {
    int first, last;   // classes
    std::span<const char *const> names;
} minors[] = {
    { 10, 17, cos_minors },       { 18, 23, filter_minors },   { 40, 46, learning_minors },
    { 54, 58, periodic_minors },  { 68, 69, access_minors },   { 70, 70, line_minors },
    { 71, 73, access_minors },    { 74, 77, tunnel_minors },   { 78, 83, key_minors },
    { 84, 88, security_minors },  { 89, 90, screen_minors },   { 91, 93, nat_minors },
};

constexpr bool fit_column(std::span<const char *const> names)
{
    for (const char *name : names) {
        size_t length = 0;
        while (name[length] != '\0')
            length++;
        if (length > SENDER_COLUMN)
            return false;
    }
    return true;
}
static_assert(fit_column(senders));
static_assert(std::size(senders) == 131 && std::size(classes) == 121);

}   // namespace

const char *rtslib_format_msg_sender_id(int sender)
{
    return format_name_of(senders, sender);
}

const char *rtslib_gencfg_format_majortype(int major)
{
    return format_name_of(classes, major);
}

const char *rtslib_gencfg_format_minortype(int major, int minor)
{
    for (const auto &row : minors) {
        if (major >= row.first && major <= row.last)
            return format_name_of(row.names, minor);
    }
    return "unknown";
}
