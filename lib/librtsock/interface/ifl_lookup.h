/*
 * Steps that the functions about names share. Internal.
 */
#pragma once

#include "lib/librtsock/ifl.h"
#include "lib/librtsock/rtslib_cookie.h"

extern "C" {

struct ifl_msg;

/* A logical interface by name. */
struct ifl_place {
    char device[IFL_NAME_SIZE];
    uint32_t unit;
};
/* Unit 0 where the name has none. False for null and for a name that is too long. */
bool ifl_find_place(const char *name, struct ifl_place *place);
/* "device.unit" of a decoded message, cut to size octets. */
void ifl_print_name(const struct ifl_msg *message, char *buffer, size_t size);
/* The device's name alone. */
void ifl_print_device(const struct ifl_msg *message, char *buffer, size_t size);

}   // extern "C"
