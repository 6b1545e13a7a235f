/*
 * Configuration database, the dax_* face: the same parsed tree as ddl_access_* reads, walked with callbacks, and with a
 * walk of what changed.
 *
 * It shares the one open database of the process with ddl_access_*: strings and objects are valid until dax_close_db.
 *
 * What a walk of what changed tells is settled element by element, by what the process was told of this list before:
 *   - An element counts as told once the callback took it, that is returned 0. It is then left out until anything
 *     inside it is another, or until it is gone. A process that was told nothing is told all as new.
 *   - What was not taken, be it that the callback ended the walk or that memory was out, is told at the next walk: what
 *     stands there as new (or still as changed, if the walk did not get to it), what is gone as deleted.
 *   - An opening that does not find the list puts all its elements in doubt, since the reader may have dropped them or
 *     not. So does one that finds the chassis changed, which readers ask about. At the next walk those that stand there
 *     are told as new and those that are gone as deleted, even if the reader knows none of them by then.
 *   - A list that is there but empty is told as deleted, once, if any element of it was told before.
 *   - A walk of all begins anew: its elements are told as new, and those that are gone are forgotten when it has been
 *     through, without a word.
 * So a reader that takes a new element which it has already, and a deleted one which it has not, keeps in step whatever
 * fails in between.
 *
 * Nothing is remembered of lists that stand inside an element of another list (a change in them is one of the element),
 * nor when the configuration being checked is open: in these every walk tells all elements as new.
 */
#pragma once

#include <stddef.h>
#include <stdint.h>

extern "C" {

struct dax_object;   // a stanza, a list or an element of a list
struct dax_handle;   // a walk in progress; valid in its callback only

enum dax_walk_mode {
    DAX_WALK_ALL = 3,       // every element
    DAX_WALK_CHANGED = 6,   // what is not as this process walked it last
};
enum dax_operation {
    DAX_NEW = 1,
    DAX_CHANGED = 2,
    DAX_DELETED = 3,        // element is null; dax_get_stringr_by_dwd_ident tells which
    DAX_LIST_DELETED = 4,   // element is null
};

/* As ddl_access_open_db: 0, or a number for dax_error. The first argument is 0, the third 0, the fourth -2. Of the
 * committed configuration it also reads the chassis (platform/chassis). */
[[nodiscard]] int dax_open_db(int first, const char *name, int third, int fourth, int check);
/* Frees everything read. 0, or a number for dax_error. Not to be called from a walk's callback. */
int dax_close_db(void);
/* Reports an error; format has one %s, which takes the text of error. first is 0. */
[[gnu::format(printf, 2, 0)]] void dax_error(int first, const char *format, int error);

/* True if found; *object is then to be given to dax_release_object, and is left alone otherwise. first and last are 0.
 * path is a null-terminated list of keywords from the top. A null object holds nothing. */
bool dax_get_object_by_path(int first, const char *const *path, struct dax_object **object, int last);
bool dax_get_object_by_name(struct dax_object *object, const char *name, struct dax_object **child, int last);
/* True if found; *string is the database's. A value that breaks its rule is reported and not found. */
bool dax_get_string_by_name(struct dax_object *object, const char *name, const char **string);
/* True if found and within its limits; *value is left alone otherwise. An enumerator gives its number. */
bool dax_get_uint_by_name(struct dax_object *object, const char *name, uint32_t *value);
bool dax_get_ushort_by_name(struct dax_object *object, const char *name, uint16_t *value);
/* True if the keyword name stands below object; a value or a bare keyword counts too. */
bool dax_is_configured_by_name(struct dax_object *object, const char *name);
/* Gives *object back and clears it. *object may be null. */
void dax_release_object(struct dax_object **object);

/* Result 0 takes what is told and goes on with the walk; another one ends it. Lends element until the return. May walk
 * other lists, those inside element too. */
typedef int (*dax_walk_func)(struct dax_handle *handle, struct dax_object *element, int operation, void *argument);
/* Calls func for the elements of the list that mode asks for, deleted ones first, the others in the order of the file.
 * An element whose name has characters that are not safe where such names end up (that of a client in a file name, say)
 * or is too long is reported and left out. 0; not 0 if object is no list, memory is out, func ended the walk, or the
 * list is being walked already. */
int dax_walk_list(struct dax_object *object, int mode, dax_walk_func func, void *argument);
/* Name of the deleted element in buffer, cut to size. True if the walk stands at one. second and third are 0. */
bool dax_get_stringr_by_dwd_ident(struct dax_handle *handle, int second, int third, char *buffer, size_t size);

}   // extern "C"
