/*
 * The dax_* face: objects and values of the open tree, and walks over lists that remember what they told.
 *
 * Objects are the nodes that ddl_access_* hands out too, and go through its books. A value is judged where it is read:
 * what breaks its rule is reported there, and the reader sees nothing of it.
 *
 * A walk puts an element into the record before it tells it, and makes it certain once that was taken. So the record
 * never lacks a name that somebody may act for. Whatever ends a walk, what was not taken stays uncertain and is told
 * again, as new or as deleted; being told of an element twice costs a look, not being told loses it for good.
 */
#include "platform/confdb/dax.h"

#include "platform/chassis/chassis.h"
#include "platform/confdb/access.h"
#include "platform/confdb/walked.h"
#include "platform/text/text.h"

#include <stdlib.h>
#include <string.h>

static struct ddl_object *ddl_of(struct dax_object *object)
{
    return reinterpret_cast<struct ddl_object *>(object);
}

static struct dax_object *dax_of(struct ddl_object *object)
{
    return reinterpret_cast<struct dax_object *>(object);
}

/* --- the database ------------------------------------------------------------------------------------------------ */

int dax_open_db(int first, const char *name, int, int fourth, int check)
{
    int error = ddl_access_open_db(first, name, nullptr, fourth, check);
    const struct conf_tree *tree = conf_committed_tree();
    if (error || !tree) return error;
    walked_doubt_absent(tree);
    if (nmchassis_read_config()) walked_doubt_all();
    return 0;
}

int dax_close_db(void)
{
    ddl_access_resource_had_mismatch(1, 0, 0);
    ddl_access_debug_emit_leaks(1, 1);
    return ddl_access_close_db(0, 0);
}

void dax_error(int, const char *format, int error)
{
    const char *place = strstr(format, "%s");
    if (!place) return ddl_access_config_error(nullptr, "%s", format);
    ddl_access_config_error(nullptr, "%.*s%s%s", static_cast<int>(place - format), format, ddl_access_strerror(error),
                            place + 2);
}

/* --- objects and values ------------------------------------------------------------------------------------------ */

/* Stores a found object. True if it was found. */
static bool found(struct ddl_object *object, struct dax_object **out)
{
    if (object) *out = dax_of(object);
    return object != nullptr;
}

bool dax_get_object_by_path(int, const char *const *path, struct dax_object **object, int)
{
    return found(ddl_access_object_find_by_name(nullptr, path, 0, 0, 0), object);
}

bool dax_get_object_by_name(struct dax_object *object, const char *name, struct dax_object **child, int)
{
    const char *const path[] = { name, nullptr };
    return object && found(ddl_access_object_find_by_name(ddl_of(object), path, 0, 0, 0), child);
}

void dax_release_object(struct dax_object **object)
{
    ddl_access_release(ddl_of(*object));
    *object = nullptr;
}

bool dax_is_configured_by_name(struct dax_object *object, const char *name)
{
    return ddl_access_object_configured(ddl_of(object), name, 0);
}

/* Gives the value of name to take, which answers whether it could be taken; if not, it is reported. */
template <typename Take> static bool take_value(struct dax_object *object, const char *name, Take take)
{
    struct ddl_attribute attr = DDL_ATTRIBUTE_INIT;
    if (!ddl_access_attribute_by_name(ddl_of(object), name, &attr)) return false;
    bool taken = conf_value_is_good(attr.da_object->do_row, attr.da_text) && take(&attr);
    if (!taken) ddl_access_attribute_error(ddl_of(object), &attr, "%s left out", name);
    ddl_access_attribute_invalidate(&attr);
    return taken;
}

bool dax_get_string_by_name(struct dax_object *object, const char *name, const char **string)
{
    return take_value(object, name, [&](const struct ddl_attribute *attr) {
        *string = attr->da_text;
        return true;
    });
}

bool dax_get_uint_by_name(struct dax_object *object, const char *name, uint32_t *value)
{
    return take_value(object, name, [&](const struct ddl_attribute *attr) {
        return ddl_access_attribute_uint(value, attr);
    });
}

bool dax_get_ushort_by_name(struct dax_object *object, const char *name, uint16_t *value)
{
    return take_value(object, name, [&](const struct ddl_attribute *attr) {
        return ddl_access_attribute_ushort(value, attr);
    });
}

/* --- walks ------------------------------------------------------------------------------------------------------- */

struct dax_handle {
    struct ddl_object *dh_list;
    int dh_mode;
    struct walked_list *dh_record;   // null: nothing is remembered of this list
    const char *dh_deleted;          // name of the deleted element while it is told; otherwise null
    dax_walk_func dh_func;
    void *dh_argument;
};

