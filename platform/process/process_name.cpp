/*
 * Process names: what the kernel calls another process.
 *
 * The command name is asked for and not the executable: anyone may read it, it is the script's where an interpreter
 * runs one, and an executable that was replaced on disk meanwhile does not change it. /proc is the host's own, so no
 * root goes in front of it.
 */
#include "platform/process/process.h"

#include "platform/text/text.h"

#include <errno.h>
#include <fcntl.h>
#include <stdio.h>
#include <string.h>
#include <unistd.h>

enum {
    PROC_PATH_SIZE = 32,
    COMM_SIZE = 64,    // the kernel's names have 15 octets, those of its own threads some more
    STAT_SIZE = 128,   // up to the state: the pid and the name stand before it
};

/* What stands at the beginning of /proc/PID/FILE. Octets read, or -1 with errno. */
static ssize_t read_proc(pid_t pid, const char *file, char *buffer, size_t size)
{
    char path[PROC_PATH_SIZE];
    (void)snprintf_safe(path, sizeof path, "/proc/%d/%s", pid, file);
    int fd = open(path, O_RDONLY | O_CLOEXEC);
    if (fd < 0) {
        if (errno == ENOENT) errno = ESRCH;
        return -1;
    }
    ssize_t length = read(fd, buffer, size);
    int error = errno;
    (void)close(fd);   // it was only read
    errno = error;
    return length;
}

int process_name(pid_t pid, char *buffer, size_t size)
{
    char name[COMM_SIZE];
    ssize_t length = read_proc(pid, "comm", name, sizeof name);
    if (length < 0) return -1;
    if (length > 0 && name[length - 1] == '\n') length--;
    (void)snprintf_safe(buffer, size, "%.*s", (int)length, name);
    return 0;
}

bool process_is_zombie(pid_t pid)
{
    char stat[STAT_SIZE];
    ssize_t length = read_proc(pid, "stat", stat, sizeof stat - 1);
    if (length < 0) return false;
    stat[length] = '\0';
    const char *name_end = strrchr(stat, ')');   // a name may hold parentheses itself
    return name_end && (strncmp(name_end, ") Z", 3) == 0 || strncmp(name_end, ") X", 3) == 0);
}
