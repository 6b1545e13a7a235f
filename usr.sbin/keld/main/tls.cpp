/*
 * TLS: the handshake on a fresh server connection, and the one rule by which a server's certificate is accepted.
 *
 * The rule is OpenSSL's own verdict with one exception: a certificate that is its own issuer passes if the server's
 * entry says self-certificate. It is the only thing forgiven: a self-signed certificate that has expired is refused for
 * the expiry. No name or address is compared with the certificate, as the entry's address is all that is known of a
 * server.
 *
 * The method negotiates. TLSv1 is the floor and TLS 1.3 the ceiling, and what the machine's OpenSSL policy forbids
 * stays forbidden: the context's own limits are only ever tightened here.
 *
 * Kept on purpose: the handshake runs on a blocking socket inside connect_cb, without a limit of time, and holds up the
 * loop for as long as the server takes. Any
 * failure ends the attempt with KELD_PRIVATIZE_FAIL and is not retried, as trying again cures no certificate.
 */
#include "usr.sbin/keld/main/tls.h"

#include "platform/process/process.h"
#include "platform/text/text.h"
#include "usr.sbin/keld/main/keld.h"
#include "usr.sbin/keld/main/tags.h"

#include <openssl/err.h>
#include <openssl/x509_vfy.h>
#include <string.h>

enum {
    TLS_TEXT_MAX = 1024,    // names and error texts of certificates
    CERT_PATH_MAX = 1024,
};
static const char cert_directory[] = "/var/etc/ssl";
static const char cert_subdirectory[] = "local";

int keld_tls_read(void *transport, void *buffer, int length)
{
    return SSL_read(static_cast<SSL *>(transport), buffer, length);
}

int keld_tls_write(void *transport, const void *buffer, int length)
{
    return SSL_write(static_cast<SSL *>(transport), buffer, length);
}

void keld_tls_free(void)
{
    SSL_free(keld_ssl);
    keld_ssl = nullptr;
    SSL_CTX_free(keld_ssl_ctx);
    keld_ssl_ctx = nullptr;
}

/* --- the certificate -------------------------------------------------------------------------------------------- */

/* Text for error about certificate, which may be null, in out. For the log only. */
static void verify_error_text(int error, X509 *certificate, char (&out)[TLS_TEXT_MAX])
{
    char issuer[TLS_TEXT_MAX] = "";
    switch (error) {
    case X509_V_ERR_UNABLE_TO_GET_ISSUER_CERT:
        if (certificate) X509_NAME_oneline(X509_get_issuer_name(certificate), issuer, sizeof issuer);
        (void)snprintf_safe(out, sizeof out, "issuer=%s", issuer);
        return;
    case X509_V_ERR_CERT_NOT_YET_VALID:
    case X509_V_ERR_ERROR_IN_CERT_NOT_BEFORE_FIELD:
        (void)snprintf_safe(out, sizeof out, "certificate not yet valid");
        return;
    case X509_V_ERR_CERT_HAS_EXPIRED:
    case X509_V_ERR_ERROR_IN_CERT_NOT_AFTER_FIELD:
        (void)snprintf_safe(out, sizeof out, "certificate has expired");
        return;
    default:
        (void)snprintf_safe(out, sizeof out, "num=%d:%s\n", error, X509_verify_cert_error_string(error));
        return;
    }
}

int ssl_verify_cb(int ok, X509_STORE_CTX *store)
{
    X509 *certificate = X509_STORE_CTX_get_current_cert(store);
    int error = X509_STORE_CTX_get_error(store);
    int depth = X509_STORE_CTX_get_error_depth(store);
    char text[TLS_TEXT_MAX] = "";
    if (certificate) X509_NAME_oneline(X509_get_subject_name(certificate), text, sizeof text);
    keld_trace("verify server certificate: depth=%d %s\n", depth, text);
    verify_error_text(error, certificate, text);

    bool self_accepted = (current_server.ks_security & KELD_SECURITY_SELF_CERTIFICATE) != 0;
    if (error == X509_V_ERR_DEPTH_ZERO_SELF_SIGNED_CERT && self_accepted) return 1;
    if (ok) return ok;
    keld_event<KELD_PRIVATIZE_FAIL>("certificate verification failed", text);
    return 0;
}

