/*
 * The server's confirmation of the notification channel: any block gives a channel and an interval that is never
 * negative.
 */
#include "usr.sbin/keld/notification-profile.h"

#include <stddef.h>
#include <stdlib.h>

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size);
int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    struct beep_profile row = {};
    tkel_pro_init(&row);
    keepalive = -1;
    if (!row.pro_start_confirm(reinterpret_cast<const char *>(data), static_cast<int32_t>(size), nullptr)) abort();
    if (keepalive < 0) abort();
    return 0;
}
