/*
 * Allocations: how often the engine asks for memory once it has found its stride.
 */
#pragma once

struct allocations {
    double al_received;   // for each frame received, delivered and acknowledged
    double al_sent;       // for each message sent
};

/* Counts both, with an engine and a scripted peer in this process. For one call in a program. */
struct allocations allocations_count();
