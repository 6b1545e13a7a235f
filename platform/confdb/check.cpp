/*
 * Whole check: what readers would find wrong one by one, found before a configuration is put in force.
 *
 * The tree is walked in the order of the file, without recursion: down to the first child, on to the next, up when
 * there is none. The first fault ends the walk, since the person who corrects it runs the check again anyway.
 */
#include "platform/confdb/tree.h"

#include "platform/confdb/load.h"
#include "platform/text/text.h"

static bool object_is_good(const struct ddl_object *object)
{
    if (!object->do_text) return true;
    if (conf_object_is_element(object) && !conf_name_is_safe(object->do_row, object->do_text)) return false;
    return conf_value_is_good(object->do_row, object->do_text);
}

/* The object after this one in a walk over the whole tree; null at the end. */
static const struct ddl_object *next_in_walk(const struct ddl_object *object)
{
    if (object->do_first) return object->do_first;
    while (object && !object->do_next) object = object->do_parent;
    return object ? object->do_next : nullptr;
}

bool conf_check(struct conf_tree *tree, char *error, size_t size)
{
    for (const struct ddl_object *object = conf_tree_top(tree); object; object = next_in_walk(object)) {
        if (object_is_good(object)) continue;
        char reason[CONF_REASON_MAX];
        conf_value_reason(object->do_row, object->do_text, reason, sizeof reason);
        (void)snprintf_safe(error, size, "%s:%u:%u: %s", conf_tree_file(tree), object->do_line, object->do_column,
                            reason);
        return false;
    }
    return true;
}

/* Takes tree, null if it could not be made. 0 or -1. */
static int check_tree(struct conf_tree *tree, char *error, size_t size)
{
    bool good = tree && conf_check(tree, error, size);
    conf_tree_free(tree);
    return good ? 0 : -1;
}

int ddl_access_check_text(const char *file, const char *text, size_t length, char *error, size_t size)
{
    return check_tree(conf_parse(file, text, length, error, size), error, size);
}

int ddl_access_check_candidate(const char **file, char *error, size_t size)
{
    return check_tree(conf_load(true, file, error, size), error, size);
}
