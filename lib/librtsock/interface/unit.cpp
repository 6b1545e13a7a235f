/*
 * Operations on logical interfaces: requests of type 6. A unit is named by its index, by a device and a number on it,
 * or by its SNMP index; a change gives all that it knows.
 */
#include "lib/librtsock/interface/exchange.h"

namespace {

/* Of ifl_msg's change: what is there counts, also where it is 0. */
enum { CHANGE_FLAGS = 1, CHANGE_PRIVFLAGS = 2 };

struct unit_name {
    uint32_t index, device_index, unit, snmp_index;
    const char *device;
};

void put_unit(struct ifl_msg *request, struct rtslib_parts *parts, const unit_name &name)
{
    request->ifl_idx = name.index;
    request->ifd_idx = name.device_index;
    request->unit = name.unit;
    request->snmpid = name.snmp_index;
    rtslib_put_name(parts, name.device, &request->name, &request->name_len);
}

int ask(struct rtslib_cookie *cookie, const unit_name &name, uint8_t operation, void **message, void **mask)
{
    return rtslib_ask(cookie, rtslib_units, operation, message, mask,
                      [&](struct ifl_msg *request, struct rtslib_parts *parts) { put_unit(request, parts, name); });
}

/* Operations that only change refuse every other operation. */
template <typename filler>
int change(struct rtslib_cookie *cookie, const unit_name &name, uint8_t operation, filler fill)
{
    if (operation != RTM_OP_CHANGE)
        return TARGET_EOPNOTSUPP;
    return rtslib_tell(cookie, rtslib_units, operation, [&](struct ifl_msg *request, struct rtslib_parts *parts) {
        put_unit(request, parts, name);
        fill(request, parts);
    });
}

}   // namespace

int rtslib_iflm_get_by_index(struct rtslib_cookie *cookie, uint32_t index, uint8_t operation, void **message,
                             void **mask)
{
    return ask(cookie, { index, 0, 0, 0, nullptr }, operation, message, mask);
}

int rtslib_iflm_get_by_name(struct rtslib_cookie *cookie, const char *device, uint32_t unit, uint8_t operation,
                            void **message, void **mask)
{
    return ask(cookie, { 0, 0, unit, 0, device }, operation, message, mask);
}

int rtslib_iflm_get_by_device(struct rtslib_cookie *cookie, uint16_t device_index, uint32_t unit, uint8_t operation,
                              void **message, void **mask)
{
    return ask(cookie, { 0, device_index, unit, 0, nullptr }, operation, message, mask);
}

int rtslib_iflm_get_by_snmp_index(struct rtslib_cookie *cookie, uint32_t snmp_index, uint8_t operation, void **message,
                                  void **mask)
{
    return ask(cookie, { 0, 0, 0, snmp_index, nullptr }, operation, message, mask);
}

int rtslib_iflm_update(struct rtslib_cookie *cookie, uint32_t index, uint32_t device_index, uint32_t unit,
                       uint32_t snmp_index, const char *name, const void *gateway, uint8_t operation)
{
    return rtslib_tell(cookie, rtslib_units, operation, [&](struct ifl_msg *request, struct rtslib_parts *parts) {
        put_unit(request, parts, { index, device_index, unit, snmp_index, name });
        rtslib_put_sockaddr(parts, gateway, &request->gateway, &request->gateway_len);
    });
}

int rtslib_iflm_update_flags(struct rtslib_cookie *cookie, uint32_t index, uint32_t device_index, uint32_t unit,
                             uint32_t snmp_index, const char *name, uint32_t flags, uint8_t operation)
{
    return change(cookie, { index, device_index, unit, snmp_index, name }, operation,
                  [=](struct ifl_msg *request, struct rtslib_parts *) {
                      request->flags = flags;
                      request->change = CHANGE_FLAGS;
                  });
}

int rtslib_iflm_update_privflags(struct rtslib_cookie *cookie, uint32_t index, uint32_t device_index, uint32_t unit,
                                 uint32_t snmp_index, const char *name, uint32_t privflags, uint8_t priv_byte,
                                 uint8_t operation)
{
    return change(cookie, { index, device_index, unit, snmp_index, name }, operation,
                  [=](struct ifl_msg *request, struct rtslib_parts *) {
                      request->privflags = privflags;
                      request->priv_byte = priv_byte;
                      request->change = CHANGE_PRIVFLAGS;
                  });
}

int rtslib_iflm_pointchange_tlv(struct rtslib_cookie *cookie, uint32_t index, uint32_t device_index, uint32_t unit,
                                uint32_t snmp_index, const char *name, struct rts_msg_info *item)
{
    if (item == nullptr)
        return TARGET_EINVAL;
    return change(cookie, { index, device_index, unit, snmp_index, name }, RTM_OP_CHANGE,
                  [=](struct ifl_msg *, struct rtslib_parts *parts) { rtslib_put_item(parts, item); });
}
