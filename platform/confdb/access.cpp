/*
 * Access: the ddl_access_* calls over the one open tree.
 *
 * Objects handed out are the tree's own nodes; releasing only keeps the books. The books are two counters, of objects
 * and attributes that are out, which must both be zero when a reader closes.
 *
 * Where errors go is settled by the last opening, even a failed one, so that the reader's report of that failure takes
 * the same road. The count of errors outlives the closing: readers return it then.
 */
#include "platform/confdb/confdb.h"

#include "platform/confdb/access.h"
#include "platform/confdb/changes.h"
#include "platform/confdb/load.h"
#include "platform/log/log.h"
#include "platform/text/text.h"

#include <arpa/inet.h>
#include <malloc.h>
#include <stdarg.h>
#include <stdio.h>
#include <string.h>

enum open_error { OPEN_FAILED = 1, OPEN_ALREADY = 2, NOT_OPEN = 3 };

static struct {
    struct conf_tree *tree;   // owned; null while closed
    struct conf_text text;    // that tree was made of; owned, holds none while closed
    bool check;               // errors go to standard error
    int errors;               // reported since the last opening
    int objects_out;
    int attributes_out;
    char error[DDL_ACCESS_ERROR_MAX];   // why the last opening or closing failed
} db;

int ddl_access_open_db(int, const char *, const void *, int, int check)
{
    if (db.tree) {
        (void)snprintf_safe(db.error, sizeof db.error, "the configuration database is open already");
        return OPEN_ALREADY;
    }
    db.check = check != 0;
    db.errors = db.objects_out = db.attributes_out = 0;
    if (!conf_read(db.check, &db.text, db.error, sizeof db.error)) return OPEN_FAILED;
    db.tree = conf_parse(db.text.cx_path, db.text.cx_octets, db.text.cx_length, db.error, sizeof db.error);
    if (db.tree) return 0;
    conf_text_free(&db.text);
    return OPEN_FAILED;
}

const char *ddl_access_strerror(int error)
{
    return error == 0 ? "no error" : db.error;
}

int ddl_access_close_db(int, int)
{
    if (!db.tree) {
        (void)snprintf_safe(db.error, sizeof db.error, "the configuration database is not open");
        return NOT_OPEN;
    }
    conf_tree_free(db.tree);
    db.tree = nullptr;
    if (!db.check) conf_changes_close(&db.text);
    conf_text_free(&db.text);
    // The trees' pages go back to the system: a daemon idles for days between two readings.
    (void)malloc_trim(0);
    return 0;
}

const struct conf_tree *conf_committed_tree(void)
{
    return db.check ? nullptr : db.tree;
}

/* --- reports --------------------------------------------------------------------------------------------------- */

/* Reports and counts "FILE:LINE:COLUMN: TEXT", or the text alone for line 0, with ": REASON" behind it if not empty. */
[[gnu::format(printf, 4, 0)]] static void report(uint32_t line, uint32_t column, const char *reason,
                                                 const char *format, va_list args)
{
    char text[2 * DDL_ACCESS_ERROR_MAX] = "";
    size_t at = 0;
    if (line > 0 && db.tree)
        at = snprintf_safe(text, sizeof text, "%s:%u:%u: ", conf_tree_file(db.tree), line, column);
    (void)vsnprintf(text + at, sizeof text - at, format, args);
    at = strlen(text);
    if (*reason != '\0') (void)snprintf_safe(text + at, sizeof text - at, ": %s", reason);
    db.errors++;
    if (db.check)
        (void)fprintf(stderr, "%s\n", text);
    else
        logging(3, "%s", text);
}

void ddl_access_config_error(struct ddl_object *object, const char *format, ...)
{
    va_list args;
    va_start(args, format);
    report(object ? object->do_line : 0, object ? object->do_column : 0, "", format, args);
    va_end(args);
}

void ddl_access_attribute_error(struct ddl_object *object, const struct ddl_attribute *attr, const char *format, ...)
{
    char reason[CONF_REASON_MAX] = "";
    bool holds = attr && attr->da_object && attr->da_text;
    if (holds && !conf_value_is_good(attr->da_object->do_row, attr->da_text))
        conf_value_reason(attr->da_object->do_row, attr->da_text, reason, sizeof reason);
    const struct ddl_object *place = holds ? attr->da_object : object;
    va_list args;
    va_start(args, format);
    report(place ? place->do_line : 0, place ? place->do_column : 0, reason, format, args);
    va_end(args);
}

int ddl_access_config_had_errors(void)
{
    return db.errors;
}

/* --- objects --------------------------------------------------------------------------------------------------- */

static bool has_value(const struct ddl_object *object)
{
    return object->do_row->cr_shape == CONF_LEAF || object->do_row->cr_shape == CONF_PRESENCE;
}

/* What stands under row below object, or null. */
static struct ddl_object *child_of(const struct ddl_object *object, const struct conf_row *row)
{
    return row && db.tree ? conf_tree_find(db.tree, object, row, nullptr) : nullptr;
}

static struct ddl_object *child_by_name(const struct ddl_object *object, const char *name)
{
    return child_of(object, conf_row_child(object->do_row, name));
}

static struct ddl_object *hand_out(struct ddl_object *object)
{
    if (!object || has_value(object)) return nullptr;
    db.objects_out++;
    return object;
}

struct ddl_object *ddl_access_object_find_by_name(struct ddl_object *parent, const char *const *path, int, int, int)
{
    if (!db.tree) return nullptr;
    struct ddl_object *object = parent ? parent : conf_tree_top(db.tree);
    for (; *path && object; path++) {
        if (conf_object_is_list(object) && strcmp(*path, "<*>") == 0)
            return path[1] || !object->do_first ? nullptr : hand_out(object);
        object = child_by_name(object, *path);
    }
    return hand_out(object);
}

