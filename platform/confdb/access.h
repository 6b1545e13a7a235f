/*
 * The open database, as the other readers of it in this folder see it.
 */
#pragma once

#include "platform/confdb/tree.h"

/* The open tree, if it is of the committed configuration and not of the one being checked; otherwise null. */
const struct conf_tree *conf_committed_tree(void);
