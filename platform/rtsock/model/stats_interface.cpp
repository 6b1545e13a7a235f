/*
 * Statistics of devices, units and families, which are raw. Everything counts 0: no packet passes through the model. So
 * a clear only asks whether there is something to clear.
 */
#include "platform/rtsock/model/rm.h"

#include "lib/librtsock/rtslib_names.h"
#include "lib/librtsock/rtslib_raw.h"
#include "platform/target.h"

#include <inttypes.h>
#include <stddef.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>

namespace {

enum { NAME_MAX_OCTETS = UINT8_MAX };

/* A whole request of the layout, and the name behind it as a text of its own; "" where there is none. */
template <typename layout> struct asked {
    layout fixed;
    char name[NAME_MAX_OCTETS + 1];
};

template <typename layout> int read_fixed(const struct rk_request *request, layout *fixed)
{
    bool known = request->op == RTM_OP_GET || request->op == RTM_OP_GETNEXT || request->op == RTM_OP_CLEAR;
    if (request->record != nullptr || !known)
        return TARGET_EOPNOTSUPP;
    if (request->length < sizeof *fixed)
        return TARGET_EINVAL;
    memcpy(fixed, request->octets, sizeof *fixed);
    return 0;
}

template <typename layout> int read_named(const struct rk_request *request, struct asked<layout> *a)
{
    *a = {};
    int error = read_fixed(request, &a->fixed);
    if (error != 0)
        return error;
    if (request->length - sizeof a->fixed < a->fixed.name_length)
        return TARGET_EINVAL;
    memcpy(a->name, request->octets + sizeof a->fixed, a->fixed.name_length);
    return 0;
}

/* The name goes behind the fixed part. The request's other fields go back as they came. */
template <typename layout>
int reply_named(struct rk_client *client, const struct rk_request *request, struct asked<layout> *a)
{
    size_t octets = strlen(a->name) + 1;
    a->fixed.hdr.hdrlen = sizeof a->fixed;
    a->fixed.name_length = uint8_t(octets);
    a->fixed.counters = {};
    return rk_reply_raw(client, request, request->type, a, uint32_t(offsetof(struct asked<layout>, name) + octets));
}

/* "device.unit"; without a unit it is unit 0. */
struct rm_object *unit_by_text(const char *text)
{
    const char *dot = strrchr(text, '.');
    size_t length = dot != nullptr ? size_t(dot - text) : strlen(text);
    return rm_unit_named(text, uint32_t(length), dot != nullptr ? uint32_t(strtoul(dot + 1, nullptr, 10)) : 0);
}

struct rm_object *device_by_text(const char *text)
{
    return rm_device_named(text, uint32_t(strlen(text)));
}

void tell_device(struct asked<struct ifdstats_raw> *a, const struct rm_object *object)
{
    const auto *device = static_cast<const struct ifdev_msg *>(object->mo_record);
    a->fixed.idx = device->idx;
    snprintf(a->name, sizeof a->name - 1, "%.*s", int(device->name_len), device->name);
}

void tell_unit(struct asked<struct iflstats_raw> *a, const struct rm_object *object)
{
    const auto *unit = static_cast<const struct ifl_msg *>(object->mo_record);
    a->fixed.idx = unit->ifl_idx;
    snprintf(a->name, sizeof a->name - 1, "%.*s.%" PRIu32, int(unit->name_len), unit->name, unit->unit);
}

/* How the objects of a layout are found and named. */
template <typename layout> struct way {
    struct rm_kind *kind;
    uint32_t most;   // of an index
    uint8_t *(*put_index)(uint8_t *key, uint32_t index);
    struct rm_object *(*by_text)(const char *text);
    void (*tell)(struct asked<layout> *a, const struct rm_object *object);
};

/* By name it must be there; by index a walk goes on behind one that is gone, and begins behind 0. */
template <typename layout>
struct rm_object *meant(const struct rk_request *request, const struct way<layout> &by, const struct asked<layout> &a)
{
    uint8_t key[RM_KEY_MAX];
    bool next = request->op == RTM_OP_GETNEXT;
    if (a.fixed.idx == 0 && a.name[0] != '\0') {
        struct rm_object *object = by.by_text(a.name);
        return object != nullptr && next ? rm_following(by.kind, object) : object;
    }
    if (a.fixed.idx > by.most)
        return nullptr;
    by.put_index(key, a.fixed.idx);
    return next ? rm_behind(by.kind, key) : rm_get(by.kind, key);
}

template <typename layout>
int serve_named(struct rk_client *client, const struct rk_request *request, const struct way<layout> &by)
{
    struct asked<layout> a;
    int error = read_named(request, &a);
    if (error != 0)
        return error;
    const struct rm_object *object = meant(request, by, a);
    if (object == nullptr)
        return TARGET_ENOENT;
    if (request->op == RTM_OP_CLEAR)
        return 0;
    by.tell(&a, object);
    return reply_named(client, request, &a);
}

}   // namespace

int rm_serve_device_stats(struct rk_client *client, const struct rk_request *request)
{
    return serve_named<struct ifdstats_raw>(client, request,
                                            { &rm_devices, UINT16_MAX, rm_put16, device_by_text, tell_device });
}

int rm_serve_unit_stats(struct rk_client *client, const struct rk_request *request)
{
    return serve_named<struct iflstats_raw>(client, request,
                                            { &rm_units, UINT32_MAX, rm_put32, unit_by_text, tell_unit });
}

int rm_serve_family_stats(struct rk_client *client, const struct rk_request *request)
{
    struct iffstats_raw a;
    int error = read_fixed(request, &a);
    if (error != 0)
        return error;
    const struct rm_object *object = request->op == RTM_OP_GETNEXT ? rm_family_behind(a.ifl_idx, a.af)
                                                                   : rm_family_at(a.ifl_idx, a.af);
    if (object == nullptr)
        return TARGET_ENOENT;
    if (request->op == RTM_OP_CLEAR)
        return 0;
    const auto *family = static_cast<const struct iff_msg *>(object->mo_record);
    a.ifl_idx = family->ifl_idx;
    a.af = family->af;
    a.hdr.hdrlen = sizeof a;
    a.packets = a.octets = 0;
    return rk_reply_raw(client, request, request->type, &a, sizeof a);
}
