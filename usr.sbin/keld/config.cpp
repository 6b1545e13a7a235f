/*
 * Configuration reader: the stanza `system services service-deployment`.
 *
 * A reading opens the database, goes through the stanza once and closes it again. Errors are reported through the
 * database, which counts them; they end nothing. The result is a sum, so that "no stanza" (-1), "all well" (0) and
 * "errors" (above 0) are one number, which is also the exit status of a check.
 *
 * Who reads decides what a bad entry costs: a start uses whatever could be read, a reload keeps the former
 * configuration unless the result is 0.
 *
 * True of every configuration filled here: the servers form one ring, in the order of the file, and own no memory
 * beside their records.
 */
#include "usr.sbin/keld/config.h"

#include "platform/confdb/confdb.h"
#include "usr.sbin/keld/beep/beep.h"

#include <stdlib.h>
#include <string.h>

enum deployment_attribute { LOCAL_CERTIFICATE = 1, SOURCE_ADDRESS = 2, SERVERS = 3 };
enum server_attribute { SERVER_ADDRESS = 0, SERVER_PORT = 2, SERVER_USER = 3 };

static const char *const stanza_path[] = { "system", "services", "service-deployment", nullptr };

static constexpr int cert_name_size = 1024;   // octets, terminator included

void keld_trace_init(void)
{
    daemon_trace_initialize(&keld_dtf_options, "/var/log/keld");
}

/* --- servers --------------------------------------------------------------------------------------------------- */

static void link_at_tail(struct keld_server **ring, struct keld_server *server)
{
    struct keld_server *head = *ring;
    if (!head) {
        server->ks_next = server->ks_prev = server;
        *ring = server;
        return;
    }
    server->ks_next = head;
    server->ks_prev = head->ks_prev;
    head->ks_prev->ks_next = server;
    head->ks_prev = server;
}

/* 1 if the port is there and no good, else 0. */
static int read_port(struct ddl_object *element, struct keld_server *server)
{
    struct ddl_attribute attr = DDL_ATTRIBUTE_INIT;
    if (!ddl_access_attribute_by_aid(element, SERVER_PORT, &attr)) {
        server->ks_port = KELD_DEFAULT_PORT;
        return 0;
    }
    // Kept on purpose: a bad port leaves 0, not the default. Connecting then fails instead of reaching a wrong service.
    bool good = ddl_access_attribute_ushort(&server->ks_port, &attr);
    if (!good) ddl_access_attribute_error(element, &attr, "unable to extract port");
    ddl_access_attribute_invalidate(&attr);
    return good ? 0 : 1;
}

/* 1 if the user is there and no good, else 0. A name that is too long is cut. */
static int read_user(struct ddl_object *element, struct keld_server *server)
{
    struct ddl_attribute attr = DDL_ATTRIBUTE_INIT;
    if (!ddl_access_attribute_by_aid(element, SERVER_USER, &attr)) return 0;
    bool good = ddl_access_attribute_string(server->ks_user, sizeof server->ks_user, &attr) > 0;
    if (!good) ddl_access_attribute_error(element, &attr, "unable to extract user");
    ddl_access_attribute_invalidate(&attr);
    return good ? 0 : 1;
}

static uint16_t read_security(struct ddl_object *element)
{
    static const char *const path[] = { "security-options", nullptr };
    struct ddl_object *options = ddl_access_object_find_by_name(element, path, 0, 0, 0);
    if (!options) return KELD_SECURITY_NONE;
    uint16_t security = KELD_SECURITY_NONE;
    if (ddl_access_object_configured(options, "tls", 0)) security = KELD_SECURITY_TLS;
    // Kept on purpose: ssl3 beats tls where both stand, although a connection with ssl3 always fails.
    if (ddl_access_object_configured(options, "ssl3", 0)) security = KELD_SECURITY_SSL3;
    // Kept on purpose: self-certificate without one of the two is passed over in silence, and the connection is plain.
    if (security != KELD_SECURITY_NONE && ddl_access_object_configured(options, "self-certificate", 0))
        security |= KELD_SECURITY_SELF_CERTIFICATE;
    ddl_access_release(options);
    return security;
}

