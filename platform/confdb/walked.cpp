/*
 * What was walked: one record for each list, a tree of elements by name in each.
 *
 * An element is kept as a canonical text, which is the same exactly if all that the element holds is the same. White
 * space, comments, places in the file and the order of keywords are not in it; the order of elements in a list is. It
 * says which schema row an object has by the row's address, so it means something in this process only.
 *
 * Records are found by their lists' places. A place is the chain of rows from the top, which says too little of a list
 * that stands inside another list's element; such lists are not recorded.
 *
 * Records are never freed. There are at most as many as the schema has lists.
 */
#include "platform/confdb/walked.h"

#include "platform/text/text.h"

#include <stdlib.h>
#include <string.h>

enum { PLACE_DEPTH_MAX = 8 };   // rows between the top and a list, the list's own included

struct walked_list {
    struct walked_list *wl_next;
    const struct conf_row *wl_place[PLACE_DEPTH_MAX];   // from the list up, ended by a null
    bool wl_is_taken;
    struct patricia_root wl_elements;
};

static struct walked_list *records;   // owned

/* --- canonical text ---------------------------------------------------------------------------------------------- */

/* Where a text goes; with a null wt_out it is only measured. */
struct walked_text {
    char *wt_out;
    size_t wt_length;
};

static void put(struct walked_text *text, const void *octets, size_t length)
{
    if (text->wt_out) memcpy(text->wt_out + text->wt_length, octets, length);
    text->wt_length += length;
}

/* The child with the lowest row above row, or null. */
static const struct ddl_object *child_above(const struct ddl_object *object, const struct conf_row *row)
{
    const struct ddl_object *best = nullptr;
    for (const struct ddl_object *child = object->do_first; child; child = child->do_next)
        if (child->do_row > row && (!best || child->do_row < best->do_row)) best = child;
    return best;
}

/* The row, the text, what stands below, and an end. The recursion is as deep as the schema. */
static void put_object(struct walked_text *text, const struct ddl_object *object)
{
    static constexpr const struct conf_row *end = nullptr;
    put(text, &object->do_row, sizeof object->do_row);
    if (object->do_text) put(text, object->do_text, strlen(object->do_text) + 1);
    if (conf_object_is_list(object)) {
        for (const struct ddl_object *child = object->do_first; child; child = child->do_next) put_object(text, child);
    } else {
        const struct ddl_object *child = nullptr;
        while ((child = child_above(object, child ? child->do_row : nullptr))) put_object(text, child);
    }
    put(text, &end, sizeof end);
}

struct walked_element *walked_element_new(const struct ddl_object *element)
{
    struct walked_text text = { nullptr, 0 };
    put_object(&text, element);
    struct walked_element *made = static_cast<struct walked_element *>(calloc(1, sizeof *made + text.wt_length));
    if (!made) return nullptr;
    text = { made->we_text, 0 };
    put_object(&text, element);
    made->we_length = text.wt_length;
    (void)snprintf_safe(made->we_name, sizeof made->we_name, "%s", element->do_text);
    patricia_node_init_length(&made->we_node, 0);
    return made;
}

bool walked_is_same(const struct walked_element *a, const struct walked_element *b)
{
    return a->we_length == b->we_length && memcmp(a->we_text, b->we_text, a->we_length) == 0;
}

/* --- elements ---------------------------------------------------------------------------------------------------- */

static struct walked_element *element_of(struct patricia_node *node)
{
    return reinterpret_cast<struct walked_element *>(node);   // the node comes first
}

struct walked_element *walked_find(const struct walked_list *record, const char *name)
{
    char key[WALKED_NAME_SIZE] = "";
    (void)snprintf_safe(key, sizeof key, "%s", name);
    return element_of(patricia_lookup(&record->wl_elements, key));
}

struct walked_element *walked_next(const struct walked_list *record, const struct walked_element *element)
{
    return element_of(patricia_find_next(&record->wl_elements, element ? &element->we_node : nullptr));
}

void walked_remove(struct walked_list *record, struct walked_element *element)
{
    (void)patricia_delete(&record->wl_elements, &element->we_node);
    free(element);
}

void walked_put(struct walked_list *record, struct walked_element *element)
{
    struct walked_element *former = walked_find(record, element->we_name);
    if (former) walked_remove(record, former);
    (void)patricia_add(&record->wl_elements, &element->we_node);   // there is none of its name by now
}

/* --- records ----------------------------------------------------------------------------------------------------- */

static bool stands_at(const struct walked_list *record, const struct ddl_object *list)
{
    const struct conf_row *const *row = record->wl_place;
    for (const struct ddl_object *at = list; at->do_parent; at = at->do_parent)
        if (*row++ != at->do_row) return false;
    return !*row;
}

static struct walked_list *record_new(const struct ddl_object *list)
{
    struct walked_list *record = static_cast<struct walked_list *>(calloc(1, sizeof *record));
    if (!record) return nullptr;
    size_t depth = 0;
    for (const struct ddl_object *at = list; at->do_parent && depth < PLACE_DEPTH_MAX - 1; at = at->do_parent)
        record->wl_place[depth++] = at->do_row;
    (void)patricia_root_init(&record->wl_elements, 0, WALKED_NAME_SIZE, 0);   // allocates nothing
    record->wl_next = records;
    records = record;
    return record;
}

struct walked_list *walked_list_of(const struct ddl_object *list)
{
    struct walked_list *record = records;
    while (record && !stands_at(record, list)) record = record->wl_next;
    return record ? record : record_new(list);
}

bool walked_list_take(struct walked_list *record)
{
    if (record->wl_is_taken) return false;
    record->wl_is_taken = true;
    return true;
}

void walked_list_give_back(struct walked_list *record)
{
    record->wl_is_taken = false;
}

void walked_doubt(struct walked_list *record)
{
    for (struct walked_element *element = nullptr; (element = walked_next(record, element));)
        element->we_is_certain = false;
}

void walked_doubt_all(void)
{
    for (struct walked_list *record = records; record; record = record->wl_next) walked_doubt(record);
}

static bool stands_in(const struct conf_tree *tree, const struct walked_list *record)
{
    size_t depth = 0;
    while (record->wl_place[depth]) depth++;
    const struct ddl_object *object = conf_tree_top(const_cast<struct conf_tree *>(tree));
    while (object && depth > 0) object = conf_tree_find(tree, object, record->wl_place[--depth], nullptr);
    return object != nullptr;
}

void walked_doubt_absent(const struct conf_tree *tree)
{
    for (struct walked_list *record = records; record; record = record->wl_next)
        if (!stands_in(tree, record)) walked_doubt(record);
}
