/*
 * Clients: the tree of records, and what a change of configuration does to a running session.
 *
 * The configuration file of a client always follows its configuration. Its process is ended only for what sshd or the
 * server would notice: the server in use went or has another port, the secret, what is offered, the strategy, keep-
 * alives. The rest (device-id, another server, attempts and times) counts from the next attempt.
 *
 * True whenever signals are not held: each record in the tree has a key that does not change, and the pid of whatever
 * process there is for it.
 */
#include "usr.sbin/keld/outbound_ssh/obssh_private.h"

#include "platform/log/log.h"
#include "platform/text/text.h"

#include <stdlib.h>
#include <string.h>

enum {
    KEY_MAX = OBSSH_NAME_SIZE - 1,
    // Kept on purpose: a client-id of 254 octets stands in the tree whole and is never found again, so each walk that
    // meets it makes another record of it.
    INSERT_KEY_MAX = KEY_MAX - 1,
};

struct obssh_srv_config *keld_obssh_patnode_to_srv_config(struct patricia_node *node)
{
    return reinterpret_cast<struct obssh_srv_config *>(node);   // the node begins the record
}

struct obssh_app_config *keld_obssh_patnode_to_app_config(struct patricia_node *node)
{
    if (!node) return nullptr;
    char *record = reinterpret_cast<char *>(node) - offsetof(struct obssh_app_config, ac_node);
    return reinterpret_cast<struct obssh_app_config *>(record);
}

struct patricia_node *obssh_lookup(const struct patricia_root *root, const char *name, size_t most)
{
    char key[OBSSH_NAME_SIZE] = {};
    (void)snprintf_safe(key, most + 1, "%s", name);
    return root ? patricia_lookup(root, key) : nullptr;
}

struct obssh_srv_config *obssh_find_server(const struct patricia_root *root, const char *name)
{
    return keld_obssh_patnode_to_srv_config(obssh_lookup(root, name, KEY_MAX));
}

struct obssh_srv_config *obssh_get_first_server(const struct obssh_app_config *app)
{
    if (!app || !app->ac_servers) return nullptr;
    return keld_obssh_patnode_to_srv_config(patricia_find_next(app->ac_servers, nullptr));
}

void keld_obssh_server_free_all(struct patricia_root *root)
{
    if (!root) return;
    struct patricia_node *next = nullptr;
    for (struct patricia_node *node = patricia_find_next(root, nullptr); node; node = next) {
        next = patricia_find_next(root, node);
        struct obssh_srv_config *server = keld_obssh_patnode_to_srv_config(node);
        tarne_trace(0, "%s: Deleting application server: %s", __func__, server->sc_address);
        (void)patricia_delete(root, node);
        free(server);
    }
    patricia_root_delete(root);
}

/* --- change ------------------------------------------------------------------------------------------------------- */

void obssh_compare_config(const struct obssh_app_config *old, struct obssh_app_config *app, bool *restart)
{
    if (!obssh_get_first_server(old) || !obssh_get_first_server(app)) {
        *restart = true;
        return;
    }
    const struct obssh_srv_config *before = obssh_find_server(old->ac_servers, app->ac_server_name);
    const struct obssh_srv_config *now = obssh_find_server(app->ac_servers, app->ac_server_name);
    if (!now) {
        *restart = true;
        memset(app->ac_server_name, 0, sizeof app->ac_server_name);   // the next selection starts at the first server
        return;
    }
    if (!before) return;
    if (before->sc_port != now->sc_port || strcmp(old->ac_secret, app->ac_secret) != 0 ||
        old->ac_services != app->ac_services || old->ac_strategy != app->ac_strategy ||
        old->ac_ka_retry != app->ac_ka_retry || old->ac_ka_timeout != app->ac_ka_timeout)
        *restart = true;
}

int keld_obssh_config_change_handler(const struct obssh_app_config *old, struct obssh_app_config *app)
{
    bool restart = !old;
    (void)generate_obssh_config_file(app);
    if (!restart) obssh_compare_config(old, app, &restart);
    if (!restart) return 0;
    (void)obssh_kill_group(app);   // one that has gone already cannot be killed
    app->ac_pid = 0;
    (void)outbound_ssh_connect_to_server(app);
    return 0;
}

