/*
 * What people see: an object a line, name and value pairs of what is there; all fields as idlcat lists them; errors by
 * their name.
 */
#include "tools/rtsh/rtsh.h"

#include "lib/librtsock/format/rtslib_format.h"
#include "platform/target.h"
#include "tools/idlcat/idlcat.h"

#include <string.h>

namespace {

/* Results of the library, the target's numbers, and what they mean here. */
constexpr struct {
    int result;
    const char *name, *text;
} results[] = {
    { 1, "EPERM", "only the superuser may do that" },
    { TARGET_ENOENT, "ENOENT", "no such object" },
    { TARGET_EIO, "EIO", "the reply is malformed" },
    { TARGET_ENXIO, "ENXIO", "no such device" },
    { TARGET_ENOMEM, "ENOMEM", "no memory" },
    { 13, "EACCES", "not permitted" },
    { 16, "EBUSY", "the object is in use" },
    { TARGET_EEXIST, "EEXIST", "the object exists already" },
    { 19, "ENODEV", "no such interface" },
    { TARGET_EINVAL, "EINVAL", "the kernel takes no such values" },
    { TARGET_ENOSPC, "ENOSPC", "no room" },
    { TARGET_EAGAIN, "EAGAIN", "the kernel gave no reply" },
    { TARGET_EMSGSIZE, "EMSGSIZE", "the message is too long" },
    { TARGET_EPROTONOSUPPORT, "EPROTONOSUPPORT", "no such family" },
    { TARGET_EOPNOTSUPP, "EOPNOTSUPP", "the kernel has no such operation" },
    { 47, "EAFNOSUPPORT", "no such family" },
    { TARGET_EADDRNOTAVAIL, "EADDRNOTAVAIL", "no such address" },
    { 51, "ENETUNREACH", "the network is not reachable" },
    { TARGET_ENOBUFS, "ENOBUFS", "no room for the message" },
    { TARGET_ECONNREFUSED, "ECONNREFUSED", "refused" },
    { 65, "EHOSTUNREACH", "the next hop is not reachable" },
};

/* " WORD NUMBER", or nothing for 0. */
std::string number_unless_zero(const char *word, uint64_t number)
{
    return number != 0 ? std::string(" ") + word + " " + std::to_string(number) : "";
}

/* All fields, present or, in what came as IDR, every one. */
void print_fields(const struct rtsh &shell, const void *message, const void *mask)
{
    void *octets = nullptr;
    uint32_t length = 0;
    int result = rtslib_msg_idl_encode(shell.cookie, message, mask, &octets, &length);
    if (result != 0) {
        rtsh_report(shell, "printing", result);
        return;
    }
    run_messages({}, "reply", { static_cast<const uint8_t *>(octets), length }, shell.out, stderr);
    rtslib_msg_free(shell.cookie, octets);
}

/* As traces show it; what does not fit is cut, which the library reports. */
void print_brief(const struct rtsh &shell, const void *message)
{
    char text[RTSLIB_FORMAT_FULL_SIZE] = "";
    rtslib_format_output(shell.cookie, text, sizeof text, RTSLIB_FORMAT_MODE_BRIEF, message);
    text[strcspn(text, "\n")] = '\0';
    fprintf(shell.out, "%s\n", text);
}

void print_line(const struct rtsh &shell, const void *message, const void *mask, const std::string &line)
{
    if (shell.all)
        print_fields(shell, message, mask);
    else if (shell.brief)
        print_brief(shell, message);
    else
        fprintf(shell.out, "%s\n", line.c_str());
}

std::string gateway_text(const struct rt_msg &route)
{
    std::string text;
    for (uint32_t i = 0; i < route.nh_entries_len; i++) {
        const struct rt_nh_entry &entry = route.nh_entries[i];
        for (uint32_t k = 0; k < entry.addrs_len; k++)
            text += " via " + rtsh_address_text(entry.addrs[k].sa, entry.addrs[k].sa_len, route.af);
        text += number_unless_zero("interface", entry.ifidx);
    }
    return text;
}

}   // namespace

void rtsh_print_table(const struct rtsh &shell, const void *message, const void *mask)
{
    const auto &table = *static_cast<const struct rtb_msg *>(message);
    std::string name = rtsh_text(table.name, table.name_len);
    print_line(shell, message, mask, (name.empty() ? "-" : name) + " index " + std::to_string(table.tid) + " family " +
                                         rtsh_name(RTSH_FAMILIES, table.af) +
                                         number_unless_zero("tenant", table.tenant));
}

void rtsh_print_route(const struct rtsh &shell, const void *message, const void *mask, const std::string &table)
{
    const auto &route = *static_cast<const struct rt_msg *>(message);
    print_line(shell, message, mask,
               rtsh_prefix_text(route.prefix, route.prefix_len, route.af, route.prefix_bits) + " type " +
                   rtsh_name(RTSH_ROUTE_TYPES, route.rt_type) +
                   number_unless_zero("nexthop", route.nhidx) + gateway_text(route) + " table " + table +
                   number_unless_zero("ack", route.ack_index));
}

void rtsh_print_match(const struct rtsh &shell, const void *message, const void *mask, const std::string &table)
{
    const auto &match = *static_cast<const struct rtm_msg *>(message);
    print_line(shell, message, mask,
               rtsh_prefix_text(match.prefix, match.prefix_len, match.af, match.prefix_bits) + " type " +
                   rtsh_name(RTSH_ROUTE_TYPES, match.rt_type) +
                   number_unless_zero("nexthop", match.nhidx) + number_unless_zero("interface", match.ifidx) +
                   " table " + table);
}

void rtsh_print_nexthop(const struct rtsh &shell, const void *message, const void *mask)
{
    const auto &nexthop = *static_cast<const struct rnh_msg *>(message);
    std::string address;
    if (nexthop.addr_len != 0)
        address = " address " + rtsh_address_text(nexthop.addr, nexthop.addr_len, nexthop.af);
    print_line(shell, message, mask,
               std::to_string(nexthop.idx) + " family " + rtsh_name(RTSH_FAMILIES, nexthop.af) + " type " +
                   rtsh_name(RTSH_NEXTHOP_TYPES, nexthop.nh) +
                   number_unless_zero("interface", nexthop.ifidx) + address +
                   number_unless_zero("references", nexthop.refcnt));
}

std::string rtsh_text(const char *text, uint32_t length)
{
    return text != nullptr ? std::string(text, strnlen(text, length)) : "";
}

bool rtsh_report(const struct rtsh &shell, const std::string &what, int result)
{
    for (const auto &row : results) {
        if (row.result != result)
            continue;
        rtsh_complain(shell, what + ": " + row.name + " (" + std::to_string(result) + "): " + row.text);
        return false;
    }
    int host = target_errno_to_host(result);
    const char *name = result > 0 ? strerrorname_np(host) : nullptr;
    std::string text = result < 0 ? "the reply does not belong to the request" : strerror(host);
    std::string label = name != nullptr ? name : "error";
    rtsh_complain(shell, what + ": " + label + " (" + std::to_string(result) + "): " + text);
    return false;
}

void rtsh_complain(const struct rtsh &shell, const std::string &text)
{
    fflush(shell.out);
    std::string place = shell.line != 0 ? "line " + std::to_string(shell.line) + ": " : "";
    fprintf(stderr, "rtsh: %s%s\n", place.c_str(), text.c_str());
}
