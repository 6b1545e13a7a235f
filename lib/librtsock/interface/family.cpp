/*
 * Operations on the families of logical interfaces, type 7, and on their addresses, type 8.
 */
#include "lib/librtsock/interface/exchange.h"

namespace {

enum { CHANGE_ITEMS = 4096 };   // of ifa_msg's change: the items are what changes

/* What says which address is meant; a prefix without a bit says nothing. */
struct address_name {
    uint32_t index;
    uint8_t family;
    const void *dest;
    uint16_t dest_bits;
    const void *local;
    uint16_t local_bits;
};

void put_address(struct ifa_msg *request, struct rtslib_parts *parts, const address_name &name)
{
    if ((name.dest == nullptr && name.dest_bits != 0) || (name.local == nullptr && name.local_bits != 0)) {
        parts->error = TARGET_EINVAL;
        return;
    }
    request->ifl_idx = name.index;
    request->af = name.family;
    request->dest_bits = name.dest_bits;
    rtslib_put_prefix(parts, name.dest, name.dest_bits, &request->dest, &request->dest_len);
    request->local_bits = name.local_bits;
    rtslib_put_prefix(parts, name.local, name.local_bits, &request->local, &request->local_len);
}

int ask_address(struct rtslib_cookie *cookie, const address_name &name, uint8_t operation, void **message, void **mask)
{
    return rtslib_ask(cookie, rtslib_addresses, operation, message, mask,
                      [&](struct ifa_msg *request, struct rtslib_parts *parts) { put_address(request, parts, name); });
}

}   // namespace

int rtslib_iffm_get_by_index(struct rtslib_cookie *cookie, uint32_t index, uint8_t family, uint8_t operation,
                             void **message, void **mask)
{
    return rtslib_ask(cookie, rtslib_families, operation, message, mask,
                      [=](struct iff_msg *request, struct rtslib_parts *) {
                          request->ifl_idx = index;
                          request->af = family;
                      });
}

int rtslib_iffm_get_by_dev_name(struct rtslib_cookie *cookie, uint8_t family, const char *device, uint32_t unit,
                                uint8_t operation, void **message, void **mask)
{
    return rtslib_ask(cookie, rtslib_families, operation, message, mask,
                      [=](struct iff_msg *request, struct rtslib_parts *parts) {
                          request->af = family;
                          request->subunit = unit;
                          rtslib_put_name(parts, device, &request->name, &request->name_len);
                      });
}

int rtslib_iffm_update(struct rtslib_cookie *cookie, uint32_t index, uint8_t family, uint32_t aux_word1,
                       uint32_t aux_word2, uint16_t aux_half1, uint16_t aux_half2, const void *options,
                       uint32_t options_length, uint8_t operation)
{
    return rtslib_tell(cookie, rtslib_families, operation, [=](struct iff_msg *request, struct rtslib_parts *parts) {
        request->ifl_idx = index;
        request->af = family;
        request->aux_word1 = aux_word1;
        request->aux_word2 = aux_word2;
        request->aux_half1 = aux_half1;
        request->aux_half2 = aux_half2;
        rtslib_put_octets(parts, options, options_length, &request->options, &request->options_len);
    });
}

int rtslib_ifam_get_by_index(struct rtslib_cookie *cookie, uint32_t index, uint8_t family, uint8_t operation,
                             void **message, void **mask)
{
    return ask_address(cookie, { index, family, nullptr, 0, nullptr, 0 }, operation, message, mask);
}

int rtslib_ifam_get_by_local(struct rtslib_cookie *cookie, uint32_t index, uint8_t family, const void *local,
                             uint16_t local_bits, uint8_t operation, void **message, void **mask)
{
    return ask_address(cookie, { index, family, nullptr, 0, local, local_bits }, operation, message, mask);
}

int rtslib_ifam_get_by_dest(struct rtslib_cookie *cookie, uint32_t index, uint8_t family, const void *dest,
                            uint16_t dest_bits, uint8_t operation, void **message, void **mask)
{
    return ask_address(cookie, { index, family, dest, dest_bits, nullptr, 0 }, operation, message, mask);
}

int rtslib_ifam_get_by_local_dest(struct rtslib_cookie *cookie, uint32_t index, uint8_t family, const void *dest,
                                  uint16_t dest_bits, const void *local, uint16_t local_bits, uint8_t operation,
                                  void **message, void **mask)
{
    return ask_address(cookie, { index, family, dest, dest_bits, local, local_bits }, operation, message, mask);
}

int rtslib_ifam_update(struct rtslib_cookie *cookie, uint32_t index, uint8_t family, const void *dest,
                       uint16_t dest_bits, const void *local, uint16_t local_bits, uint8_t operation)
{
    return rtslib_tell(cookie, rtslib_addresses, operation, [=](struct ifa_msg *request, struct rtslib_parts *parts) {
        put_address(request, parts, { index, family, dest, dest_bits, local, local_bits });
    });
}

int rtslib_ifa_pointchange(struct rtslib_cookie *cookie, uint32_t index, uint8_t family, const void *prefix,
                           uint16_t prefix_bits, const void *stream, uint32_t length)
{
    if (stream == nullptr || length == 0 || prefix == nullptr || prefix_bits == 0)
        return TARGET_EINVAL;
    return rtslib_tell(cookie, rtslib_addresses, RTM_OP_CHANGE,
                       [=](struct ifa_msg *request, struct rtslib_parts *parts) {
                           put_address(request, parts, { index, family, nullptr, 0, prefix, prefix_bits });
                           request->change = CHANGE_ITEMS;
                           if (parts->error == 0)
                               parts->error = rtslib_convert_address(request, &parts->cursor, stream, length);
                       });
}
