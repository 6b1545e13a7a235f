/*
 * Reading netlink messages. The host's kernel wrote them, but its version is not ours: lengths are believed only as far
 * as there are octets, and a fixed part or a value that is shorter than we know it counts as absent.
 *
 *   - a datagram is messages, each at a multiple of 4 octets, its length in its header;
 *   - a message is a fixed part by its type, and attributes behind it;
 *   - an attribute is a length that counts its own 4 octets, a number with two flag bits above it, and octets; some
 *     hold attributes again.
 */
#include "platform/rtsock/linux/nl.h"

#include <string.h>

#include <algorithm>

namespace {

struct nl_attr behind(struct nl_attr rest, size_t taken)
{
    taken = std::min(taken, rest.length);
    return { rest.octets + taken, rest.length - taken };
}

}   // namespace

int nl_messages(const uint8_t *octets, size_t length, nl_take_func take, void *context)
{
    while (length >= NLMSG_HDRLEN) {
        const auto *message = reinterpret_cast<const struct nlmsghdr *>(octets);
        if (message->nlmsg_len < NLMSG_HDRLEN || message->nlmsg_len > length)
            return 0;
        int error = take(message, context);
        if (error != 0)
            return error;
        size_t step = std::min<size_t>(NLMSG_ALIGN(size_t(message->nlmsg_len)), length);
        octets += step;
        length -= step;
    }
    return 0;
}

const void *nl_fixed(const struct nlmsghdr *message, size_t length)
{
    return message->nlmsg_len >= NLMSG_HDRLEN + length ? reinterpret_cast<const uint8_t *>(message) + NLMSG_HDRLEN
                                                       : nullptr;
}

bool nl_next_attr(struct nl_attr *rest, uint16_t *number, struct nl_attr *attr)
{
    struct nlattr head;
    if (rest->length < sizeof head)
        return false;
    memcpy(&head, rest->octets, sizeof head);
    if (head.nla_len < sizeof head || head.nla_len > rest->length)
        return false;
    *number = head.nla_type & NLA_TYPE_MASK;
    *attr = { rest->octets + sizeof head, head.nla_len - sizeof head };
    *rest = behind(*rest, NLA_ALIGN(size_t(head.nla_len)));
    return true;
}

void nl_nested(struct nl_attr outer, struct nl_attr *attrs, size_t count)
{
    std::fill_n(attrs, count, nl_attr{});
    uint16_t number;
    struct nl_attr attr;
    while (outer.octets != nullptr && nl_next_attr(&outer, &number, &attr)) {
        if (number < count)
            attrs[number] = attr;
    }
}

void nl_attrs(const struct nlmsghdr *message, size_t fixed, struct nl_attr *attrs, size_t count)
{
    const struct nl_attr whole = { reinterpret_cast<const uint8_t *>(message), message->nlmsg_len };
    nl_nested(behind(whole, NLMSG_HDRLEN + NLMSG_ALIGN(fixed)), attrs, count);
}

uint32_t nl_u32(struct nl_attr attr, uint32_t otherwise)
{
    if (attr.octets == nullptr || attr.length < sizeof otherwise)
        return otherwise;
    memcpy(&otherwise, attr.octets, sizeof otherwise);
    return otherwise;
}

size_t nl_copy(struct nl_attr attr, void *to, size_t size)
{
    memset(to, 0, size);
    if (attr.octets == nullptr)
        return 0;
    size_t length = std::min(attr.length, size);
    memcpy(to, attr.octets, length);
    return length;
}

size_t nl_text(struct nl_attr attr, char *to, size_t size)
{
    (void)nl_copy(attr, to, size - 1);
    to[size - 1] = '\0';
    return strlen(to);
}
