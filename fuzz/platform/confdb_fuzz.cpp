/*
 * Fuzz target: any octets as a configuration.
 *
 * Whatever the text, the answer is a tree or a message, never both. In a tree every object is found again under its
 * key, and every value can be judged and named in a message.
 */
#include "platform/confdb/tree.h"

#include <stdlib.h>
#include <string.h>

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size);

static void demand(bool holds)
{
    if (!holds) abort();
}

static void visit(struct conf_tree *tree, const struct ddl_object *object)
{
    const char *name = conf_object_is_element(object) ? object->do_text : nullptr;
    if (object->do_parent) demand(conf_tree_find(tree, object->do_parent, object->do_row, name) == object);
    if (object->do_text) {
        char reason[CONF_REASON_MAX];
        (void)conf_name_is_safe(object->do_row, object->do_text);
        conf_value_reason(object->do_row, object->do_text, reason, sizeof reason);
        demand(strlen(reason) > 0);
    }
    for (const struct ddl_object *child = object->do_first; child; child = child->do_next) {
        demand(child->do_parent == object && child->do_line > 0 && child->do_column > 0);
        visit(tree, child);
    }
}

int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    const char *text = reinterpret_cast<const char *>(data);
    char error[DDL_ACCESS_ERROR_MAX] = "";
    struct conf_tree *tree = conf_parse("fuzz.conf", text, size, error, sizeof error);
    demand((tree != nullptr) == (error[0] == '\0'));
    if (!tree) return 0;
    visit(tree, conf_tree_top(tree));
    bool good = conf_check(tree, error, sizeof error);
    demand(good == (error[0] == '\0'));
    conf_tree_free(tree);
    return 0;
}
