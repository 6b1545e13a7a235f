/*
 * Change marks: what is different in the configuration being read from the one before.
 */
#pragma once

#include "platform/confdb/load.h"

/* True if object, of the tree made of text, differs from what it was. The first question of an opening reads the former
 * configuration, which stays in memory until conf_changes_close. */
bool conf_object_changed(const struct conf_text *text, const struct ddl_object *object);
/* Has conf_changes_close make its text the former one, unless a question could not be answered for want of memory. */
void conf_changes_settle(void);
/* Ends an opening. Takes the octets of text, or leaves them to the caller. */
void conf_changes_close(struct conf_text *text);