/* True if the callback took it. */
static bool tell(struct dax_handle *walk, struct ddl_object *element, enum dax_operation operation)
{
    return walk->dh_func(walk, dax_of(element), operation, walk->dh_argument) == 0;
}

static bool name_is_good(const struct ddl_object *element)
{
    return conf_name_is_safe(element->do_row, element->do_text) &&
           conf_value_is_good(element->do_row, element->do_text) && strlen(element->do_text) < WALKED_NAME_SIZE;
}

static void report_name(struct ddl_object *element)
{
    char reason[CONF_REASON_MAX];
    conf_value_reason(element->do_row, element->do_text, reason, sizeof reason);
    ddl_access_config_error(element, "%s", reason);
}

static bool is_empty(const struct ddl_object *list)
{
    for (const struct ddl_object *element = list->do_first; element; element = element->do_next)
        if (name_is_good(element)) return false;
    return true;
}

static bool is_in_list(const struct dax_handle *walk, const struct walked_element *walked)
{
    return conf_tree_find(conf_committed_tree(), walk->dh_list, walk->dh_list->do_row, walked->we_name) != nullptr;
}

/* Forgets the elements that are gone, having told them if tells is set. False if the callback ended the walk. */
static bool drop_deleted(struct dax_handle *walk, bool tells)
{
    struct walked_element *walked = walked_next(walk->dh_record, nullptr), *next;
    for (; walked; walked = next) {
        next = walked_next(walk->dh_record, walked);
        if (is_in_list(walk, walked)) continue;
        walk->dh_deleted = walked->we_name;
        bool goes_on = !tells || tell(walk, nullptr, DAX_DELETED);
        walk->dh_deleted = nullptr;
        if (!goes_on) return false;
        walked_remove(walk->dh_record, walked);
    }
    return true;
}

/* Tells what was deleted. False if the callback ended the walk. */
static bool tell_deleted(struct dax_handle *walk)
{
    if (!is_empty(walk->dh_list)) return drop_deleted(walk, true);
    if (!walked_next(walk->dh_record, nullptr)) return true;
    return tell(walk, nullptr, DAX_LIST_DELETED) && drop_deleted(walk, false);
}

/* Tells the element, if it is not as it was. False if memory is out or the callback ended the walk. */
static bool tell_recorded(struct dax_handle *walk, struct ddl_object *element)
{
    struct walked_element *now = walked_element_new(element);
    if (!now) return false;
    const struct walked_element *before = walked_find(walk->dh_record, now->we_name);
    bool is_known = before && before->we_is_certain;
    if (is_known && walked_is_same(before, now)) {
        free(now);
        return true;
    }
    walked_put(walk->dh_record, now);   // before is gone
    now->we_is_certain = tell(walk, element, is_known ? DAX_CHANGED : DAX_NEW);
    return now->we_is_certain;
}

static bool tell_elements(struct dax_handle *walk)
{
    for (struct ddl_object *element = walk->dh_list->do_first; element; element = element->do_next) {
        if (!name_is_good(element))
            report_name(element);
        else if (walk->dh_record ? !tell_recorded(walk, element) : !tell(walk, element, DAX_NEW))
            return false;
    }
    return true;
}

static bool walk_recorded(struct dax_handle *walk)
{
    if (walk->dh_mode == DAX_WALK_CHANGED) return tell_deleted(walk) && tell_elements(walk);
    walked_doubt(walk->dh_record);
    return tell_elements(walk) && drop_deleted(walk, false);
}

/* True if a record of the list is kept: not of one being checked, nor of one inside another list's element. */
static bool is_remembered(const struct ddl_object *list)
{
    for (const struct ddl_object *at = list; at; at = at->do_parent)
        if (conf_object_is_element(at)) return false;
    return conf_committed_tree() != nullptr;
}

int dax_walk_list(struct dax_object *object, int mode, dax_walk_func func, void *argument)
{
    struct ddl_object *list = ddl_of(object);
    if (!list || !conf_object_is_list(list) || (mode != DAX_WALK_ALL && mode != DAX_WALK_CHANGED)) return -1;
    struct dax_handle walk = { list, mode, nullptr, nullptr, func, argument };
    if (!is_remembered(list)) return tell_elements(&walk) ? 0 : -1;

    walk.dh_record = walked_list_of(list);
    if (!walk.dh_record || !walked_list_take(walk.dh_record)) return -1;
    bool finished = walk_recorded(&walk);
    walked_list_give_back(walk.dh_record);
    return finished ? 0 : -1;
}

bool dax_get_stringr_by_dwd_ident(struct dax_handle *handle, int, int, char *buffer, size_t size)
{
    if (!handle->dh_deleted) return false;
    (void)snprintf_safe(buffer, size, "%s", handle->dh_deleted);
    return true;
}
