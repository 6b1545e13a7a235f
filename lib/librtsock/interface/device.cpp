/*
 * Operations on devices: requests of type 5. What an operation adds to the index is in its filler.
 */
#include "lib/librtsock/interface/exchange.h"

namespace {

/* What adds and changes carry, each what it has. */
struct device_data {
    const char *name;
    uint16_t aux_half;
    uint32_t aux_word1, aux_word2, change, flags;
    const void *address, *hw_address, *alt_address;
    rtslib_tlv_converter converter;
    const void *stream;
    uint32_t length;
};

/* What a null stream means to a converter of the client's, that converter knows. */
void put_stream(struct rtslib_parts *parts, struct ifdev_msg *request, const device_data &data)
{
    if ((data.stream == nullptr && data.converter == nullptr) || parts->error != 0)
        return;
    rtslib_tlv_converter convert = data.converter != nullptr ? data.converter : rtslib_convert_device;
    int error = convert(request, &parts->cursor, data.stream, data.length);
    parts->error = error < 0 ? int(TARGET_EINVAL) : error;
    request->tlv_marker = 1;
}

int tell(struct rtslib_cookie *cookie, uint8_t operation, uint16_t index, const device_data &data)
{
    return rtslib_tell(cookie, rtslib_devices, operation, [&](struct ifdev_msg *request, struct rtslib_parts *parts) {
        request->idx = index;
        request->aux_half = data.aux_half;
        request->aux_word1 = data.aux_word1;
        request->aux_word2 = data.aux_word2;
        request->change = data.change;
        request->flags = data.flags;
        rtslib_put_name(parts, data.name, &request->name, &request->name_len);
        rtslib_put_sockaddr(parts, data.address, &request->addr, &request->addr_len);
        rtslib_put_sockaddr(parts, data.hw_address, &request->hw_addr, &request->hw_addr_len);
        rtslib_put_sockaddr(parts, data.alt_address, &request->alt_addr, &request->alt_addr_len);
        put_stream(parts, request, data);
    });
}

int ask(struct rtslib_cookie *cookie, uint16_t index, uint32_t snmp_index, const char *name, uint8_t operation,
        void **message, void **mask)
{
    return rtslib_ask(cookie, rtslib_devices, operation, message, mask,
                      [&](struct ifdev_msg *request, struct rtslib_parts *parts) {
                          request->idx = index;
                          request->snmpid = snmp_index;
                          rtslib_put_name(parts, name, &request->name, &request->name_len);
                      });
}

}   // namespace

int rtslib_ifdm_get_by_index(struct rtslib_cookie *cookie, uint16_t index, uint8_t operation, void **message,
                             void **mask)
{
    return ask(cookie, index, 0, nullptr, operation, message, mask);
}

int rtslib_ifdm_get_by_name(struct rtslib_cookie *cookie, const char *name, uint8_t operation, void **message,
                            void **mask)
{
    return ask(cookie, 0, 0, name, operation, message, mask);
}

int rtslib_ifdm_get_by_snmp_index(struct rtslib_cookie *cookie, uint32_t snmp_index, uint8_t operation, void **message,
                                  void **mask)
{
    if (operation == RTM_OP_GET)
        return ask(cookie, 0, snmp_index, nullptr, operation, message, mask);
    if (message != nullptr)
        *message = nullptr;
    return TARGET_EINVAL;
}

int rtslib_ifdm_add(struct rtslib_cookie *cookie, const char *name, uint16_t index, uint16_t aux_half,
                    const void *address, const void *hw_address, const void *alt_address)
{
    return rtslib_ifdm_add_with_tlvs(cookie, name, index, aux_half, 0, 0, address, hw_address, alt_address, nullptr, 0);
}

int rtslib_ifdm_add_with_tlvs(struct rtslib_cookie *cookie, const char *name, uint16_t index, uint16_t aux_half,
                              uint32_t aux_word1, uint32_t aux_word2, const void *address, const void *hw_address,
                              const void *alt_address, const void *stream, uint32_t length)
{
    device_data data = {};
    data.name = name;
    data.aux_half = aux_half;
    data.aux_word1 = aux_word1;
    data.aux_word2 = aux_word2;
    data.address = address;
    data.hw_address = hw_address;
    data.alt_address = alt_address;
    data.stream = stream;
    data.length = length;
    return tell(cookie, RTM_OP_ADD, index, data);
}

int rtslib_ifdm_change_addr(struct rtslib_cookie *cookie, uint16_t index, uint32_t change, const void *address,
                            const void *hw_address)
{
    device_data data = {};
    data.change = change;
    data.address = address;
    data.hw_address = hw_address;
    return tell(cookie, RTM_OP_CHANGE, index, data);
}

int rtslib_ifdm_change_flags(struct rtslib_cookie *cookie, uint16_t index, uint32_t change, uint32_t flags)
{
    device_data data = {};
    data.change = change;
    data.flags = flags;
    return tell(cookie, RTM_OP_CHANGE, index, data);
}

int rtslib_ifdm_change_tlvs(struct rtslib_cookie *cookie, uint16_t index, uint32_t change, const void *stream,
                            uint32_t length)
{
    return rtslib_ifdm_pointchange(cookie, index, change, nullptr, stream, length);
}

int rtslib_ifdm_pointchange(struct rtslib_cookie *cookie, uint16_t index, uint32_t change,
                            rtslib_tlv_converter converter, const void *stream, uint32_t length)
{
    device_data data = {};
    data.change = change;
    data.converter = converter;
    data.stream = stream;
    data.length = length;
    return tell(cookie, RTM_OP_CHANGE, index, data);
}
