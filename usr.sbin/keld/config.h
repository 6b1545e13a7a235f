/*
 * Configuration reader: the stanza `system services service-deployment` as a small record, and the certification
 * authorities for TLS.
 *
 * The database is opened and closed inside each call. Errors in the configuration are reported through it (to the
 * system log, or to standard error in a check) and counted; a reader goes through all entries and takes the good ones.
 */
#pragma once

#include <openssl/types.h>

#include <stdint.h>

extern "C" {

enum {
    KELD_DEFAULT_PORT = 3333,
    KELD_USER_SIZE = 65,   // octets of ks_user, terminator included
};

/* ks_security: the transport in the low octet, flags in the high one. */
enum : uint16_t {
    KELD_SECURITY_NONE = 0,
    KELD_SECURITY_TLS = 1,
    KELD_SECURITY_SSL3 = 2,
    KELD_SECURITY_TRANSPORT = 0x00ff,         // mask
    KELD_SECURITY_SELF_CERTIFICATE = 0x0100,  // a self-signed server certificate is accepted
};

/* A configured server. The ring is circular in both directions and keeps the order of the configuration; a single
 * record points to itself. */
struct keld_server {
    struct keld_server *ks_next, *ks_prev;
    char ks_user[KELD_USER_SIZE];   // user of the login; empty if none is configured
    uint32_t ks_addr;               // IPv4, network order; 0 if the configured text was no address
    uint16_t ks_port;               // TCP, host order
    uint16_t ks_security;           // KELD_SECURITY_
};

/* Zeroed, it is the empty configuration. */
struct keld_config_data {
    char *kc_cert_name;               // file name of the local certificate; owned, null if none
    uint32_t kc_source_addr;          // IPv4, network order; 0 for none
    struct keld_server *kc_servers;   // head of the ring; owned, null if none
};

/* Binds keld_dtf_options to the daemon's trace file. Nothing is traced until the configuration turns it on. */
void keld_trace_init(void);

/* Reads the stanza into *config, a zeroed record (null: only checks). check selects the configuration being checked,
 * prints errors to standard error, and leaves servers and trace settings unread; otherwise the trace settings are
 * applied to keld_dtf_options. 0 if all is well; -1 if the stanza is absent; positive if errors were found: their
 * number, plus 1 if a server entry was bad; 1 if the database could not be opened, as when there is no committed file.
 * What could be read stands in *config whatever the result. */
[[nodiscard]] int keld_config(int check, struct keld_config_data *config);

/* Loads the trusted certificates of all configured authorities into ssl_ctx. What cannot be loaded is reported and left
 * out. */
void keld_config_certificates(SSL_CTX *ssl_ctx);

/* Frees what to holds, gives it the contents of from, and empties from. Two different records. */
void keld_config_mv(struct keld_config_data *from, struct keld_config_data *to);
/* Frees the name and all servers and empties the record, which stays the caller's. An empty record is allowed. */
void keld_config_free(struct keld_config_data *config);

}   // extern "C"
