/*
 * Prefixes and socket addresses: the forms in messages, and one plain form inside.
 *
 * Messages carry a prefix as (bits + 7) / 8 octets that are padded to whole words, and addresses of neighbours as a
 * sockaddr that begins with its own length and its family. Inside, what lies behind the bits is always zero, so that
 * two prefixes are the same exactly if they compare so.
 */
#include "platform/rtsock/linux/lx.h"

#include "platform/target.h"

#include <string.h>
#include <sys/socket.h>

#include <algorithm>

namespace {

/* Sockaddrs of the target: where the address stands, and how long the whole is. */
struct sockaddr_form {
    uint8_t family, host_family, offset, size, length;
};
constexpr sockaddr_form sockaddr_forms[] = {
    { TARGET_AF_INET, AF_INET, 4, 4, 16 },
    { TARGET_AF_INET6, AF_INET6, 8, 16, LX_SOCKADDR_MAX },
};

enum {
    LINK_INDEX_OFFSET = 2,   // of a link's sockaddr: the index of the interface, 16 bits in host order
    LINK_LENGTH_MIN = 4,
    SCOPE_OFFSET = 24,       // of an IPv6 sockaddr: the interface that the address belongs to, or 0
};

}   // namespace

unsigned lx_address_bits(int host_family)
{
    for (const sockaddr_form &form : sockaddr_forms) {
        if (form.host_family == host_family)
            return form.size * 8U;
    }
    return 0;
}

void lx_prefix_trim(struct lx_prefix *prefix)
{
    unsigned whole = prefix->bits / 8;
    if (whole >= LX_PREFIX_MAX)
        return;
    prefix->octets[whole] &= uint8_t(0xff00 >> prefix->bits % 8);
    memset(prefix->octets + whole + 1, 0, LX_PREFIX_MAX - whole - 1);
}

int lx_prefix_from(uint8_t target_family, const uint8_t *octets, uint32_t length, uint32_t bits,
                   struct lx_prefix *prefix)
{
    *prefix = {};
    int family = target_family_to_host(target_family);
    if (lx_address_bits(family) == 0)
        return TARGET_EOPNOTSUPP;
    uint32_t needed = (bits + 7) / 8;
    if (bits > lx_address_bits(family) || needed > length || (needed != 0 && octets == nullptr))
        return TARGET_EINVAL;
    prefix->family = uint8_t(family);
    prefix->bits = uint8_t(bits);
    if (needed != 0)
        memcpy(prefix->octets, octets, needed);
    lx_prefix_trim(prefix);
    return 0;
}

uint32_t lx_prefix_stored(unsigned bits)
{
    return (bits + 31) / 32 * 4;
}

bool lx_prefix_covers(const struct lx_prefix *wide, const struct lx_prefix *narrow)
{
    if (wide->family != narrow->family || wide->bits > narrow->bits)
        return false;
    struct lx_prefix cut = *narrow;
    cut.bits = wide->bits;
    lx_prefix_trim(&cut);
    return memcmp(cut.octets, wide->octets, sizeof cut.octets) == 0;
}

int lx_prefix_compare(const struct lx_prefix *a, const struct lx_prefix *b)
{
    int order = memcmp(a->octets, b->octets, sizeof a->octets);
    return order != 0 ? order : int(a->bits) - int(b->bits);
}

uint32_t lx_sockaddr_put(const struct lx_prefix *address, uint8_t *sockaddr)
{
    for (const sockaddr_form &form : sockaddr_forms) {
        if (form.host_family != address->family)
            continue;
        memset(sockaddr, 0, form.length);
        sockaddr[0] = form.length;
        sockaddr[1] = form.family;
        memcpy(sockaddr + form.offset, address->octets, form.size);
        return form.length;
    }
    return 0;
}

int lx_sockaddr_get(const uint8_t *sockaddr, uint32_t length, struct lx_prefix *address, uint32_t *ifindex)
{
    if (sockaddr == nullptr || length < 2 || sockaddr[0] < 2 || sockaddr[0] > length)
        return TARGET_EINVAL;
    if (sockaddr[1] == TARGET_AF_LINK) {
        uint16_t index;
        if (sockaddr[0] < LINK_LENGTH_MIN)
            return TARGET_EINVAL;
        memcpy(&index, sockaddr + LINK_INDEX_OFFSET, sizeof index);
        *ifindex = index;
        return 0;
    }
    for (const sockaddr_form &form : sockaddr_forms) {
        if (form.family != sockaddr[1])
            continue;
        // Trailing zero octets of a sockaddr may have been left out.
        if (sockaddr[0] <= form.offset)
            return TARGET_EINVAL;
        *address = { form.host_family, uint8_t(form.size * 8), {} };
        memcpy(address->octets, sockaddr + form.offset, std::min<size_t>(form.size, sockaddr[0] - form.offset));
        if (sockaddr[0] >= SCOPE_OFFSET + sizeof *ifindex)
            memcpy(ifindex, sockaddr + SCOPE_OFFSET, sizeof *ifindex);
        return 0;
    }
    return TARGET_EOPNOTSUPP;
}