struct ddl_object *ddl_access_object_find_by_aid(struct ddl_object *parent, int attribute, int, int, int)
{
    if (!db.tree) return nullptr;
    struct ddl_object *object = parent ? parent : conf_tree_top(db.tree);
    return hand_out(child_of(object, conf_row_by_attribute(object->do_row, attribute)));
}

bool ddl_access_object_configured(struct ddl_object *object, const char *name, int)
{
    return object && child_by_name(object, name);
}

bool ddl_access_object_changed(struct ddl_object *object)
{
    return object && db.tree && !db.check && conf_object_changed(&db.text, object);
}

void ddl_access_changes_settle(void)
{
    if (db.tree && !db.check) conf_changes_settle();
}

bool ddl_access_visit_container(struct ddl_object *object, struct ddl_object **cursor, int)
{
    struct ddl_object *next = nullptr;
    if (*cursor) next = (*cursor)->do_next;
    else if (object && conf_object_is_list(object)) next = object->do_first;
    ddl_access_release(*cursor);
    for (; next; next = next->do_next) {
        if (conf_name_is_safe(next->do_row, next->do_text)) break;
        char reason[CONF_REASON_MAX];
        conf_value_reason(next->do_row, next->do_text, reason, sizeof reason);
        ddl_access_config_error(next, "%s", reason);
    }
    *cursor = hand_out(next);
    return next != nullptr;
}

int ddl_access_extract_id(struct ddl_object *object, char *buffer, size_t size)
{
    if (!object || !conf_object_is_element(object)) return -1;
    (void)snprintf_safe(buffer, size, "%s", object->do_text);
    return static_cast<int>(strlen(object->do_text));
}

void ddl_access_release(struct ddl_object *object)
{
    if (object) db.objects_out--;
}

/* --- attributes ------------------------------------------------------------------------------------------------ */

static constexpr struct ddl_attribute unused_attribute = DDL_ATTRIBUTE_INIT;

static bool is_unused(const struct ddl_attribute *attr)
{
    return attr->da_state == unused_attribute.da_state;
}

/* Makes attr hold the value of source, a leaf or an element. */
static bool fill(struct ddl_attribute *attr, const struct ddl_object *source, int attribute)
{
    if (!source || !source->do_text) return false;
    if (is_unused(attr)) db.attributes_out++;
    *attr = { .da_cursor = 0, .da_attribute = attribute, .da_state = 0,
              .da_line = static_cast<int32_t>(source->do_line), .da_column = static_cast<int32_t>(source->do_column),
              .da_text = source->do_text, .da_object = source };
    return true;
}

bool ddl_access_attribute_by_aid(struct ddl_object *object, int attribute, struct ddl_attribute *attr)
{
    if (!object || !db.tree) return false;
    if (attribute == CONF_KEY_ATTRIBUTE)
        return conf_object_is_element(object) && fill(attr, object, CONF_KEY_ATTRIBUTE);
    return fill(attr, child_of(object, conf_row_by_attribute(object->do_row, attribute)), attribute);
}

bool ddl_access_attribute_by_name(struct ddl_object *object, const char *name, struct ddl_attribute *attr)
{
    if (!object || !db.tree) return false;
    if (conf_object_is_element(object) && strcmp(object->do_row->cr_key, name) == 0)
        return fill(attr, object, CONF_KEY_ATTRIBUTE);
    const struct ddl_object *leaf = child_by_name(object, name);
    return leaf && fill(attr, leaf, leaf->do_row->cr_attribute);
}

int ddl_access_attribute_string(char *buffer, size_t size, const struct ddl_attribute *attr)
{
    if (size > 0) buffer[0] = '\0';
    if (!attr->da_text || !conf_text_is_safe(attr->da_text)) return -1;
    (void)snprintf_safe(buffer, size, "%s", attr->da_text);
    return static_cast<int>(strlen(attr->da_text));
}

bool ddl_access_attribute_ipv4addr(uint32_t *address, const struct ddl_attribute *attr)
{
    struct in_addr binary;
    if (!attr->da_text || inet_pton(AF_INET, attr->da_text, &binary) != 1) return false;
    *address = binary.s_addr;
    return true;
}

bool ddl_access_attribute_uint(uint32_t *value, const struct ddl_attribute *attr)
{
    if (!attr->da_text) return false;
    const struct conf_row *row = attr->da_object->do_row;
    return row->cr_value == CONF_WORD ? conf_row_word(row, attr->da_text, value)
                                      : conf_value_number(row, attr->da_text, value);
}

bool ddl_access_attribute_ushort(uint16_t *value, const struct ddl_attribute *attr)
{
    uint32_t number;
    if (!ddl_access_attribute_uint(&number, attr) || number > UINT16_MAX) return false;
    *value = static_cast<uint16_t>(number);
    return true;
}

void ddl_access_attribute_invalidate(struct ddl_attribute *attr)
{
    if (!is_unused(attr)) db.attributes_out--;
    *attr = unused_attribute;
}

/* --- debug checks ---------------------------------------------------------------------------------------------- */

#ifdef NDEBUG
static constexpr bool books_are_shown = false;
#else
static constexpr bool books_are_shown = true;
#endif

void ddl_access_resource_had_mismatch(int, int, int)
{
    if (books_are_shown && (db.objects_out < 0 || db.attributes_out < 0))
        logging(7, "configuration database: given back twice: objects %d, attributes %d", -db.objects_out,
                -db.attributes_out);
}

void ddl_access_debug_emit_leaks(int, int)
{
    if (books_are_shown && (db.objects_out > 0 || db.attributes_out > 0))
        logging(7, "configuration database: not given back: objects %d, attributes %d", db.objects_out,
                db.attributes_out);
}
