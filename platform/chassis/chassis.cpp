/*
 * Chassis: the stanza `chassis` as a record that is replaced at each reading.
 */
#include "platform/chassis/chassis.h"

#include "platform/confdb/confdb.h"
#include "platform/confdb/dax.h"

static constexpr uint32_t role_master = 0;   // the schema's number

static struct chassis {
    bool ch_is_cluster;
    uint32_t ch_role;
    bool ch_has_capabilities;
    uint32_t ch_capabilities;   // 0 if there are none
} chassis;
static struct nmchassis_cap chassis_cap;

const struct nmchassis_cap *nmchassis_cap_p;

static struct chassis read_stanza(void)
{
    static const char *const path[] = { "chassis", nullptr };
    struct chassis read = {};
    struct dax_object *stanza = nullptr;
    if (!dax_get_object_by_path(0, path, &stanza, 0)) return read;
    read.ch_is_cluster = dax_is_configured_by_name(stanza, "cluster");
    (void)dax_get_uint_by_name(stanza, "routing-engine", &read.ch_role);
    read.ch_has_capabilities = dax_get_uint_by_name(stanza, "capabilities", &read.ch_capabilities);
    dax_release_object(&stanza);
    return read;
}

static bool is_same(const struct chassis *a, const struct chassis *b)
{
    return a->ch_is_cluster == b->ch_is_cluster && a->ch_role == b->ch_role &&
           a->ch_has_capabilities == b->ch_has_capabilities && a->ch_capabilities == b->ch_capabilities;
}

bool nmchassis_read_config(void)
{
    struct chassis former = chassis;
    chassis = read_stanza();
    chassis_cap.nc_capabilities = static_cast<uint8_t>(chassis.ch_capabilities);   // the schema's limit is an octet's
    nmchassis_cap_p = chassis.ch_has_capabilities ? &chassis_cap : nullptr;
    return !is_same(&former, &chassis);
}

bool nmchassis_cluster_is_enabled(void)
{
    return chassis.ch_is_cluster;
}

bool mcontrol_re_is_master(void)
{
    return chassis.ch_role == role_master;
}
