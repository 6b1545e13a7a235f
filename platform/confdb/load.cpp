/*
 * Loading: reads a configuration file whole.
 *
 * keldctl only ever replaces a configuration by rename, so its octets belong together. Whoever writes to the file in
 * place does not promise that: a file that moved during the reading is read again, a few times. Only regular files are
 * read: a pipe under that name would hold the daemon's one thread for as long as its writer likes.
 */
#include "platform/confdb/load.h"

#include "platform/process/process.h"
#include "platform/text/text.h"

#include <errno.h>
#include <fcntl.h>
#include <stdlib.h>
#include <string.h>
#include <sys/stat.h>
#include <unistd.h>

static constexpr char committed_path[] = "/var/etc/keld.conf";
static constexpr char candidate_path[] = "/var/etc/keld.conf.candidate";
static constexpr char former_path[] = "/var/etc/keld.conf.1";

static constexpr char too_large[] = "longer than 16777216 octets";
static_assert(DDL_ACCESS_TEXT_MAX == 16777216);

static constexpr int read_tries = 3;

/* Fills buffer from the start of fd. The octets read, fewer than size if the file ends before; -1 with errno. */
static ssize_t read_whole(int fd, char *buffer, size_t size)
{
    size_t at = 0;
    while (at < size) {
        ssize_t got = pread(fd, buffer + at, size - at, static_cast<off_t>(at));
        if (got < 0 && errno == EINTR) continue;
        if (got < 0) return -1;
        if (got == 0) break;
        at += static_cast<size_t>(got);
    }
    return static_cast<ssize_t>(at);
}

/* Reads size octets of fd into *text, malloc'ed; null if there were fewer. Null, or why it failed. */
static const char *read_text(int fd, size_t size, char **text)
{
    *text = static_cast<char *>(malloc(size + 1));
    if (!*text) return "out of memory";
    ssize_t length = read_whole(fd, *text, size);
    if (length == static_cast<ssize_t>(size)) return nullptr;
    const char *why = length < 0 ? strerror(errno) : nullptr;
    free(*text);
    *text = nullptr;
    return why;
}

static bool is_unchanged(const struct stat *before, const struct stat *after)
{
    return before->st_size == after->st_size && before->st_mtim.tv_sec == after->st_mtim.tv_sec &&
           before->st_mtim.tv_nsec == after->st_mtim.tv_nsec;
}

/* The whole file in *text, malloc'ed, and its length. Null, or why it could not be read. */
static const char *read_steady(int fd, char **text, size_t *length)
{
    struct stat before, after;
    if (fstat(fd, &before) < 0) return strerror(errno);
    if (!S_ISREG(before.st_mode)) return "not a regular file";
    for (int i = 0; i < read_tries; i++, before = after) {
        if (before.st_size > DDL_ACCESS_TEXT_MAX) return too_large;
        *length = static_cast<size_t>(before.st_size);
        const char *why = read_text(fd, *length, text);
        if (!why && fstat(fd, &after) < 0) why = strerror(errno);
        if (!why && *text && is_unchanged(&before, &after)) return nullptr;
        free(*text);
        *text = nullptr;
        if (why) return why;
    }
    return "written to while it was read, try again";
}

static int open_file(const char *path)
{
    return platform_open(path, O_RDONLY | O_NONBLOCK | O_NOCTTY, 0);
}

bool conf_read(bool check, struct conf_text *text, char *error, size_t size)
{
    *text = { check ? candidate_path : committed_path, nullptr, 0 };
    int fd = open_file(text->cx_path);
    if (fd < 0 && errno == ENOENT && check) {
        text->cx_path = committed_path;
        fd = open_file(text->cx_path);
    }
    if (fd < 0 && errno == ENOENT) {
        (void)snprintf_safe(error, size, "%s: no configuration yet, put one in force with keldctl commit FILE",
                            text->cx_path);
        return false;
    }
    const char *why = fd < 0 ? strerror(errno) : read_steady(fd, &text->cx_octets, &text->cx_length);
    if (why) (void)snprintf_safe(error, size, "%s: %s", text->cx_path, why);
    if (fd >= 0) (void)close(fd);   // it was only read
    return !why;
}

bool conf_read_former(struct conf_text *text)
{
    *text = { former_path, nullptr, 0 };
    int fd = open_file(former_path);
    if (fd < 0) return false;
    const char *why = read_steady(fd, &text->cx_octets, &text->cx_length);
    (void)close(fd);   // it was only read
    return !why;
}

void conf_text_free(struct conf_text *text)
{
    free(text->cx_octets);
    text->cx_octets = nullptr;
    text->cx_length = 0;
}

struct conf_tree *conf_load(bool check, const char **file, char *error, size_t size)
{
    struct conf_text text;
    bool good = conf_read(check, &text, error, size);
    *file = text.cx_path;
    if (!good) return nullptr;
    struct conf_tree *tree = conf_parse(text.cx_path, text.cx_octets, text.cx_length, error, size);
    conf_text_free(&text);
    return tree;
}
