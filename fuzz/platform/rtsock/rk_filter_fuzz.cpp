/*
 * Fuzz target: any program on any decoded message. Input: a program of RTS_FILTER_BLOCK_SIZE octets (or what there is,
 * with zeros behind), then an enveloped message.
 */
#include "lib/librtsock/filter/rts_filter.h"
#include "lib/librtsock/idl/idl.h"
#include "platform/rtsock/kernel/rk_filter.h"

#include <stdlib.h>
#include <string.h>

#include <algorithm>

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size);

alignas(16) static uint8_t arena[1 << 20];
static size_t used;

static void *take(size_t octets, void *)
{
    size_t padded = (octets + 15) / 16 * 16;
    if (padded > sizeof arena - used) return nullptr;
    used += padded;
    return memset(arena + used - padded, 0, padded);
}

int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    uint8_t block[RTS_FILTER_BLOCK_SIZE] = {};
    size_t program = std::min(size, sizeof block);
    memcpy(block, data, program);
    bool sound = rk_filter_is_sound(block, sizeof block);
    int nothing = rk_filter_holds(block, sizeof block, 0, nullptr);
    if (nothing < -1 || nothing > 1 || (sound && rk_filter_is_sound(block, 0))) abort();
    used = 0;
    struct rts_msg message = {};
    if (idr_decode_rts_msg_0(&message, data + program, size - program, take, nullptr) > 0 && message.msg != nullptr)
        (void)rk_filter_holds(block, sizeof block, uint8_t(message.type), message.msg);
    return 0;
}
