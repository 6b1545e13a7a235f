/*
 * Loading: reads a configuration file whole, then parses it.
 *
 * A committed configuration is only ever replaced by rename, so the octets read belong together. Only regular files are
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

/* Fills buffer from fd. The octets read, fewer than size if the file ends before; -1 with errno. */
static ssize_t read_whole(int fd, char *buffer, size_t size)
{
    size_t at = 0;
    while (at < size) {
        ssize_t got = read(fd, buffer + at, size - at);
        if (got < 0 && errno == EINTR) continue;
        if (got < 0) return -1;
        if (got == 0) break;
        at += static_cast<size_t>(got);
    }
    return static_cast<ssize_t>(at);
}

/* Why the open file cannot be a configuration, or null. */
static const char *file_fault(int fd, struct stat *status)
{
    if (fstat(fd, status) < 0)                  return strerror(errno);
    if (!S_ISREG(status->st_mode))              return "not a regular file";
    if (status->st_size > DDL_ACCESS_TEXT_MAX)  return "too large for a configuration";
    return nullptr;
}

static struct conf_tree *parse_file(int fd, const char *path, char *error, size_t size)
{
    struct stat status;
    const char *why = file_fault(fd, &status);
    if (why) {
        (void)snprintf_safe(error, size, "%s: %s", path, why);
        return nullptr;
    }
    size_t room = static_cast<size_t>(status.st_size);
    char *text = static_cast<char *>(malloc(room + 1));
    if (!text) {
        (void)snprintf_safe(error, size, "%s: out of memory", path);
        return nullptr;
    }
    ssize_t length = read_whole(fd, text, room);
    struct conf_tree *tree = nullptr;
    if (length < 0)
        (void)snprintf_safe(error, size, "%s: %s", path, strerror(errno));
    else
        tree = conf_parse(path, text, static_cast<size_t>(length), error, size);
    free(text);
    return tree;
}

static int open_file(const char *path)
{
    return platform_open(path, O_RDONLY | O_NONBLOCK | O_NOCTTY, 0);
}

struct conf_tree *conf_load(bool check, char *error, size_t size)
{
    const char *path = check ? candidate_path : committed_path;
    int fd = open_file(path);
    if (fd < 0 && errno == ENOENT && check) {
        path = committed_path;
        fd = open_file(path);
    }
    if (fd < 0 && errno == ENOENT) {
        (void)snprintf_safe(error, size, "%s: no configuration yet, put one in force with keldctl commit FILE", path);
        return nullptr;
    }
    if (fd < 0) {
        (void)snprintf_safe(error, size, "%s: %s", path, strerror(errno));
        return nullptr;
    }
    struct conf_tree *tree = parse_file(fd, path, error, size);
    (void)close(fd);   // it was only read
    return tree;
}
