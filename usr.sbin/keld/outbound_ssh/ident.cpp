/*
 * Identification: what the router says on a new connection before sshd begins to speak. Nobody answers.
 *
 *   MSG-ID: DEVICE-CONN-INFO       always, in one write with the next two
 *   MSG-VER: V1
 *   DEVICE-ID: text
 *   HOST-KEY: text, zero octet     with a secret; an empty line if there is no key text
 *   HMAC: 40 hexadecimal digits    with a secret: HMAC-SHA1 with it as key, over the text without the zero octet
 *   (an empty line)                always
 *
 * Lines end with CR LF. The text is the content of the router's public key file. It may hold a line end of its own,
 * which is why a zero octet marks where it stops. The secret itself is never sent. What cannot be written does not stop
 * the rest: sshd notices soon enough.
 */
#include "usr.sbin/keld/outbound_ssh/obssh_private.h"

#include "platform/log/log.h"
#include "platform/process/process.h"
#include "platform/text/text.h"

#include <errno.h>
#include <fcntl.h>
#include <openssl/evp.h>
#include <openssl/hmac.h>
#include <openssl/sha.h>
#include <stdlib.h>
#include <string.h>
#include <string_view>
#include <sys/stat.h>
#include <unistd.h>

static const char rsa_key_path[] = "/etc/ssh/ssh_host_rsa_key.pub";
static const char dsa_key_path[] = "/etc/ssh/ssh_host_dsa_key.pub";

static constexpr std::string_view info_form = "MSG-ID: DEVICE-CONN-INFO\r\nMSG-VER: V1\r\nDEVICE-ID: \r\n";
static_assert(info_form.size() == 52);

/* True if all octets were written; waits for as long as the server takes none. */
static bool write_all(int fd, std::string_view octets)
{
    while (!octets.empty()) {
        ssize_t written = write(fd, octets.data(), octets.size());
        if (written < 0 && errno == EINTR) continue;
        if (written <= 0) return false;
        octets.remove_prefix(static_cast<size_t>(written));
    }
    return true;
}

void obssh_end_identification(int socket)
{
    (void)write_all(socket, "\r\n");
}

int obssh_send_device_conn_info(int socket, const char *device_id)
{
    char text[info_form.size() + OBSSH_NAME_SIZE];
    size_t length =
        snprintf_safe(text, sizeof text, "MSG-ID: DEVICE-CONN-INFO\r\nMSG-VER: V1\r\nDEVICE-ID: %s\r\n", device_id);
    if (!write_all(socket, { text, length })) tarne_trace(1, "%s: Could not send DEVICE-CONN-INFO message", __func__);
    return 0;
}

/* --- host key ----------------------------------------------------------------------------------------------------- */

size_t obssh_trim_key(char *text, size_t length)
{
    char *space = strrchr(text, ' ');
    if (!space || !strchr(space, '@')) return length;
    *space = '\0';
    return static_cast<size_t>(space - text);
}

/* The content of the file, terminated, and its length; null if memory is out. What cannot be read is empty. */
static char *read_key(int file, size_t *length)
{
    struct stat status = {};
    (void)fstat(file, &status);
    size_t size = static_cast<size_t>(status.st_size) + 1;   // one more, since the file may grow meanwhile
    char *text = static_cast<char *>(calloc(size + 1, 1));
    if (!text) return nullptr;
    ssize_t got = read(file, text, size);
    *length = obssh_trim_key(text, got > 0 ? static_cast<size_t>(got) : 0);
    return text;
}

/* The router's public key file, open; -1 if there is none. */
static int open_key_file(const char *caller)
{
    int file = platform_open(rsa_key_path, O_RDONLY, 0);
    if (file >= 0) return file;
    tarne_trace(1, "%s: Failed to open ssh public key file for RSA", caller);
    return platform_open(dsa_key_path, O_RDONLY, 0);
}

int obssh_send_pub_host_key(int socket, const char *secret)
{
    char *text = nullptr;
    size_t length = 0;
    int file = open_key_file(__func__);
    if (file >= 0) {
        text = read_key(file, &length);
        (void)close(file);
    }
    // Kept on purpose: the terminator goes out, too.
    if (length > 0 && write_all(socket, "HOST-KEY: ") && !write_all(socket, { text, length + 1 }))
        tarne_trace(1, "%s: Could not send SSH public key", __func__);
    (void)write_all(socket, "\r\n");
    (void)obssh_send_hmac(socket, text, secret);
    free(text);
    return 0;
}

int obssh_send_hmac(int socket, const char *text, const char *secret)
{
    if (!text) text = "";
    unsigned length = 0;
    const unsigned char *octets = HMAC(EVP_sha1(), secret, static_cast<int>(strlen(secret)),
                                       reinterpret_cast<const unsigned char *>(text), strlen(text), nullptr, &length);
    if (!octets || length == 0) {
        tarne_trace(1, "%s: Failed to calculate HMAC(sha1) for SSH public key", __func__);
    } else {
        char digits[2 * SHA_DIGEST_LENGTH + 1];
        for (int at = 0; at < SHA_DIGEST_LENGTH; at++) (void)snprintf_safe(digits + 2 * at, 3, "%02x", octets[at]);
        if (write_all(socket, "HMAC: ") && !write_all(socket, { digits, 2 * SHA_DIGEST_LENGTH }))
            tarne_trace(1, "%s: Could not send SSH public key", __func__);
    }
    (void)write_all(socket, "\r\n");
    return 0;
}
