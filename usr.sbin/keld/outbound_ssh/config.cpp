/*
 * Outbound SSH configuration: from the stanza to the records of clients.
 *
 * The database tells what is not as it was walked last, so a reload touches only clients that changed. A change of the
 * routing instance concerns every connection: all clients go, and come again from a walk of everything.
 *
 * Kept on purpose: a stanza that was removed stops nothing, only a stanza without clients does. And the routing
 * instance is forgotten before the database is opened: where that fails, or the stanza is gone, attempts for the clients
 * still there go out through the default instance, and the next reading that finds one begins everything anew.
 */
#include "usr.sbin/keld/outbound_ssh/obssh_private.h"

#include "platform/chassis/chassis.h"
#include "platform/confdb/dax.h"
#include "platform/log/log.h"
#include "platform/text/text.h"

#include <span>
#include <stdlib.h>
#include <string.h>

static const char *const stanza_path[] = { "system", "services", "outbound-ssh", nullptr };
static const char *const clients_path[] = { "system", "services", "outbound-ssh", "client", nullptr };

enum {
    DAX_OPEN_FLAGS = -2,
    CHASSIS_SPARES_BACKUP = 1,   // capability: the backup routing engine makes no connections
    SERVICES_NONE = -1,
};

static void read_text(struct dax_object *object, const char *name, std::span<char> text)
{
    const char *value = nullptr;
    if (dax_get_string_by_name(object, name, &value)) (void)snprintf_safe(text.data(), text.size(), "%s", value);
}

/* --- servers ------------------------------------------------------------------------------------------------------ */

/* True on the backup routing engine of a cluster that keeps such an engine quiet. */
static bool is_quiet_backup(void)
{
    return nmchassis_cluster_is_enabled() && !mcontrol_re_is_master() && nmchassis_cap_p &&
           (nmchassis_cap_p->nc_capabilities & CHASSIS_SPARES_BACKUP);
}

static int obssh_srv_walk_cb(struct dax_handle *, struct dax_object *element, int operation, void *argument)
{
    if (is_quiet_backup()) return 0;
    if (operation != DAX_NEW && operation != DAX_CHANGED) return 0;
    struct obssh_srv_config *server = static_cast<struct obssh_srv_config *>(calloc(1, sizeof *server));
    if (!server) return 0;

    patricia_node_init_length(&server->sc_node, 0);
    read_text(element, "address", server->sc_address);
    (void)dax_get_ushort_by_name(element, "port", &server->sc_port);
    (void)dax_get_uint_by_name(element, "retry", &server->sc_retry);
    (void)dax_get_uint_by_name(element, "timeout", &server->sc_timeout);
    if (!patricia_add(static_cast<struct patricia_root *>(argument), &server->sc_node)) free(server);   // a duplicate
    return 0;
}

static void read_servers(struct dax_object *client, struct obssh_app_config *fresh)
{
    struct dax_object *servers = nullptr;
    if (!dax_get_object_by_name(client, "servers", &servers, 0)) return;
    fresh->ac_servers = patricia_root_init(nullptr, 0, OBSSH_NAME_SIZE, 0);
    if (!fresh->ac_servers || dax_walk_list(servers, DAX_WALK_ALL, obssh_srv_walk_cb, fresh->ac_servers) != 0)
        logging(3, "dax walk for application server failed");
    dax_release_object(&servers);
}

/* --- clients ------------------------------------------------------------------------------------------------------ */

static void read_client(struct dax_object *client, struct obssh_app_config *fresh)
{
    read_text(client, "client-id", fresh->ac_client_id);
    read_text(client, "device-id", fresh->ac_device_id);
    read_text(client, "secret", fresh->ac_secret);

    struct dax_object *keep_alive = nullptr;
    if (dax_get_object_by_name(client, "keep-alive", &keep_alive, 0)) {
        (void)dax_get_uint_by_name(keep_alive, "retry", &fresh->ac_ka_retry);
        (void)dax_get_uint_by_name(keep_alive, "timeout", &fresh->ac_ka_timeout);
        dax_release_object(&keep_alive);
    }

    (void)dax_get_uint_by_name(client, "reconnect-strategy", &fresh->ac_strategy);
    uint32_t services = 0;
    if (dax_get_uint_by_name(client, "services", &services)) fresh->ac_services = static_cast<int32_t>(services);
    read_servers(client, fresh);
}

static int obssh_app_walk_cb(struct dax_handle *handle, struct dax_object *element, int operation, void *)
{
    if (operation == DAX_DELETED) {
        char name[OBSSH_NAME_SIZE];
        if (dax_get_stringr_by_dwd_ident(handle, 0, 0, name, sizeof name)) (void)keld_obssh_delete_app_config(name);
    }
    if (operation == DAX_LIST_DELETED) keld_obssh_delete_app_config_all();
    if (operation != DAX_NEW && operation != DAX_CHANGED) return 0;

    struct obssh_app_config fresh = {};
    fresh.ac_services = SERVICES_NONE;
    read_client(element, &fresh);
    if (keld_obssh_app_config_insert(&fresh) < 0) keld_obssh_server_free_all(fresh.ac_servers);
    explicit_bzero(fresh.ac_secret, sizeof fresh.ac_secret);
    return 0;
}

/* --- stanza ------------------------------------------------------------------------------------------------------- */

/* Reads the routing instance. The way to walk the clients: if it is another one than before, none is left. */
static int read_instance(struct dax_object *stanza, const char *former)
{
    read_text(stanza, "routing-instance", ri_name);
    if (memcmp(ri_name, former, sizeof ri_name) == 0) return DAX_WALK_CHANGED;
    keld_obssh_delete_app_config_all();
    return DAX_WALK_ALL;
}

/* Applies the stanza in the open database. 0, -1 or 1 as keld_outbound_ssh_config. */
static int apply_stanza(const char *former_instance, const char *caller)
{
    struct dax_object *stanza = nullptr, *clients = nullptr;
    if (!dax_get_object_by_path(0, stanza_path, &stanza, 0)) return -1;
    int mode = read_instance(stanza, former_instance);
    dax_release_object(&stanza);

    if (!dax_get_object_by_path(0, clients_path, &clients, 0)) {
        keld_obssh_delete_app_config_all();
        return -1;
    }
    int failed = dax_walk_list(clients, mode, obssh_app_walk_cb, nullptr);
    if (failed) tarne_trace(1, "%s: dax walk failed", caller);
    dax_release_object(&clients);
    return failed ? 1 : 0;
}

int keld_outbound_ssh_config(int check)
{
    char former[sizeof ri_name];
    memcpy(former, ri_name, sizeof former);
    memset(ri_name, 0, sizeof ri_name);

    int error = dax_open_db(0, "outbound-ssh", 0, DAX_OPEN_FLAGS, check);
    if (error != 0) {
        dax_error(0, "Opening configuration database: %s", error);
        return 1;
    }
    tarne_trace_read_config(0, stanza_path);
    tarne_trace(1, "%s: reading configuration for outbound ssh", __func__);
    int result = apply_stanza(former, __func__);
    bool closed = dax_close_db() == 0;
    return result == 0 && !closed ? 1 : result;
}
