/*
 * Trace configuration: `traceoptions { flag NAME; ... size N; files N; }` to the settings of a trace file.
 *
 * The schema gives each flag the classes it stands for, so the flags only have to be joined. A flag, size or number of
 * files that is not good is reported and left out; the rest holds. Tracing with no size set is still bounded, or a
 * forgotten flag would fill the disk.
 */
#include "platform/confdb/confdb.h"
#include "platform/log/log.h"

#include <errno.h>
#include <string.h>

static constexpr uint32_t default_size = 1 << 20;   // octets
static constexpr uint32_t default_files = 10;

/* The classes of all flags, one bit each. */
static uint32_t read_flags(struct ddl_object *traceoptions)
{
    static const char *const path[] = { "flag", "<*>", nullptr };
    struct ddl_object *flags = ddl_access_object_find_by_name(traceoptions, path, 0, 0, 0);
    uint32_t classes = 0;
    for (struct ddl_object *flag = nullptr; ddl_access_visit_container(flags, &flag, 0);) {
        struct ddl_attribute attr = DDL_ATTRIBUTE_INIT;
        uint32_t bits = 0;
        if (!ddl_access_attribute_by_aid(flag, 0, &attr)) continue;
        if (!ddl_access_attribute_uint(&bits, &attr))
            ddl_access_attribute_error(flag, &attr, "trace flag left out");
        classes |= bits;
        ddl_access_attribute_invalidate(&attr);
    }
    ddl_access_release(flags);
    return classes;
}

static uint32_t read_number(struct ddl_object *traceoptions, const char *name, uint32_t value)
{
    struct ddl_attribute attr = DDL_ATTRIBUTE_INIT;
    if (!ddl_access_attribute_by_name(traceoptions, name, &attr)) return value;
    if (!ddl_access_attribute_uint(&value, &attr))
        ddl_access_attribute_error(traceoptions, &attr, "trace %s left out", name);
    ddl_access_attribute_invalidate(&attr);
    return value;
}

void daemon_trace_read_config(int, const char *const *path, struct dtf_options *options)
{
    static const char *const below[] = { "traceoptions", nullptr };
    uint32_t classes = 0, size = default_size, files = default_files;
    struct ddl_object *stanza = ddl_access_object_find_by_name(nullptr, path, 0, 0, 0);
    struct ddl_object *traceoptions = stanza ? ddl_access_object_find_by_name(stanza, below, 0, 0, 0) : nullptr;
    if (traceoptions) {
        classes = read_flags(traceoptions);
        size = read_number(traceoptions, "size", size);
        files = read_number(traceoptions, "files", files);
    }
    ddl_access_release(traceoptions);
    ddl_access_release(stanza);
    if (daemon_trace_set(options, classes, size, files) < 0)
        logging(3, "trace file %s cannot be opened, tracing is off: %s", options->dtf_path, strerror(errno));
}