/* Adds the server of one element to the ring. 1 if something in it is no good, else 0. */
static int read_server(struct ddl_object *element, struct keld_config_data *config)
{
    struct ddl_attribute attr = DDL_ATTRIBUTE_INIT;
    if (!ddl_access_attribute_by_aid(element, SERVER_ADDRESS, &attr)) {
        ddl_access_config_error(element, "unable to extract server address");
        return 1;
    }
    struct keld_server *server = static_cast<struct keld_server *>(calloc(1, sizeof *server));
    if (!server) {
        ddl_access_config_error(element, "no memory, unable to read in configuration");
        ddl_access_attribute_invalidate(&attr);
        return 0;
    }
    int bad = 0;
    if (!ddl_access_attribute_ipv4addr(&server->ks_addr, &attr)) {
        // Kept on purpose: the record stays in the ring, with address 0.
        ddl_access_attribute_error(element, &attr, "unable to extract server address as ipv4");
        bad = 1;
    }
    ddl_access_attribute_invalidate(&attr);
    bad |= read_port(element, server);
    bad |= read_user(element, server);
    server->ks_security = read_security(element);
    link_at_tail(&config->kc_servers, server);
    return bad;
}

/* Reads the list of servers into config. 1 if an entry was no good, else 0. */
static int keld_read_servers(struct ddl_object *list, int check, struct keld_config_data *config)
{
    // Kept on purpose: a check does not look at the servers, so it passes entries that the daemon will report.
    if (!list || !config || check) return 0;
    int bad = 0;
    for (struct ddl_object *element = nullptr; ddl_access_visit_container(list, &element, 0);)
        bad |= read_server(element, config);
    return bad;
}

/* --- stanza ---------------------------------------------------------------------------------------------------- */

static void read_cert_name(struct ddl_object *stanza, struct keld_config_data *config)
{
    struct ddl_attribute attr = DDL_ATTRIBUTE_INIT;
    if (!ddl_access_attribute_by_aid(stanza, LOCAL_CERTIFICATE, &attr)) return;
    char name[cert_name_size];
    int length = ddl_access_attribute_string(name, sizeof name, &attr);
    if (length < 0) ddl_access_attribute_error(stanza, &attr, "certificate name left out");
    // Kept on purpose: a name of exactly 1024 octets loses its last one without a report.
    if (length > cert_name_size)
        ddl_access_attribute_error(stanza, &attr, "certificate name ridiculously long, truncated to %d bytes",
                                   cert_name_size - 1);
    if (length >= 0 && config) {
        config->kc_cert_name = strdup(name);
        if (!config->kc_cert_name) ddl_access_config_error(stanza, "no memory, certificate name discarded");
    }
    ddl_access_attribute_invalidate(&attr);
}

static void read_source_address(struct ddl_object *stanza, struct keld_config_data *config)
{
    struct ddl_attribute attr = DDL_ATTRIBUTE_INIT;
    if (!ddl_access_attribute_by_aid(stanza, SOURCE_ADDRESS, &attr)) return;
    uint32_t address = 0;
    if (!ddl_access_attribute_ipv4addr(&address, &attr))
        ddl_access_attribute_error(stanza, &attr, "Unable to extract IPv4 address, set to all zero");
    else if (config)
        config->kc_source_addr = address;
    ddl_access_attribute_invalidate(&attr);
}

/* 0, or 1 if a server entry was no good. */
static int read_stanza(struct ddl_object *stanza, int check, struct keld_config_data *config)
{
    read_cert_name(stanza, config);
    read_source_address(stanza, config);
    struct ddl_object *list = ddl_access_object_find_by_aid(stanza, SERVERS, 0, 0, 0);
    int bad = keld_read_servers(list, check, config);
    ddl_access_release(list);
    if (!check) daemon_trace_read_config(0, stanza_path, &keld_dtf_options);
    return bad;
}

int keld_config(int check, struct keld_config_data *config)
{
    int error = ddl_access_open_db(0, "keld", nullptr, -2, check);
    if (error) {
        ddl_access_config_error(nullptr, "Opening configuration database: %s", ddl_access_strerror(error));
        return 1;
    }
    int status = -1;
    struct ddl_object *stanza = ddl_access_object_find_by_name(nullptr, stanza_path, 0, 0, 0);
    if (stanza) {
        status = read_stanza(stanza, check, config);
        ddl_access_release(stanza);
    }
    ddl_access_resource_had_mismatch(1, 0, 0);
    ddl_access_debug_emit_leaks(1, 1);
    error = ddl_access_close_db(0, 0);
    if (error) ddl_access_config_error(nullptr, "Close configuration database: %s", ddl_access_strerror(error));
    return ddl_access_config_had_errors() + status;
}

/* --- the record ------------------------------------------------------------------------------------------------ */

void keld_config_free(struct keld_config_data *config)
{
    free(config->kc_cert_name);
    struct keld_server *server = config->kc_servers;
    if (server) server->ks_prev->ks_next = nullptr;   // opens the ring
    while (server) {
        struct keld_server *next = server->ks_next;
        free(server);
        server = next;
    }
    *config = {};
}

void keld_config_mv(struct keld_config_data *from, struct keld_config_data *to)
{
    keld_config_free(to);
    *to = *from;
    *from = {};
}
