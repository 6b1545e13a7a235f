/*
 * Trace file: what the daemon does, for those who look into it.
 *
 * A line is put together on the stack and leaves in one write to a file opened for appending. Nothing is held back, and
 * the lines of a child that traces into the same file stand whole between the parent's.
 *
 * Rotation moves FILE to FILE.0, FILE.0 to FILE.1 and so on. It moves only as far as the first number that is free, so
 * that a rotation which fails half way, and is tried again with the next line, never pushes a file out at the far end.
 * The descriptor is exchanged last: whatever fails before, lines go on into the file that is open.
 *
 * Others may move the file too (a child, a tool of the operator). So before a rotation, and whenever the settings are
 * applied, the file at the path is compared with the open one, and the one at the path is gone over to.
 *
 * Records that are on are chained, so that those of one file can agree on its limits, and all go over to the new file
 * when one of them rotates. None believes what it wrote itself to be the file's size.
 *
 * True between calls: dtf_level says on exactly if dtf_fd is open, a class is wanted and the record is chained.
 */
#include "platform/log/log.h"
#include "platform/log/log_private.h"

#include "platform/process/process.h"
#include "platform/text/text.h"

#include <errno.h>
#include <fcntl.h>
#include <stdio.h>
#include <string.h>
#include <sys/stat.h>
#include <time.h>
#include <unistd.h>

#include <algorithm>
#include <iterator>

static constexpr mode_t TRACE_FILE_MODE = 0640;
static constexpr size_t TRACE_LINE_SIZE = 4096;   // time, class, text and line end; what is longer is cut

static constexpr const char *class_words[] = { "beep", "profile", "core", "octets", "dump" };
static_assert(std::size(class_words) == DTF_CLASSES);

static struct dtf_options *records_on;   // chained by dtf_next; lent until each is turned off

static void unchain(const struct dtf_options *options)
{
    struct dtf_options **at = &records_on;
    while (*at && *at != options) at = &(*at)->dtf_next;
    if (*at) *at = options->dtf_next;
}

static void chain(struct dtf_options *options)
{
    unchain(options);
    options->dtf_next = records_on;
    records_on = options;
}

void daemon_trace_initialize(struct dtf_options *options, const char *path)
{
    unchain(options);
    *options = DTF_OPTIONS_INIT;
    if (snprintf_safe(options->dtf_path, sizeof options->dtf_path, "%s", path) != strlen(path)) {
        options->dtf_path[0] = '\0';   // a path that was cut would name some other file
    }
}

/* --- the file -------------------------------------------------------------------------------------------------- */

/* Opens the file at the path in place of what is open. 0, or -1 with errno: what was open stays. */
static int trace_open(struct dtf_options *options)
{
    if (options->dtf_path[0] == '\0') {
        errno = ENAMETOOLONG;
        return -1;
    }
    int fd = platform_open(options->dtf_path, O_WRONLY | O_APPEND | O_CREAT, TRACE_FILE_MODE);
    if (fd < 0) return -1;

    struct stat status;
    options->dtf_size = fstat(fd, &status) == 0 ? (uint64_t)status.st_size : 0;
    if (options->dtf_fd >= 0) close(options->dtf_fd);
    options->dtf_fd = fd;
    return 0;
}

static void trace_close(struct dtf_options *options)
{
    if (options->dtf_fd >= 0) close(options->dtf_fd);
    options->dtf_fd = -1;
    options->dtf_level = DTF_LEVEL_OFF;
    options->dtf_classes = 0;
    unchain(options);
}

void trace_keep_only(struct dtf_options *kept)
{
    for (struct dtf_options *other = records_on, *next; other; other = next) {
        next = other->dtf_next;
        if (other == kept) continue;
        other->dtf_fd = -1;
        trace_close(other);
    }
    kept->dtf_max_size = 0;
}

/* True if the open file is still the one at the path; its size is then taken over, for others write to it too. */
static bool trace_is_current(struct dtf_options *options)
{
    char path[PLATFORM_PATH_MAX];
    struct stat named, opened;
    if (options->dtf_fd < 0 || !platform_path(path, sizeof path, options->dtf_path)) return false;
    if (stat(path, &named) < 0 || fstat(options->dtf_fd, &opened) < 0) return false;
    if (named.st_dev != opened.st_dev || named.st_ino != opened.st_ino) return false;
    options->dtf_size = (uint64_t)opened.st_size;
    return true;
}

int daemon_trace_set(struct dtf_options *options, uint32_t classes, uint64_t max_size, uint32_t max_files)
{
    classes &= (1u << DTF_CLASSES) - 1;
    options->dtf_max_size = max_size;
    options->dtf_max_files = max_files > 0 ? max_files : 1;
    if (classes == 0) {
        trace_close(options);
        return 0;
    }
    if (!trace_is_current(options) && trace_open(options) < 0) {
        int error = errno;
        trace_close(options);
        errno = error;
        return -1;
    }
    options->dtf_classes = classes;
    options->dtf_level = DTF_LEVEL_ON;
    chain(options);
    return 0;
}

/* --- rotation -------------------------------------------------------------------------------------------------- */

