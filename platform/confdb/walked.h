/*
 * What was walked: the elements of each list as this process was told of them last.
 */
#pragma once

#include "platform/confdb/tree.h"
#include "platform/patricia/patricia.h"

enum { WALKED_NAME_SIZE = 256 };   // room for every name that keeps the schema's rules

/* An element as it was told. */
struct walked_element {
    struct patricia_node we_node;
    char we_name[WALKED_NAME_SIZE];   // key, zero-padded
    bool we_is_certain;               // told and taken since; otherwise it is told again, however it looks
    size_t we_length;                 // octets of we_text
    char we_text[];                   // canonical text of all that it holds
};

struct walked_list;

/* The record of the list, made if it is not there; null if memory is out. The list does not stand inside an element of
 * another one. */
[[nodiscard]] struct walked_list *walked_list_of(const struct ddl_object *list);
/* True, and the record is taken, if no walk holds it. To be given back. */
[[nodiscard]] bool walked_list_take(struct walked_list *record);
void walked_list_give_back(struct walked_list *record);

/* The element of that name, or null. */
struct walked_element *walked_find(const struct walked_list *record, const char *name);
/* The next one in the order of names; the first if element is null; null at the end. */
struct walked_element *walked_next(const struct walked_list *record, const struct walked_element *element);
/* Takes element out and frees it. */
void walked_remove(struct walked_list *record, struct walked_element *element);
/* A record of the element as it is now, uncertain and in no list, for walked_put or free; null if memory is out. */
[[nodiscard]] struct walked_element *walked_element_new(const struct ddl_object *element);
bool walked_is_same(const struct walked_element *a, const struct walked_element *b);
/* Takes element, in place of the one of its name. */
void walked_put(struct walked_list *record, struct walked_element *element);

/* Makes all elements of the record uncertain. */
void walked_doubt(struct walked_list *record);
void walked_doubt_all(void);                                    // of all records
void walked_doubt_absent(const struct conf_tree *tree);         // of those whose lists do not stand in tree
