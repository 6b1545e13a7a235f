/*
 * Prefixes and addresses as text.
 *
 * What a prefix looks like is a matter of its family: a table of families and writers, and one generic writer for all
 * that have no row or whose writer finds a length that it has no text for. Writers ask for the octets they need one by
 * one, and what is not there is 0: no length that a message tells leads outside it.
 */
#include "lib/librtsock/format/address.h"
#include "lib/librtsock/format/rtslib_format.h"
#include "platform/target.h"

#include <arpa/inet.h>
#include <netdb.h>
#include <stdio.h>
#include <string.h>

#include <algorithm>
#include <iterator>

namespace {

/* Octets of the longest value: more than any family has, a multicast group with its source included. */
enum { VALUE_MAX = 64, MAC_SIZE = 6, LABEL_BITS = 20, INET_BITS = 32, INET_SIZE = 4, INET6_SIZE = 16 };

struct value {
    const uint8_t *octets;
    size_t length;
    uint32_t bits;
    int form;

    uint8_t octet(size_t at) const { return at < length ? octets[at] : 0; }
    uint16_t half(size_t at) const { return uint16_t(octet(at) << 8 | octet(at + 1)); }
    uint32_t word(size_t at) const { return uint32_t(half(at)) << 16 | half(at + 2); }
    size_t covered() const { return std::min<size_t>((size_t(bits) + 7) / 8, VALUE_MAX); }
};

void put_dotted(struct format_out *out, const struct value &v, size_t count)
{
    for (size_t i = 0; i < count; i++) {
        if (i > 0)
            format_put(out, ".", 1);
        format_put_unsigned(out, v.octet(i));
    }
}

/* Pairs. The second octet of a last half pair counts as 0. */
void put_colons(struct format_out *out, const struct value &v, size_t count)
{
    for (size_t i = 0; i < count; i += 2) {
        if (i > 0)
            format_put(out, ":", 1);
        format_put_hex(out, i + 1 < count ? v.half(i) : uint32_t(v.octet(i)) << 8);
    }
}

/* MAC addresses and their like. */
void put_octets(struct format_out *out, const struct value &v, size_t at, size_t count)
{
    for (size_t i = 0; i < count; i++) {
        if (i > 0)
            format_put(out, ":", 1);
        format_put_octet(out, v.octet(at + i));
    }
}

/* An address of size octets in the host's way. False if there is no text for it. */
bool put_address(struct format_out *out, const struct value &v, size_t at, int host_family, size_t size)
{
    uint8_t address[INET6_SIZE];
    char text[INET6_ADDRSTRLEN];
    for (size_t i = 0; i < size; i++)
        address[i] = v.octet(at + i);
    if (inet_ntop(host_family, address, text, sizeof text) == nullptr)
        return false;
    format_put_string(out, text);
    return true;
}

void put_generic(struct format_out *out, const struct value &v)
{
    if (v.bits == 0) {
        format_put_string(out, "0/0");
        return;
    }
    if (v.form == RTSLIB_FORM_COLON)
        put_colons(out, v, v.covered());
    else
        put_dotted(out, v, v.covered());
    format_put(out, "/", 1);
    format_put_unsigned(out, v.bits);
}

/* --- families: each false for a length that is left to the generic writer --------------------------------------- */

/* Where the label begins, and whether the bottom of the stack is printed. Other lengths: at the front, and not. */
constexpr struct {
    uint32_t bits;
    uint8_t at;
    bool bottom;
} label_rows[] = { { 36, 2, false }, { 40, 2, true }, { 52, 4, false }, { 56, 4, true } };

bool put_label(struct format_out *out, const struct value &v)
{
    if (v.form != RTSLIB_FORM_FAMILY || v.bits < LABEL_BITS)
        return false;
    if (v.bits == INET_BITS) {
        format_put_unsigned(out, v.word(0));
        return true;
    }
    size_t at = 0;
    bool bottom = false;
    for (const auto &row : label_rows) {
        if (row.bits == v.bits) {
            at = row.at;
            bottom = row.bottom;
        }
    }
    uint32_t three = uint32_t(v.half(at)) << 8 | v.octet(at + 2);
    format_put_unsigned(out, three >> 4);
    if (bottom) {
        format_put_string(out, "(S=");
        format_put_unsigned(out, three & 1);
        format_put(out, ")", 1);
    }
    return true;
}

bool put_vpls(struct format_out *out, const struct value &v)
{
    if (v.bits == INET_BITS) {
        format_put_unsigned(out, v.word(0));
        return true;
    }
    for (size_t i = 0; i < v.covered(); i++) {
        if (i > 0)
            format_put(out, ".", 1);
        format_put_hex(out, v.octet(i));
    }
    return true;
}

bool put_inet_group(struct format_out *out, const struct value &v)
{
    format_put_string(out, ", ");
    if (put_address(out, v, 2, AF_INET, INET_SIZE))
        return true;
    perror("inet_ntop failed");
    return false;
}

/* A VLAN, and behind it a MAC address, a multicast group, the block of all groups, or anything. */
bool put_switching(struct format_out *out, const struct value &v)
{
    enum { MAC_BITS = 64, GROUP_BITS = 48, BLOCK_BITS = 20 };
    format_put_unsigned(out, v.half(0));
    if (v.bits == GROUP_BITS)
        return put_inet_group(out, v);
    format_put_string(out, ", ");
    if (v.bits == MAC_BITS) {
        put_octets(out, v, 2, MAC_SIZE);
    } else if (v.bits == BLOCK_BITS) {
        format_put_unsigned(out, v.octet(2) & 0xf0U);
        format_put_string(out, ".0.0.0");
    } else {
        format_put(out, "*", 1);
    }
    return true;
}

void put_pair(struct format_out *out, uint32_t first, uint32_t second)
{
    format_put_unsigned(out, first);
    format_put_string(out, ", ");
    format_put_unsigned(out, second);
}

bool put_members(struct format_out *out, const struct value &v)
{
    if (v.half(4) == 1)
        put_pair(out, v.word(0), v.half(8));
    return true;
}

bool put_msti(struct format_out *out, const struct value &v)
{
    put_pair(out, v.word(0), v.half(4));
    return true;
}

bool put_fibre_channel(struct format_out *out, const struct value &v)
{
    enum { DOMAIN_BITS = 3 };
    format_put_unsigned(out, v.half(0));
    format_put_string(out, ", ");
    if (v.bits < DOMAIN_BITS) {
        format_put(out, "*", 1);
        return true;
    }
    format_put_octet(out, v.octet(2));
    format_put_string(out, ", ");
    put_octets(out, v, 3, 3);
    return true;
}

void put_words(struct format_out *out, const struct value &v, size_t count)
{
    for (size_t i = 0; i < count; i++) {
        if (i > 0)
            format_put(out, ":", 1);
        format_put_unsigned(out, v.word(i * sizeof(uint32_t)));
    }
}

bool put_two_words(struct format_out *out, const struct value &v)
{
    put_words(out, v, 2);
    return true;
}

bool put_three_words(struct format_out *out, const struct value &v)
{
    put_words(out, v, 3);
    return true;
}

/* A MAC address, an address and a VLAN, which is written first. */
void put_snooped(struct format_out *out, const struct value &v, int host_family, size_t size)
{
    format_put_unsigned(out, v.half(MAC_SIZE + size));
    format_put(out, "/", 1);
    put_octets(out, v, 0, MAC_SIZE);
    format_put(out, "/", 1);
    (void)put_address(out, v, MAC_SIZE, host_family, size);
}

bool put_snooped_inet(struct format_out *out, const struct value &v)
{
    put_snooped(out, v, AF_INET, INET_SIZE);
    return true;
}

bool put_snooped_inet6(struct format_out *out, const struct value &v)
{
    put_snooped(out, v, AF_INET6, INET6_SIZE);
    return true;
}

struct family_row {
    uint8_t family;
    uint8_t form;   // that form 0 becomes
    bool (*put)(struct format_out *out, const struct value &v);
};
constexpr family_row families[] = {
    { TARGET_AF_INET, RTSLIB_FORM_DOTTED, nullptr },
    { TARGET_AF_INET6, RTSLIB_FORM_COLON, nullptr },
    { 119, RTSLIB_FORM_DOTTED, nullptr },
    { 121, RTSLIB_FORM_COLON, nullptr },
    { 129, RTSLIB_FORM_DOTTED, nullptr },
    { 131, RTSLIB_FORM_COLON, nullptr },
    { 139, RTSLIB_FORM_DOTTED, nullptr },
    { 141, RTSLIB_FORM_COLON, nullptr },
    { 39, RTSLIB_FORM_FAMILY, put_label },
    { 63, RTSLIB_FORM_FAMILY, put_vpls },
    { 73, RTSLIB_FORM_FAMILY, put_switching },
    { 75, RTSLIB_FORM_FAMILY, put_members },
    { 83, RTSLIB_FORM_FAMILY, put_msti },
    { 85, RTSLIB_FORM_FAMILY, put_snooped_inet },
    { 89, RTSLIB_FORM_FAMILY, put_fibre_channel },
    { 91, RTSLIB_FORM_FAMILY, put_members },
    { 93, RTSLIB_FORM_FAMILY, put_two_words },
    { 95, RTSLIB_FORM_FAMILY, put_three_words },
    { 123, RTSLIB_FORM_FAMILY, put_snooped_inet6 },
    { 127, RTSLIB_FORM_FAMILY, put_vpls },
};

const family_row *find_family(int family)
{
    const auto *row = std::find_if(std::begin(families), std::end(families),
                                   [=](const family_row &r) { return r.family == family; });
    return row != std::end(families) ? row : nullptr;
}

/* Where an address stands in a sockaddr: behind the port in inet, behind port and flow label in inet6, behind two
 * octets of padding in the families that have a text of their own. */
enum { SA_HEAD = 2, SA_VALUE = 4, SA_INET6_VALUE = 8 };

bool put_host_name(struct format_out *out, const struct value &v)
{
    const uint8_t address[INET_SIZE] = { v.octet(0), v.octet(1), v.octet(2), v.octet(3) };
    const struct hostent *host = gethostbyaddr(address, sizeof address, AF_INET);
    if (host == nullptr || host->h_name == nullptr)
        return false;
    format_put_foreign(out, host->h_name, strlen(host->h_name));
    return true;
}

void put_inet_sockaddr(struct format_out *out, const struct value &v, bool names)
{
    if (!names || !put_host_name(out, v))
        put_dotted(out, v, INET_SIZE);
}

void put_any_sockaddr(struct format_out *out, int family, const struct value &v)
{
    format_put_string(out, " af=");
    format_put_unsigned(out, uint8_t(family));
    for (size_t i = 0; i < v.length; i++) {
        format_put(out, " ", 1);
        format_put_octet(out, v.octets[i]);
    }
}

void put_value(struct format_out *out, struct value v, int family)
{
    const family_row *row = find_family(family);
    if (row != nullptr && v.form == RTSLIB_FORM_FAMILY)
        v.form = row->form;
    struct format_out before = *out;
    if (row != nullptr && row->put != nullptr && row->put(out, v))
        return;
    *out = before;
    put_generic(out, v);
}

}   // namespace

