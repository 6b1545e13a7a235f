/*
 * What a kernel sends to a client: datagrams, in order, kept while the socket is full. Internal to kernels.
 */
#pragma once

#include "platform/rtsock/kernel/rk.h"

extern "C" {

enum { RK_HDR_SIZE = 24 };   // octets of the header that all messages have

/* Between the two, messages are gathered into few datagrams. */
void rk_batch_begin(struct rk_client *client);
void rk_batch_end(struct rk_client *client);
/* Hands as much to the socket as it takes. */
void rk_queue_flush(struct rk_client *client);
void rk_queue_clear(struct rk_client *client);

}   // extern "C"

/* A fault that is due so many times more: whether it happens now. */
inline bool rk_happens(uint32_t *times)
{
    return *times != 0 && (*times)-- != 0;
}