enum { NUMBERED_SIZE = PLATFORM_PATH_MAX + 16 };

struct trace_limits {
    uint64_t tl_size;    // 0 for none
    uint32_t tl_files;
};

static bool is_of_one_file(const struct dtf_options *a, const struct dtf_options *b)
{
    return strcmp(a->dtf_path, b->dtf_path) == 0;
}

/* What all records of the file leave room for. */
static struct trace_limits file_limits(const struct dtf_options *options)
{
    struct trace_limits limits = { options->dtf_max_size, options->dtf_max_files };
    for (const struct dtf_options *other = records_on; other; other = other->dtf_next) {
        if (!is_of_one_file(options, other)) continue;
        bool bounded = limits.tl_size > 0 && other->dtf_max_size > 0;
        limits.tl_size = bounded ? std::max(limits.tl_size, other->dtf_max_size) : 0;
        limits.tl_files = std::max(limits.tl_files, other->dtf_max_files);
    }
    return limits;
}

/* The name of an old file: path, a dot and the number. */
static const char *numbered(char *buffer, const char *path, uint32_t number)
{
    (void)snprintf_safe(buffer, NUMBERED_SIZE, "%s.%u", path, number);
    return buffer;
}

/* Moves files up by one number to free number 0: up to the first free number, or onto the last one that may be kept. */
static void shift_old_files(const char *path, uint32_t last)
{
    char from[NUMBERED_SIZE], to[NUMBERED_SIZE];
    uint32_t free_number = 0;
    while (free_number < last && access(numbered(to, path, free_number), F_OK) == 0) free_number++;
    for (uint32_t number = free_number; number > 0; number--) {
        if (rename(numbered(from, path, number - 1), numbered(to, path, number)) < 0) return;
    }
}

/* Removes what an earlier, larger number of files left behind. */
static void remove_surplus(const char *path, uint32_t first)
{
    char name[NUMBERED_SIZE];
    while (unlink(numbered(name, path, first)) == 0) first++;
}

/* Has all records of the file go over to the one at its path. Without a new file, lines go on into the one that was
 * moved. */
static void reopen_all(struct dtf_options *options)
{
    (void)trace_open(options);
    for (struct dtf_options *other = records_on; other; other = other->dtf_next)
        if (other != options && is_of_one_file(options, other)) (void)trace_open(other);
}

static void trace_rotate(struct dtf_options *options, uint32_t old_files)
{
    char path[PLATFORM_PATH_MAX], first[NUMBERED_SIZE];
    if (!platform_path(path, sizeof path, options->dtf_path)) return;

    remove_surplus(path, old_files);
    if (old_files == 0) {
        if (ftruncate(options->dtf_fd, 0) == 0) options->dtf_size = 0;
        return;
    }
    shift_old_files(path, old_files - 1);
    if (rename(path, numbered(first, path, 0)) < 0) return;
    reopen_all(options);
}

/* Sees to it that a line of length octets may be written. */
static void trace_make_room(struct dtf_options *options, size_t length)
{
    struct trace_limits limits = file_limits(options);
    struct stat status;
    if (limits.tl_size == 0 || fstat(options->dtf_fd, &status) < 0) return;
    options->dtf_size = (uint64_t)status.st_size;
    if (options->dtf_size + length <= limits.tl_size) return;
    if (!trace_is_current(options) && trace_open(options) < 0) return;
    if (options->dtf_size == 0 || options->dtf_size + length <= limits.tl_size) return;
    trace_rotate(options, limits.tl_files - 1);
}

/* --- lines ----------------------------------------------------------------------------------------------------- */

/* Writes the local time and the class's word. The length stored. */
static size_t put_prefix(char *line, size_t size, int trace_class)
{
    static constexpr long NS_IN_MS = 1000000;

    struct timespec now{};
    struct tm local{};
    (void)clock_gettime(CLOCK_REALTIME, &now);
    (void)localtime_r(&now.tv_sec, &local);
    size_t length = strftime(line, size, "%Y-%m-%d %H:%M:%S", &local);
    return length + snprintf_safe(line + length, size - length, ".%03ld %s ", now.tv_nsec / NS_IN_MS,
                                  class_words[trace_class]);
}

void daemon_vtrace(struct dtf_options *options, int trace_class, int, const char *format, va_list args)
{
    if (trace_class < 0 || trace_class >= DTF_CLASSES || !daemon_trace_wants(options, trace_class)) return;

    int error = errno;
    char line[TRACE_LINE_SIZE + 1];
    size_t length = put_prefix(line, TRACE_LINE_SIZE, trace_class);
    errno = error;   // a format may show it
    length += log_text(line + length, TRACE_LINE_SIZE - length, LOG_SHOW_ALL, format, args);
    line[length++] = '\n';

    trace_make_room(options, length);
    (void)!write(options->dtf_fd, line, length);   // what cannot be written is lost
    errno = error;
}

void daemon_trace(struct dtf_options *options, int trace_class, int flags, const char *format, ...)
{
    va_list args;
    va_start(args, format);
    daemon_vtrace(options, trace_class, flags, format, args);
    va_end(args);
}
