/*
 * Addresses and prefixes: as text, bare, and in sockaddrs of the target's form, which begin with their length and their
 * family. What differs between the families stands in one row each.
 */
#include "tools/rtsh/rtsh.h"

#include "platform/target.h"
#include "tools/idlcat/idlcat.h"

#include <arpa/inet.h>
#include <string.h>

#include <algorithm>
#include <iterator>

namespace {

enum { BITS_PER_OCTET = 8, ADDRESS_MAX = 16 };

constexpr struct address_form {
    uint8_t family;
    int host;
    uint8_t octets;         // of the address
    uint8_t sockaddr;       // of a sockaddr
    uint8_t address_at;     // in there
} forms[] = {
    { TARGET_AF_INET, AF_INET, 4, 16, 4 },
    { TARGET_AF_INET6, AF_INET6, 16, 28, 8 },
};

const struct address_form *form_of(uint8_t family)
{
    const auto *form = std::find_if(std::begin(forms), std::end(forms), [=](auto &f) { return f.family == family; });
    return form != std::end(forms) ? form : nullptr;
}

std::string bare_text(const struct address_form &form, const uint8_t *octets, size_t length)
{
    uint8_t whole[ADDRESS_MAX] = {};
    if (octets != nullptr)
        memcpy(whole, octets, std::min<size_t>(length, form.octets));
    char text[INET6_ADDRSTRLEN];
    return inet_ntop(form.host, whole, text, sizeof text);
}

bool has_bits_behind(const struct rtsh_prefix &prefix)
{
    for (unsigned bit = prefix.bits; bit < sizeof prefix.octets * BITS_PER_OCTET; bit++) {
        if ((prefix.octets[bit / BITS_PER_OCTET] >> (BITS_PER_OCTET - 1 - bit % BITS_PER_OCTET) & 1) != 0)
            return true;
    }
    return false;
}

}   // namespace

bool rtsh_parse_address(const std::string &word, struct rtsh_prefix *address)
{
    for (const auto &form : forms) {
        if (inet_pton(form.host, word.c_str(), address->octets) != 1)
            continue;
        address->family = form.family;
        address->bits = uint16_t(form.octets * BITS_PER_OCTET);
        return true;
    }
    return false;
}

std::string rtsh_parse_prefix(const std::string &word, struct rtsh_prefix *prefix)
{
    size_t slash = word.find('/');
    if (!rtsh_parse_address(word.substr(0, slash), prefix))
        return "'" + word + "' is no prefix: an address and a number of bits, such as 10.0.0.0/8, are wanted";
    uint32_t bits = prefix->bits;
    if (slash != std::string::npos && !rtsh_parse_number(word.substr(slash + 1), prefix->bits, &bits))
        return "'" + word + "' has no number of bits from 0 to " + std::to_string(prefix->bits);
    prefix->bits = uint16_t(bits);
    return has_bits_behind(*prefix) ? "'" + word + "' has bits set behind its length" : "";
}

std::string rtsh_prefix_text(const uint8_t *octets, size_t length, uint8_t family, uint16_t bits)
{
    const struct address_form *form = form_of(family);
    std::string text = form != nullptr ? bare_text(*form, octets, length) : octets_text({ octets, length });
    if (form != nullptr && bits > form->octets * BITS_PER_OCTET && length > form->octets)
        text += "," + bare_text(*form, octets + form->octets, length - form->octets);
    return text + "/" + std::to_string(bits);
}

std::string rtsh_address_text(const uint8_t *octets, size_t length, uint8_t family)
{
    const struct address_form *form = form_of(family);
    if (form != nullptr && length == form->octets)
        return bare_text(*form, octets, length);
    // The gateway of a route may be of another family.
    const struct address_form *own = length > 1 ? form_of(octets[1]) : nullptr;
    if (own != nullptr && length == own->sockaddr && octets[0] == length)
        return bare_text(*own, octets + own->address_at, own->octets);
    return octets_text({ octets, length });
}

void rtsh_put_sockaddr(const struct rtsh_prefix &address, uint8_t sockaddr[RTSH_SOCKADDR_MAX])
{
    const struct address_form *form = form_of(address.family);
    memset(sockaddr, 0, RTSH_SOCKADDR_MAX);
    sockaddr[0] = form->sockaddr;
    sockaddr[1] = form->family;
    memcpy(sockaddr + form->address_at, address.octets, form->octets);
}