void ssl_info_cb(const SSL *ssl, int where, int ret)
{
    if ((where & SSL_CB_LOOP) != 0 || where == SSL_CB_HANDSHAKE_DONE) {
        const char *side = (where & SSL_ST_CONNECT) != 0  ? "connect"
                           : (where & SSL_ST_ACCEPT) != 0 ? "accept"
                                                          : "undefined";
        keld_trace("SSL state (%s): %s", side, SSL_state_string_long(ssl));
    } else if ((where & SSL_CB_ALERT) != 0) {
        keld_trace("SSL alert (%s): %s: %s", (where & SSL_CB_READ) != 0 ? "read" : "write",
                   SSL_alert_type_string_long(ret), SSL_alert_desc_string_long(ret));
    }
}

/* --- the handshake ---------------------------------------------------------------------------------------------- */

/* A client context for the transport that current_server asks for, or null with OpenSSL's error queued. */
static SSL_CTX *tls_context_new(void)
{
    OPENSSL_init_ssl(0, nullptr);
    OPENSSL_init_ssl(OPENSSL_INIT_LOAD_SSL_STRINGS | OPENSSL_INIT_LOAD_CRYPTO_STRINGS, nullptr);

    // Kept on purpose: the option "ssl3" is read like "tls" and then has no method, so that each attempt ends here and
    // no SSLv3 connection is ever made.
    bool wants_tls = (current_server.ks_security & KELD_SECURITY_TRANSPORT) == KELD_SECURITY_TLS;
    SSL_CTX *context = SSL_CTX_new(wants_tls ? TLS_client_method() : nullptr);
    if (!context) return nullptr;

    long highest = SSL_CTX_get_max_proto_version(context);   // 0 where the machine sets no limit
    bool limited = SSL_CTX_get_min_proto_version(context) >= TLS1_VERSION ||
                   SSL_CTX_set_min_proto_version(context, TLS1_VERSION);
    limited = limited && ((highest != 0 && highest <= TLS1_3_VERSION) ||
                          SSL_CTX_set_max_proto_version(context, TLS1_3_VERSION));
    if (limited) return context;
    SSL_CTX_free(context);
    return nullptr;
}

/* Loads certificate chain and key, which lie in one file. True on success. */
static bool tls_load_certificate(const char *name)
{
    char path[CERT_PATH_MAX], resolved[PLATFORM_PATH_MAX];
    (void)snprintf_safe(path, sizeof path, "%s/%s/%s", cert_directory, cert_subdirectory, name);
    const char *file = platform_path(resolved, sizeof resolved, path);
    return file && SSL_CTX_use_certificate_chain_file(keld_ssl_ctx, file) > 0 &&
           SSL_CTX_use_PrivateKey_file(keld_ssl_ctx, file, SSL_FILETYPE_PEM) > 0;
}

/* The name of the step that failed, or null if TLS is up. */
static const char *tls_fault(void)
{
    keld_ssl_ctx = tls_context_new();
    if (!keld_ssl_ctx) return "SSL_CTX_new";
    keld_config_certificates(keld_ssl_ctx);   // an authority that cannot be loaded shows when the server's is checked
    if (current_config.kc_cert_name && !tls_load_certificate(current_config.kc_cert_name))
        return "SSL_CTX_use_certificate_file";
    SSL_CTX_set_verify(keld_ssl_ctx, SSL_VERIFY_PEER, ssl_verify_cb);

    keld_ssl = SSL_new(keld_ssl_ctx);
    if (!keld_ssl) return "SSL_new";
    BIO *bio = BIO_new_socket(keld_fd, BIO_NOCLOSE);   // out of memory: SSL_connect then fails for want of a BIO
    SSL_set_bio(keld_ssl, bio, bio);
    SSL_CTX_set_info_callback(keld_ssl_ctx, ssl_info_cb);
    // Kept on purpose: 0, a handshake that the server ended in good order, passes for success. The engine's first read
    // or write finds out, and the session then ends like any other.
    if (SSL_connect(keld_ssl) < 0) return "SSL_connect";
    return nullptr;
}

int keld_tls_start(void)
{
    keld_use_tls = 1;
    ERR_clear_error();   // what the last session left would be reported as this one's
    if (const char *step = tls_fault()) {
        keld_event<KELD_PRIVATIZE_FAIL>(step, ERR_error_string(ERR_get_error(), nullptr));
        keld_tls_free();
        return -1;
    }
    keld_trace("WOO-HOO, SSL is up");
    return 0;
}
