/*
 * Files that operators write for outbound SSH: sshd's configuration, of which whole lines are left out, and the host
 * key, of which a comment is cut off.
 */
#include "usr.sbin/keld/outbound_ssh/obssh_private.h"

#include <stdlib.h>
#include <string.h>
#include <string>

static void copy_template(const uint8_t *data, size_t size)
{
    std::string octets(reinterpret_cast<const char *>(data), size);
    char *copy = nullptr;
    size_t length = 0;
    FILE *from = fmemopen(octets.data(), size, "r");
    FILE *to = open_memstream(&copy, &length);
    if (!from || !to) abort();
    bool ended = obssh_copy_template(from, to);
    (void)fclose(from);
    (void)fclose(to);
    if (length > size || (ended && length > 0 && copy[length - 1] != '\n')) abort();
    free(copy);
}

static void trim_key(const uint8_t *data, size_t size)
{
    char *text = static_cast<char *>(malloc(size + 1));   // no more, for the sanitizer to see
    if (!text) return;
    memcpy(text, data, size);
    text[size] = '\0';
    size_t length = obssh_trim_key(text, size);
    if (length > size || text[length] != '\0') abort();
    if (const char *space = strrchr(text, ' '); length == size && space && strchr(space, '@')) abort();
    free(text);
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size);
int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    if (size > 0) copy_template(data, size);
    trim_key(data, size);
    return 0;
}
