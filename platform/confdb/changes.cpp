/*
 * Change marks: the tree of the opening compared with the configuration before it.
 *
 * Between openings only the former configuration's text is kept, a fraction of its tree. The tree is made of it when an
 * opening asks its first question, and lives until that closes; if the two texts are the same octets it is not even
 * made, and nothing is marked. An object's former self is found by its place: keywords and names from the top down.
 *
 * What a reader has not settled is not forgotten: changes of several commits add up until one acts on them. A reload
 * that fails, or happens while nobody is interested, therefore loses nothing, and one without a commit marks nothing
 * for the second time.
 *
 * True between openings: tree is null, and text holds what was settled last or else what was read first.
 */
#include "platform/confdb/changes.h"

#include <string.h>

static struct {
    struct conf_text text;    // the former configuration; owned, holds none before the first closing
    bool is_settled;          // and not just the first that was read
    // of the opening:
    bool is_known;            // the former configuration was looked for
    struct conf_tree *tree;   // of it; owned, null if nothing is marked
    bool is_lost;             // it is there and could not be parsed for want of memory
    bool settles;             // at its closing
} former;

/* --- comparing --------------------------------------------------------------------------------------------------- */

static bool is_same(const struct ddl_object *now, const struct ddl_object *before);

static bool elements_are_same(const struct ddl_object *now, const struct ddl_object *before)
{
    const struct ddl_object *a = now->do_first, *b = before->do_first;
    while (a && b && is_same(a, b)) {
        a = a->do_next;
        b = b->do_next;
    }
    return !a && !b;
}

static size_t child_count(const struct ddl_object *object)
{
    size_t count = 0;
    for (const struct ddl_object *child = object->do_first; child; child = child->do_next) count++;
    return count;
}

/* The children of anything but a list are of different rows. */
static bool keywords_are_same(const struct ddl_object *now, const struct ddl_object *before)
{
    if (child_count(now) != child_count(before)) return false;
    for (const struct ddl_object *child = now->do_first; child; child = child->do_next) {
        const struct ddl_object *other = conf_tree_find(former.tree, before, child->do_row, nullptr);
        if (!other || !is_same(child, other)) return false;
    }
    return true;
}

/* Of two objects of one row. The recursion is as deep as the schema. */
static bool is_same(const struct ddl_object *now, const struct ddl_object *before)
{
    if (now->do_text && before->do_text && strcmp(now->do_text, before->do_text) != 0) return false;
    return conf_object_is_list(now) ? elements_are_same(now, before) : keywords_are_same(now, before);
}

/* What stood at the object's place, or null. */
static const struct ddl_object *former_self(const struct ddl_object *object)
{
    if (!object->do_parent) return conf_tree_top(former.tree);
    const struct ddl_object *parent = former_self(object->do_parent);
    const char *name = conf_object_is_element(object) ? object->do_text : nullptr;
    return parent ? conf_tree_find(former.tree, parent, object->do_row, name) : nullptr;
}

/* --- the former configuration ------------------------------------------------------------------------------------ */

static bool is_same_text(const struct conf_text *a, const struct conf_text *b)
{
    return a->cx_length == b->cx_length && memcmp(a->cx_octets, b->cx_octets, a->cx_length) == 0;
}

static struct conf_tree *parse(const struct conf_text *text)
{
    char error[DDL_ACCESS_ERROR_MAX];   // nobody asked for that text, so what is wrong with it is not reported
    return conf_parse(text->cx_path, text->cx_octets, text->cx_length, error, sizeof error);
}

/* Finds the former configuration, unless it is what is being read. */
static void look_for_former(const struct conf_text *now)
{
    former.is_known = true;
    if (former.text.cx_octets && !is_same_text(&former.text, now)) {
        former.tree = parse(&former.text);
        former.is_lost = !former.tree;   // it was parsed once, so it is no fault of the text
        return;
    }
    struct conf_text kept;
    if (former.is_settled || !conf_read_former(&kept)) return;
    former.tree = parse(&kept);
    conf_text_free(&kept);
}

bool conf_object_changed(const struct conf_text *text, const struct ddl_object *object)
{
    if (!former.is_known) look_for_former(text);
    if (!former.tree) return false;
    const struct ddl_object *before = former_self(object);
    return !before || !is_same(object, before);
}

void conf_changes_settle(void)
{
    former.settles = !former.is_lost;
}

void conf_changes_close(struct conf_text *text)
{
    conf_tree_free(former.tree);
    if (former.settles) former.is_settled = true;
    if (former.settles || !former.text.cx_octets) {
        conf_text_free(&former.text);
        former.text = *text;
        text->cx_octets = nullptr;
    }
    former.is_known = former.is_lost = former.settles = false;
    former.tree = nullptr;
}
