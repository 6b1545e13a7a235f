/*
 * Paths below the root, and how files there are opened.
 *
 * KELD_ROOT is read at every call; a whole router can so live under one folder, and a test can have a new one for each
 * case. Only the start folder is remembered, since a daemon that detaches goes to "/" and a relative root would mean
 * something else from then on.
 *
 * Without a root the folders of the system exist and a missing one is an error to be seen. Under a root they are made
 * as they are needed, so that an empty folder is enough to start with.
 *
 * Descriptors made here are closed on exec and never 0, 1 or 2: detaching puts the null device onto those, and what had
 * been there would be gone.
 */
#include "platform/process/process.h"

#include <errno.h>
#include <fcntl.h>
#include <limits.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/stat.h>
#include <unistd.h>

static constexpr mode_t FOLDER_MODE = 0755;

/* The folder the process stood in at the first call; empty if it had none by then. */
static const char *start_folder(void)
{
    static char folder[PATH_MAX];
    static bool known;

    if (!known && !getcwd(folder, sizeof folder)) folder[0] = '\0';
    known = true;
    return folder;
}

/* The value of KELD_ROOT, empty without one. */
static const char *root(void)
{
    const char *value = getenv("KELD_ROOT");
    return value ? value : "";
}

const char *platform_path(char *buffer, size_t size, const char *path)
{
    const char *start = start_folder();
    const char *base = root();
    bool relative = *base != '\0' && *base != '/';
    if (relative && *start == '\0') {
        errno = ENOENT;
        return nullptr;
    }

    int length = snprintf(buffer, size, "%s%s%s%s", relative ? start : "", relative ? "/" : "", base, path);
    if (length < 0 || (size_t)length >= size) {
        errno = ENAMETOOLONG;
        return nullptr;
    }
    return buffer;
}

/* Makes the folders that lead to path, which is absolute. What cannot be made shows when the file is opened. */
static void make_folders(char *path)
{
    for (char *slash = strchr(path + 1, '/'); slash; slash = strchr(slash + 1, '/')) {
        *slash = '\0';
        (void)mkdir(path, FOLDER_MODE);   // most exist already
        *slash = '/';
    }
}

int platform_open(const char *path, int flags, mode_t mode)
{
    char buffer[PLATFORM_PATH_MAX];
    if (!platform_path(buffer, sizeof buffer, path)) return -1;

    int fd = open(buffer, flags | O_CLOEXEC, mode);
    if (fd < 0 && errno == ENOENT && (flags & O_CREAT) && *root() != '\0') {
        make_folders(buffer);
        fd = open(buffer, flags | O_CLOEXEC, mode);
    }
    return platform_lift_fd(fd);
}

int platform_lift_fd(int fd)
{
    if (fd < 0 || fd > STDERR_FILENO) return fd;

    int lifted = fcntl(fd, F_DUPFD_CLOEXEC, STDERR_FILENO + 1);
    int error = errno;
    close(fd);
    errno = error;
    return lifted;
}
