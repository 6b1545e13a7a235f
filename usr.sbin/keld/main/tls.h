/*
 * TLS client on the server socket. Uses keld_fd, keld_ssl_ctx, keld_ssl and keld_use_tls, and current_server and
 * current_config for what is wanted.
 */
#pragma once

#include <openssl/ssl.h>

extern "C" {

/* Makes a context and a connection and shakes hands on keld_fd, which must be connected and blocking; blocks until that
 * is done. 0; or -1 with the reason logged and context and connection freed. keld_use_tls is 1 either way, keld_fd
 * open. */
[[nodiscard]] int keld_tls_start(void);
/* Frees connection and context, without a closing alert. Nothing happens if there are none. */
void keld_tls_free(void);

/* The engine's transport: SSL_read and SSL_write on transport, an SSL. */
int keld_tls_read(void *transport, void *buffer, int length);
int keld_tls_write(void *transport, const void *buffer, int length);

/* Verification callback: 1 accepts the certificate looked at, 0 refuses it and logs why. ok is OpenSSL's own verdict.
 * */
int ssl_verify_cb(int ok, X509_STORE_CTX *store);
/* Information callback: traces handshake steps and alerts. */
void ssl_info_cb(const SSL *ssl, int where, int ret);

}   // extern "C"
