/*
 * Loading: a configuration file into memory, and into a tree.
 */
#pragma once

#include "platform/confdb/tree.h"

/* A configuration as it was read. */
struct conf_text {
    const char *cx_path;   // a constant
    char *cx_octets;       // owned, not terminated; null: holds none
    size_t cx_length;
};

/* The committed configuration, or with check the candidate if there is one. False on failure, with one line in error
 * that says why, and what to do if there is no configuration at all; text then holds none. cx_path is set in any case,
 * and text otherwise the caller's, for conf_text_free. */
[[nodiscard]] bool conf_read(bool check, struct conf_text *text, char *error, size_t size);
/* The configuration that was in force before the committed one, if it was kept; otherwise false, and text holds
 * none. */
[[nodiscard]] bool conf_read_former(struct conf_text *text);
/* Leaves text holding none. */
void conf_text_free(struct conf_text *text);

/* The same as conf_read, parsed. *file is its path, a constant, whatever the result. Null on failure. */
[[nodiscard]] struct conf_tree *conf_load(bool check, const char **file, char *error, size_t size);
