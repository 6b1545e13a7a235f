/*
 * Configuration database: the text file of the configuration, parsed against one schema, behind the ddl_access_* calls.
 *
 * One database is open at a time in a process; objects and attributes are valid until it is closed. The committed
 * configuration is /var/etc/keld.conf; the one being checked is /var/etc/keld.conf.candidate, or the committed one if
 * there is no candidate. Opening parses the whole file: a syntax error or unknown keyword fails the opening and nothing
 * is half read. Kinds and limits of values are checked where a value is read.
 *
 * Without a committed file the opening fails. That is not the same as an empty file: a file that was lost must not read
 * as the order to drop every server and interface. A router that was never configured says so once at each reading.
 *
 * What stands twice is one: the contents of a repeated stanza, list or element join those of the first, and of a
 * repeated value the last one holds. Elements keep the order of the file.
 *
 * Errors go to the system log (severity 3), or to standard error when the database was opened with check set, as
 * "FILE:LINE:COLUMN: TEXT", a line each; FILE is the name without its folder.
 */
#pragma once

#include <stddef.h>
#include <stdint.h>

extern "C" {

struct ddl_object;   // a stanza, a list or an element of a list

/* A cursor record. Prepare it with DDL_ATTRIBUTE_INIT before its first use. */
struct ddl_attribute {
    int32_t da_cursor;    // -1: holds nothing
    int32_t da_attribute; // attribute number while it holds one
    int32_t da_state;     // -2: unused
    int32_t da_line, da_column;
    const char *da_text;  // the value as written, without quotes; the database's
    const struct ddl_object *da_object;   // that the value stands in; the database's
};
#define DDL_ATTRIBUTE_INIT { -1, 0, -2, 0, 0, nullptr, nullptr }

/* 0, or a number for ddl_access_strerror; then nothing is open, unless it failed for one being open already, which
 * stays so. name is the daemon's name and selects nothing. The third argument is null and the fourth -2. check selects
 * the configuration being checked, and where errors go, also those reported after a failed opening. */
[[nodiscard]] int ddl_access_open_db(int first, const char *name, const void *third, int fourth, int check);
/* One line that says why the last opening or closing failed; the database's, valid until the next one. */
const char *ddl_access_strerror(int error);
/* Frees everything read. 0, or a number for ddl_access_strerror if none is open. */
int ddl_access_close_db(int first, int second);

/* Object at path, a null-terminated list of keywords, below parent or the top (null). "<*>" as the last word stands for
 * all elements of the list before it: the list itself, for ddl_access_visit_container, or null if it has none. Null if
 * not configured; a value is no object. Release what is returned. */
[[nodiscard]] struct ddl_object *ddl_access_object_find_by_name(struct ddl_object *parent, const char *const *path,
                                                                int third, int fourth, int fifth);
[[nodiscard]] struct ddl_object *ddl_access_object_find_by_aid(struct ddl_object *parent, int attribute, int third,
                                                               int fourth, int fifth);
/* True if the keyword name stands below object; a value or a bare keyword counts too. */
bool ddl_access_object_configured(struct ddl_object *object, const char *name, int third);
/* Change marks. True if the object, or anything at all below it, is not as it was in the former configuration: another
 * value, more or fewer keywords or elements, elements in another order. White space, comments and the order of keywords
 * do not count.
 *
 * The former configuration is the one that was settled last. In a process that has settled none it is the first that it
 * read, or, as long as it has read no other, the one that keldctl kept as /var/etc/keld.conf.1. If there is neither, or
 * no memory to look at it, nothing is marked. Only readings of the committed configuration count, and only in those is
 * anything marked; all openings up to the settling see the same marks. */
bool ddl_access_object_changed(struct ddl_object *object);
/* The caller has acted on all marks: from its closing on, what is read now is the former configuration. Without memory
 * to look at the former one nothing is settled, so that the next reading marks what this one could not. */
void ddl_access_changes_settle(void);
/* Steps *cursor (null at the start) through a list's elements, in the order of the file; false at the end, *cursor then
 * null. Stepping releases the element left; a walk that ends early releases *cursor. An element whose name has
 * characters that are not safe where such names end up is reported and left out. False for what is no list. */
bool ddl_access_visit_container(struct ddl_object *object, struct ddl_object **cursor, int third);
/* The element's name, cut to size. Its length, or -1 if object is no element of a list. */
int ddl_access_extract_id(struct ddl_object *object, char *buffer, size_t size);
/* Gives back an object, which stays valid until closing all the same. Null allowed. */
void ddl_access_release(struct ddl_object *object);

/* True if the attribute is configured; attr is then filled, and otherwise left alone. Attribute 0 of an element is its
 * name, which the schema also gives a keyword ("address" of a server). */
bool ddl_access_attribute_by_aid(struct ddl_object *object, int attribute, struct ddl_attribute *attr);
bool ddl_access_attribute_by_name(struct ddl_object *object, const char *name, struct ddl_attribute *attr);
/* Length of the string, which may be size or more (the text is cut to size - 1). Negative if attr holds none, or if the
 * text is not UTF-8 or has control characters; the buffer then holds the empty string. */
int ddl_access_attribute_string(char *buffer, size_t size, const struct ddl_attribute *attr);
/* True on success: the value is of the kind and within the schema's limits. The target is left alone otherwise, and
 * nothing reported. An address is in network order; a uint may also be an enumerator, which gives its number. */
bool ddl_access_attribute_ipv4addr(uint32_t *address, const struct ddl_attribute *attr);
bool ddl_access_attribute_uint(uint32_t *value, const struct ddl_attribute *attr);
bool ddl_access_attribute_ushort(uint16_t *value, const struct ddl_attribute *attr);
void ddl_access_attribute_invalidate(struct ddl_attribute *attr);

/* Reports an error against the value, or against the object (null: the database itself, without a place), and counts
 * it. A value that breaks its rule is named with it behind the text: "TEXT: found 'X', expected Y". No message shows
 * a secret. */
[[gnu::format(printf, 3, 4)]] void ddl_access_attribute_error(struct ddl_object *object,
                                                              const struct ddl_attribute *attr, const char *format,
                                                              ...);
[[gnu::format(printf, 2, 3)]] void ddl_access_config_error(struct ddl_object *object, const char *format, ...);
/* Errors counted since the database was opened; kept until the next opening. */
int ddl_access_config_had_errors(void);

/* Debug checks: every object and attribute handed out must have been given back, and none twice. In builds with
 * assertions a mismatch or leak is logged at severity 7. The arguments are 1s and 0s as callers have always passed
 * them. */
void ddl_access_resource_had_mismatch(int first, int second, int third);
void ddl_access_debug_emit_leaks(int first, int second);

/* Checks a whole configuration text: syntax, keywords, names, kinds and limits. file is named in messages. 0, or -1
 * with the first fault in error as "FILE:LINE:COLUMN: found X, expected Y". Opens nothing, and needs nothing to be
 * open. */
[[nodiscard]] int ddl_access_check_text(const char *file, const char *text, size_t length, char *error, size_t size);
/* The same for the configuration being checked. *file is its path, a constant, whatever the result. */
[[nodiscard]] int ddl_access_check_candidate(const char **file, char *error, size_t size);
enum {
    DDL_ACCESS_TEXT_MAX = 16 << 20,   // octets of a configuration; a longer one is refused
    DDL_ACCESS_ERROR_MAX = 1024,      // room for any error text
};

}   // extern "C"
