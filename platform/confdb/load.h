/*
 * Loading: a configuration file into a tree.
 */
#pragma once

#include "platform/confdb/tree.h"

/* The committed configuration, or with check the candidate if there is one. *file is its path, a constant. Null on
 * failure, with one line in error that says why, and what to do if there is no configuration at all. */
[[nodiscard]] struct conf_tree *conf_load(bool check, const char **file, char *error, size_t size);
