/*
 * The trace state that the engine and the program around it share. It stands alone in its object file, so that a
 * program that links the engine may define its own.
 */
#include "usr.sbin/keld/beep/beep.h"

extern "C" {

struct dtf_options keld_dtf_options = DTF_OPTIONS_INIT;

}   // extern "C"
