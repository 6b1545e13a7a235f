/*
 * The pid file: who runs is told by a lock, and only then by the number in the file.
 *
 * The lock belongs to the open file, not to the process (an "open file description" lock). That is what a daemon needs
 * twice over: it is still held after detaching, when the process that took it is gone, and it can be asked for without
 * being taken, so that an operator's question never makes a daemon fail that starts at that moment.
 *
 * Between taking the lock and writing the pid the file is empty. A number in a locked file is therefore never that of a
 * former daemon, whose pid may have gone to some other process since.
 */
#include "platform/process/process.h"

#include <errno.h>
#include <fcntl.h>
#include <limits.h>
#include <stdio.h>
#include <stdlib.h>
#include <unistd.h>

static constexpr mode_t PID_FILE_MODE = 0644;
static constexpr size_t PID_TEXT_SIZE = 24;

/* A lock over the whole file, for fcntl. */
static struct flock whole_file(void)
{
    struct flock lock{};
    lock.l_type = F_WRLCK;
    lock.l_whence = SEEK_SET;
    return lock;
}

/* Closes fd without losing the errno that tells why. */
static int fail(int fd)
{
    int error = errno;
    close(fd);
    errno = error;
    return -1;
}

int pid_lock(const char *path)
{
    int fd = platform_open(path, O_RDWR | O_CREAT, PID_FILE_MODE);
    if (fd < 0) return -1;

    struct flock lock = whole_file();
    if (fcntl(fd, F_OFD_SETLK, &lock) < 0) {
        if (errno == EACCES) errno = EWOULDBLOCK;   // either number may say that it is held
        return fail(fd);
    }
    return ftruncate(fd, 0) < 0 ? fail(fd) : fd;
}

int pid_update(int fd)
{
    char text[PID_TEXT_SIZE];
    int length = snprintf(text, sizeof text, "%ld\n", (long)getpid());

    if (ftruncate(fd, 0) < 0) return -1;
    ssize_t written = pwrite(fd, text, (size_t)length, 0);
    if (written < 0) return -1;
    if (written < length) {
        errno = ENOSPC;
        return -1;
    }
    return 0;
}

/* The pid that text holds, or -1 with errno. */
static pid_t parse_pid(const char *text)
{
    char *end;
    long pid = strtol(text, &end, 10);
    if (end != text && *end == '\n' && pid > 0 && pid <= INT_MAX) return (pid_t)pid;
    errno = *text == '\0' ? EAGAIN : EINVAL;
    return -1;
}

pid_t pid_read(const char *path)
{
    int fd = platform_open(path, O_RDONLY, 0);
    if (fd < 0) return errno == ENOENT ? 0 : -1;

    struct flock lock = whole_file();
    if (fcntl(fd, F_OFD_GETLK, &lock) < 0) return fail(fd);
    char text[PID_TEXT_SIZE] = "";
    ssize_t length = pread(fd, text, sizeof text - 1, 0);
    if (length < 0) return fail(fd);
    close(fd);
    return lock.l_type == F_UNLCK ? 0 : parse_pid(text);
}