void format_put_prefix(struct format_out *out, const uint8_t *octets, size_t length, uint32_t bits, int family,
                       int form)
{
    put_value(out, { octets, octets != nullptr ? length : 0, bits, form }, family);
}

int rtslib_format_prefix(char *buffer, size_t size, const void *value, uint32_t bits, int family, int form)
{
    struct format_out out = format_out_open(buffer, size);
    format_put_prefix(&out, static_cast<const uint8_t *>(value), VALUE_MAX, bits, family, form);
    return format_out_fits(&out) ? 0 : -1;
}

void format_put_sockaddr(struct format_out *out, const uint8_t *octets, size_t length, bool names)
{
    if (octets == nullptr || length < SA_HEAD)
        return;
    length = std::min<size_t>(length, std::max<size_t>(octets[0], SA_HEAD));
    int family = octets[1];
    const family_row *row = find_family(family);
    // Some families are inet or inet6 under another number.
    int form = row != nullptr && row->put == nullptr ? row->form : int(RTSLIB_FORM_FAMILY);
    size_t at = form == RTSLIB_FORM_COLON ? SA_INET6_VALUE : SA_VALUE;
    size_t left = length > at ? length - at : 0;
    const struct value v = { octets + std::min(at, length), left, uint32_t(left) * 8, RTSLIB_FORM_FAMILY };
    if (form == RTSLIB_FORM_DOTTED)
        put_inet_sockaddr(out, v, names && family == TARGET_AF_INET);
    else if (form == RTSLIB_FORM_COLON)
        put_colons(out, v, INET6_SIZE);
    else if (row != nullptr && row->put != nullptr && left > 0)
        put_value(out, v, family);
    else
        put_any_sockaddr(out, family, { octets + SA_HEAD, length - SA_HEAD, 0, 0 });
}

int rtslib_format_sockaddr(char *buffer, size_t size, const void *sockaddr, int names)
{
    struct format_out out = format_out_open(buffer, size);
    const auto *octets = static_cast<const uint8_t *>(sockaddr);
    if (octets != nullptr)
        format_put_sockaddr(&out, octets, std::max<size_t>(octets[0], SA_HEAD), names != 0);
    return format_out_fits(&out) ? 0 : -1;
}