static void free_client(struct obssh_app_config *app)
{
    qtimer_destroy(app->ac_timer);
    keld_obssh_server_free_all(app->ac_servers);
    explicit_bzero(app->ac_secret, sizeof app->ac_secret);
    free(app);
}

/* --- additions and updates ---------------------------------------------------------------------------------------- */

/* Copies the configuration from the field at offset on. */
static void copy_configuration(struct obssh_app_config *app, const struct obssh_app_config *fresh, size_t offset)
{
    const char *from = reinterpret_cast<const char *>(fresh);
    memcpy(reinterpret_cast<char *>(app) + offset, from + offset, sizeof *app - offset);
}

static int create_client(const struct obssh_app_config *fresh)
{
    struct obssh_app_config *app = static_cast<struct obssh_app_config *>(calloc(1, sizeof *app));
    if (!app) return -1;
    patricia_node_init_length(&app->ac_node, 0);
    app->ac_timer = qtimer_create_leaf(obssh_timer_context, nullptr, keld_obssh_retry_timer_handler,
                                       reinterpret_cast<uintptr_t>(app));
    if (!app->ac_timer) {
        free(app);
        return -1;
    }
    copy_configuration(app, fresh, offsetof(struct obssh_app_config, ac_client_id));
    bool added = false;
    {
        obssh_hold held;
        obssh_note_files();
        added = patricia_add(ob_ssh_patroot, &app->ac_node);   // fails only where INSERT_KEY_MAX hides the former one
    }
    (void)keld_obssh_config_change_handler(nullptr, app);
    if (!added && !qtimer_running(app->ac_timer)) free_client(app);   // otherwise it lives for its timer
    return 0;
}

int keld_obssh_app_config_insert(const struct obssh_app_config *fresh)
{
    if (!ob_ssh_patroot || !obssh_timer_context) return -1;   // memory ran out when they were made
    struct patricia_node *node = obssh_lookup(ob_ssh_patroot, fresh->ac_client_id, INSERT_KEY_MAX);
    if (!node) {
        tarne_trace(1, "%s: Creating app-id: %s", __func__, fresh->ac_client_id);
        return create_client(fresh);
    }
    struct obssh_app_config *app = keld_obssh_patnode_to_app_config(node);
    struct obssh_app_config old = *app;
    // The key stays as it is, since the tree stands on it. It differs only where fresh has one of 254 octets.
    copy_configuration(app, fresh, offsetof(struct obssh_app_config, ac_device_id));
    (void)keld_obssh_config_change_handler(&old, app);
    keld_obssh_server_free_all(old.ac_servers);
    explicit_bzero(old.ac_secret, sizeof old.ac_secret);
    return 0;
}

/* --- deletion ----------------------------------------------------------------------------------------------------- */

/* Ends the client and frees its record. announced: the process is traced first, in the name of that function. True if
 * it was in the tree. */
static bool delete_client(struct obssh_app_config *app, const char *announced)
{
    obssh_hold held;   // while the record is out of the tree and its process still there
    bool deleted = patricia_delete(ob_ssh_patroot, &app->ac_node);
    if (obssh_is_process_running(app->ac_pid)) {
        if (announced) tarne_trace(1, "%s: Need to kill: %d", announced, app->ac_pid);
        (void)obssh_kill_group(app);
    }
    (void)delete_obssh_config_file(app->ac_client_id);   // there may be none
    free_client(app);
    return deleted;
}

int keld_obssh_delete_app_config(const char *name)
{
    struct patricia_node *node = obssh_lookup(ob_ssh_patroot, name, KEY_MAX);
    if (!node) {
        tarne_trace(1, "%s: Could not look up app-id: %s", __func__, name);
        return 1;
    }
    return delete_client(keld_obssh_patnode_to_app_config(node), nullptr) ? 0 : 1;
}

void keld_obssh_delete_app_config_all(void)
{
    obssh_hold held;
    struct patricia_node *next = nullptr;
    if (ob_ssh_patroot) next = patricia_find_next(ob_ssh_patroot, nullptr);
    while (next) {
        struct obssh_app_config *app = keld_obssh_patnode_to_app_config(next);
        next = patricia_find_next(ob_ssh_patroot, next);
        (void)delete_client(app, __func__);
    }
    patricia_root_delete(ob_ssh_patroot);
    ob_ssh_patroot = patricia_root_init(nullptr, 0, OBSSH_NAME_SIZE, 0);
}
