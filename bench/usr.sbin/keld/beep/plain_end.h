/*
 * Plain ends: blocking reads and writes without framing, which is what the engine is compared with, and a scripted BEEP
 * peer that costs next to nothing.
 */
#pragma once

#include "bench/usr.sbin/keld/beep/pair.h"

#define BENCH_PROFILE_URI "http://xml.tarne.example/beep/bench"

/* Messages of load.octets there and back, load.outstanding of them under way. */
void plain_ping(int fd, const struct load &load);
void plain_pong(int fd, const struct load &load);
/* Pieces of load.octets one way; one octet comes back when all have arrived. */
void plain_source(int fd, const struct load &load);
void plain_sink(int fd, const struct load &load);

/* A listener that accepts one channel, grants it a window of PEER_WINDOW, reads load.messages messages of one
 * frame each without looking into them, and answers the last. */
enum { PEER_WINDOW = 1 << 30 };
void scripted_sink(int fd, const struct load &load);

/* Its lines. Each writes all it has to say. */
void peer_say_greeting(int fd);
void peer_say_start_accepted(int fd);   // for channel 1
void peer_grant_window(int fd);         // to channel 1, which must stand at the engine
void write_all(int fd, const void *data, size_t octets);
