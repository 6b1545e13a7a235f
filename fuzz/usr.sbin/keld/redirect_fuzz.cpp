/*
 * A message on the notification channel: whatever the server sends, a redirect is either taken or not, and a pending
 * one is used once.
 */
#include "usr.sbin/keld/notification-profile.h"

#include <stddef.h>
#include <stdlib.h>

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size);
int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    struct beep_profile row = {};
    tkel_pro_init(&row);
    struct beep_frame *frame = frame_new(BEEP_MSGTYPE_MSG, 1, 0, BEEP_MORE_LAST, static_cast<int32_t>(size), -1, data);
    if (!frame) return 0;
    row.pro_message(nullptr, nullptr, frame);
    frame_free(frame);

    struct keld_server server = {};
    if (redirect_get_and_reset(&server) && server.ks_addr == 0) abort();
    if (redirect_get_and_reset(&server)) abort();
    return 0;
}
