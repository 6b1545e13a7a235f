/*
 * Next hops that are a service, such as the tunnels of L2TP. An addition carries the service's description and the
 * interfaces that it is for.
 */
#include "lib/librtsock/nexthop_private.h"
#include "platform/target.h"

#include <stdio.h>
#include <string.h>

namespace {

enum {
    ID_BITS = 28,                // of id_word; the kind stands above
    ID_MASK = (1 << ID_BITS) - 1,
    KIND_MASK = 0xf,
    L2TP_NAME_MAX = 31,          // characters of the client's name in an L2TP service's
};

static_assert(sizeof(struct rnh_service) == 388);

/* 0, or 22 for interfaces that no service can have. */
int check_interfaces(const uint32_t *ifidx, uint32_t count, uint8_t kind)
{
    if (count > RTSLIB_SERVICE_INDEX_MAX || (count == 0) != (ifidx == nullptr))
        return TARGET_EINVAL;
    for (uint32_t i = 0; i < count; i++) {
        if (ifidx[i] == 0)
            return TARGET_EINVAL;
    }
    return kind == RTSLIB_SERVICE_KIND_SINGLE && count != 1 ? int(TARGET_EINVAL) : 0;
}

/* What an addition carries beside the service. */
struct carried {
    uint8_t byte1, byte2;
    uint16_t half1, half2;
    uint32_t tunnel_id;
};

/* 0 or 12. */
int put_service(struct rnh_msg *request, uint8_t **cursor, const struct rtslib_service *service, const uint32_t *ifidx,
                uint32_t count)
{
    auto *record =
        static_cast<struct rnh_service *>(rtslib_request_room(request, cursor, sizeof(struct rnh_service)));
    if (record == nullptr)
        return TARGET_ENOMEM;
    record->id_word = (service->id & ID_MASK) | uint32_t(service->id_kind & KIND_MASK) << ID_BITS;
    // Kept on purpose: 256 interfaces and more wrap around here, where one would expect a wider count. The list has all.
    record->count = uint8_t(count);
    record->kind = service->kind;
    record->owner = service->owner;
    if (service->name != nullptr)
        memcpy(record->name, service->name, strnlen(service->name, RTSLIB_SERVICE_NAME_MAX - 1));
    request->services = record;
    request->services_len = 1;
    if (count == 0)
        return 0;
    auto *copy = rtslib_request_octets(request, cursor, ifidx, count * sizeof *ifidx);
    if (copy == nullptr)
        return TARGET_ENOMEM;
    request->ifidx_list = reinterpret_cast<uint32_t *>(copy);
    request->ifidx_list_len = count;
    request->ifidx = ifidx[0];
    return 0;
}

int add(struct rtslib_cookie *cookie, const uint32_t *ifidx, uint32_t count, uint8_t family,
        const struct rtslib_service *service, const struct carried *carried, void **message, void **mask)
{
    int result = rtslib_request_check(cookie, RTM_OP_ADD_GET, RTSLIB_ANSWERED, message);
    if (result == 0)
        result = check_interfaces(ifidx, count, service->kind);
    if (result != 0)
        return result;
    uint8_t *cursor;
    struct rnh_msg *request = rtslib_nh_request(cookie, &rtslib_nh_service, RTM_OP_ADD_GET, 0, family, &cursor);
    if (request == nullptr)
        return TARGET_ENOMEM;
    request->aux_byte1 = carried->byte1;
    request->aux_byte2 = carried->byte2;
    request->aux_half1 = carried->half1;
    request->aux_half2 = carried->half2;
    request->tunnel_id = carried->tunnel_id;
    request->owner = service->owner;
    if (put_service(request, &cursor, service, ifidx, count) != 0) {
        rtslib_msg_free(cookie, request);
        return TARGET_ENOMEM;
    }
    return rtslib_request_ask(cookie, request, rtslib_long_msg_read_idl, message, mask);
}

}   // namespace

int rtslib_rnhm_l2tp_service_add(struct rtslib_cookie *cookie, const uint32_t *ifidx, uint8_t family, uint8_t aux_byte1,
                                 const char *name, uint32_t tunnel_id, uint8_t aux_byte2, uint16_t aux_half1,
                                 uint16_t aux_half2, void **message, void **mask)
{
    if (message != nullptr)
        *message = nullptr;
    if (name == nullptr)
        return TARGET_EINVAL;
    char text[RTSLIB_SERVICE_NAME_MAX];
    snprintf(text, sizeof text, "%.*s-%d-%d-%d", int(L2TP_NAME_MAX), name, int(tunnel_id), aux_half1, aux_half2);
    const struct rtslib_service service = { tunnel_id, aux_byte2, 0, 0, text };
    const struct carried carried = { aux_byte1, aux_byte2, aux_half1, aux_half2, tunnel_id };
    return add(cookie, ifidx, ifidx != nullptr ? 1 : 0, family, &service, &carried, message, mask);
}

int rtslib_rnhm_l2tp_service_delete_by_index(struct rtslib_cookie *cookie, uint32_t index, uint8_t family)
{
    return rtslib_nh_delete(cookie, &rtslib_nh_service, index, family);
}

int rtslib_rnhm_l2tp_service_get_by_index(struct rtslib_cookie *cookie, uint32_t index, uint8_t family,
                                          uint8_t operation, void **message, void **mask)
{
    const struct rtslib_nh_query get = { operation, index, family, 0, 0 };
    return rtslib_nh_get(cookie, &rtslib_nh_service, &get, message, mask);
}

int rtslib_rnhm_service_add(struct rtslib_cookie *cookie, const uint32_t *ifidx, uint32_t count, uint8_t family,
                            const struct rtslib_service *service, void **message, void **mask)
{
    const struct carried nothing = {};
    if (message != nullptr)
        *message = nullptr;
    return service != nullptr ? add(cookie, ifidx, count, family, service, &nothing, message, mask)
                              : int(TARGET_EINVAL);
}

int rtslib_rnhm_service_delete_by_index(struct rtslib_cookie *cookie, uint32_t index, uint8_t family)
{
    return rtslib_nh_delete(cookie, &rtslib_nh_service, index, family);
}

int rtslib_rnhm_service_get_by_index(struct rtslib_cookie *cookie, uint32_t index, uint8_t family, uint8_t operation,
                                     void **message, void **mask)
{
    const struct rtslib_nh_query get = { operation, index, family, 0, 0 };
    return rtslib_nh_get(cookie, &rtslib_nh_service, &get, message, mask);
}

int rtslib_rnhm_service_get_by_owner(struct rtslib_cookie *cookie, uint32_t index, uint8_t family, uint8_t aux_byte1,
                                     uint8_t owner, void **message, void **mask)
{
    const struct rtslib_nh_query get = { RTM_OP_GETNEXT, index, family, aux_byte1, owner };
    return rtslib_nh_get(cookie, &rtslib_nh_service, &get, message, mask);
}
