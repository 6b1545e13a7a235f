/*
 * Configuration tree: a parsed configuration in memory.
 *
 * What stands twice is one: the contents of a repeated stanza, list or element join those of the first, in the order of
 * the file; of a repeated leaf the last value holds. Elements of a list keep the order of their first appearance.
 */
#pragma once

#include "platform/confdb/confdb.h"
#include "platform/confdb/schema.h"

#include <stddef.h>
#include <stdint.h>

/* A stanza, list, element, leaf or presence. */
struct ddl_object {
    const struct conf_row *do_row;        // an element has its list's
    struct ddl_object *do_parent;         // null at the top
    struct ddl_object *do_first, *do_last, *do_next;
    struct ddl_object *do_hash_next;
    const char *do_text;                  // an element's name or a leaf's value; null otherwise
    uint32_t do_line, do_column;          // of the name or value, else of the keyword; where it stood first
};

struct conf_tree;

enum { CONF_FILE_NAME_MAX = 64 };

/* Parses text, which may hold anything; nothing of it is used after the return. file is the name for messages, cut to
 * CONF_FILE_NAME_MAX. Null on any fault, with "FILE:LINE:COLUMN: found X, expected Y" in error, or "FILE: ..." if
 * memory is out or the text is longer than DDL_ACCESS_TEXT_MAX. */
[[nodiscard]] struct conf_tree *conf_parse(const char *file, const char *text, size_t length, char *error, size_t size);
void conf_tree_free(struct conf_tree *tree);   // null allowed

struct ddl_object *conf_tree_top(struct conf_tree *tree);
const char *conf_tree_file(const struct conf_tree *tree);

/* Building. An empty tree, or null; the object of row and name (null for all but elements) below parent, made if it is
 * not there: null if memory is out. Room for octets that lives as long as the tree, or null. */
[[nodiscard]] struct conf_tree *conf_tree_new(const char *file);
[[nodiscard]] struct ddl_object *conf_tree_add(struct conf_tree *tree, struct ddl_object *parent,
                                               const struct conf_row *row, const char *name);
[[nodiscard]] char *conf_tree_room(struct conf_tree *tree, size_t octets);
/* The object of row and name below parent, or null. */
struct ddl_object *conf_tree_find(const struct conf_tree *tree, const struct ddl_object *parent,
                                  const struct conf_row *row, const char *name);

/* True for an element of a list; its do_text is its name. */
bool conf_object_is_element(const struct ddl_object *object);
/* True for a list, whose children are its elements. */
bool conf_object_is_list(const struct ddl_object *object);

/* Checks names, kinds and limits of all that stands below the top. True if all are good; else the first fault, in the
 * order of the tree, is in error as "FILE:LINE:COLUMN: found X, expected Y". */
[[nodiscard]] bool conf_check(struct conf_tree *tree, char *error, size_t size);
