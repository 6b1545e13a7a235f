/*
 * Selection: which of a client's servers the next attempt goes to.
 *
 * The servers form a ring in the order of their addresses as text. Strategy 0 gives each server its attempts before it
 * moves on; with any other each attempt moves on. The ring has no end, so there is no final failure. Counters are
 * those of the server in use, and start anew with each choice of another (or of the same, in a ring of one).
 */
#include "usr.sbin/keld/outbound_ssh/obssh_private.h"

#include <string.h>

/* The server behind the given one; the first behind the last, and behind null. */
static struct obssh_srv_config *next_server(const struct obssh_app_config *app, const struct obssh_srv_config *server)
{
    struct patricia_node *next = server ? patricia_find_next(app->ac_servers, &server->sc_node) : nullptr;
    return next ? keld_obssh_patnode_to_srv_config(next) : obssh_get_first_server(app);
}

struct obssh_srv_config *obssh_select_server(struct obssh_app_config *app)
{
    struct obssh_srv_config *server = nullptr;
    if (app->ac_server_name[0] != '\0') server = obssh_find_server(app->ac_servers, app->ac_server_name);
    bool stays = server && app->ac_strategy == 0 && app->ac_attempts < app->ac_retry;
    if (!stays) {
        server = next_server(app, server);
        app->ac_attempts = 0;
        app->ac_sshd_seen = 0;
        app->ac_deaths = 0;
    }
    if (!server) return nullptr;

    app->ac_timeout = server->sc_timeout;
    app->ac_retry = server->sc_retry;
    memcpy(app->ac_server_name, server->sc_address, sizeof app->ac_server_name);
    return server;
}
