/*
 * Engine ends: the BEEP engine under load, as initiator and as listener.
 */
#pragma once

#include "bench/usr.sbin/keld/beep/pair.h"
#include "usr.sbin/keld/beep/beep.h"

/* Keeps load.outstanding MSGs under way until load.messages are answered. For one end of an engine pair. */
void engine_ask(int fd, const struct load &load);
/* Answers each MSG with load.reply_octets when its last frame has come. Ends with the session. */
void engine_answer(int fd, const struct load &load);
/* Sends load.messages MSGs without waiting for answers, as fast as the window allows. Ends with the first answer. */
void engine_stream(int fd, const struct load &load);

/* An initiator whose profile only counts, for a scripted peer in the same process. */
struct engine_probe {
    evContext ep_ctx;
    struct beep_session *ep_session;
    struct beep_channel *ep_channel;   // null until started
    int32_t ep_frames;                 // received on it
};
extern struct engine_probe engine_probe;
/* Starts it on fd, turns the loop until channel 1 is ready, and has the peer grant a window. */
void engine_probe_start(int fd, int peer_fd);
