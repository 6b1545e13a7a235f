/*
 * Trusted certificates: the files of `security certificates certification-authority` into a TLS context.
 *
 * An authority that cannot be loaded costs only itself: the others are still tried, and the set-up of TLS goes on. What
 * this means is settled later, when the server's certificate is verified against those that could be loaded.
 */
#include "usr.sbin/keld/config.h"

#include "platform/confdb/confdb.h"
#include "platform/process/process.h"
#include "usr.sbin/keld/beep/beep.h"

#include <openssl/err.h>
#include <openssl/ssl.h>

#include <stdio.h>

static constexpr int file_name_size = 1024;   // octets, terminator included

static void load_file(SSL_CTX *ssl_ctx, const char *name)
{
    char path[PLATFORM_PATH_MAX];
    const char *file = *name == '/' ? platform_path(path, sizeof path, name) : name;
    if (file && SSL_CTX_load_verify_locations(ssl_ctx, file, nullptr) == 1) return;
    if (daemon_trace_wants(&keld_dtf_options, DTF_CORE))
        daemon_trace(&keld_dtf_options, DTF_CORE, 0, "Error loading trusted certificates from %s", name);
    ERR_print_errors_fp(stderr);
}

static void load_authority(SSL_CTX *ssl_ctx, struct ddl_object *authority)
{
    struct ddl_attribute attr = DDL_ATTRIBUTE_INIT;
    if (!ddl_access_attribute_by_name(authority, "file", &attr)) return;
    char name[file_name_size];
    int length = ddl_access_attribute_string(name, sizeof name, &attr);
    if (length < 0)
        ddl_access_attribute_error(authority, &attr, "cannot convert attribute to string");
    // Kept on purpose: a name of exactly 1024 octets passes, without its last one, and is then not found.
    else if (length > file_name_size)
        ddl_access_attribute_error(authority, &attr, "file name too long");
    else
        load_file(ssl_ctx, name);
    ddl_access_attribute_invalidate(&attr);
}

void keld_config_certificates(SSL_CTX *ssl_ctx)
{
    static const char *const path[] = { "security", "certificates", "certification-authority", "<*>", nullptr };
    int error = ddl_access_open_db(0, "keld", nullptr, -2, 0);
    if (error) {
        ddl_access_config_error(nullptr, "Opening configuration database: %s", ddl_access_strerror(error));
        return;
    }
    struct ddl_object *authorities = ddl_access_object_find_by_name(nullptr, path, 0, 0, 0);
    for (struct ddl_object *authority = nullptr; ddl_access_visit_container(authorities, &authority, 0);)
        load_authority(ssl_ctx, authority);
    ddl_access_release(authorities);
    error = ddl_access_close_db(0, 0);
    if (error) ddl_access_config_error(nullptr, "Close configuration database: %s", ddl_access_strerror(error));
}
