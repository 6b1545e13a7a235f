/*
 * The pid file: who runs is told by locks, and only then by the number in the file.
 *
 * The locks belong to the open file, not to the process ("open file description" locks). That is what a daemon needs
 * twice over: they are still held after detaching, when the process that took them is gone, and they can be asked for
 * without being taken, so that an operator's question never makes a daemon fail that starts at that moment.
 *
 * There are two, on two octets of the file. The first is taken at once and keeps other daemons out. The second is taken
 * when the pid is written and vouches for it: until then the file may still hold the number of a former daemon, whose
 * pid may have gone to some other process since. Both end together, with the open file.
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

/* The octets that are locked; a file may be locked beyond its end. */
enum lock_octet : off_t { DAEMON_IS_THERE = 0, PID_IS_WRITTEN = 1 };

/* fcntl of a lock on the octet, with F_OFD_SETLK or F_OFD_GETLK. *held tells for the latter that somebody holds it. */
static int octet_lock(int fd, int command, enum lock_octet octet, bool *held)
{
    struct flock lock{};
    lock.l_type = F_WRLCK;
    lock.l_whence = SEEK_SET;
    lock.l_start = octet;
    lock.l_len = 1;
    int result = fcntl(fd, command, &lock);
    if (held) *held = lock.l_type != F_UNLCK;
    return result;
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

    if (octet_lock(fd, F_OFD_SETLK, DAEMON_IS_THERE, nullptr) < 0) {
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
    return octet_lock(fd, F_OFD_SETLK, PID_IS_WRITTEN, nullptr);
}

/* The pid that text holds, or -1 with errno: EAGAIN if it is empty, for the pid is not written yet. */
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
    int fd = platform_open(path, O_RDONLY | O_NONBLOCK, 0);   // a pipe in its place must not hold the caller
    if (fd < 0) return errno == ENOENT ? 0 : -1;

    // The lock first, then the number: what is read is that of its holder, or of a daemon that came after.
    bool written, there;
    if (octet_lock(fd, F_OFD_GETLK, PID_IS_WRITTEN, &written) < 0) return fail(fd);
    if (octet_lock(fd, F_OFD_GETLK, DAEMON_IS_THERE, &there) < 0) return fail(fd);
    char text[PID_TEXT_SIZE] = "";
    if (written && pread(fd, text, sizeof text - 1, 0) < 0) return fail(fd);
    close(fd);
    return written || there ? parse_pid(text) : 0;
}
