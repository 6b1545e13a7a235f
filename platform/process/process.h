/*
 * Process: what the daemon asks the system about processes, names and places.
 */
#pragma once

#include <stddef.h>
#include <sys/types.h>

extern "C" {

/* path with the value of KELD_ROOT in front, in buffer. path is absolute. A relative KELD_ROOT counts from the folder
 * that the process stood in at the first call. buffer, or null with errno: ENAMETOOLONG if it does not
 * fit, ENOENT if that folder was gone. */
[[nodiscard]] const char *platform_path(char *buffer, size_t size, const char *path);
enum { PLATFORM_PATH_MAX = 4096 };

/* open() of path below the root, closed on exec. Where flags create the file and a root is set, missing folders on the
 * way are made. The descriptor, never below 3; -1 with errno. */
[[nodiscard]] int platform_open(const char *path, int flags, mode_t mode);
/* Takes fd and gives a duplicate of 3 or above, closed on exec, if it is below; else fd itself, an error's -1 too. For
 * descriptors that must outlive daemon(), which puts the null device onto 0 to 2. -1 with errno: fd is then closed. */
[[nodiscard]] int platform_lift_fd(int fd);

/* Opens the pid file (made if absent, mode 0644, its folder too when a root is set), locks it for the life of the
 * process and its children, and empties it. The descriptor, never below 3; -1 with errno, EWOULDBLOCK if another
 * process holds it. A child that lives on must close the descriptor, or no new daemon can start before it ends. The
 * file is never removed: the lock, not the file, tells whether a daemon runs. */
[[nodiscard]] int pid_lock(const char *path);
/* Writes the calling process's pid, decimal and a line end, in place of what the file held, and lets pid_read trust it.
 * Once for each lock. 0, or -1 with errno. */
[[nodiscard]] int pid_update(int fd);
/* The pid in the pid file at path if a process holds its lock; 0 if none does, or without such a file; -1 with errno,
 * EAGAIN if the holder has not written its pid yet. Never takes the lock, so a daemon that starts meanwhile does not
 * see it held. */
[[nodiscard]] pid_t pid_read(const char *path);

/* The command name of the process pid in buffer, cut to size: the name of the file it last executed, of a script the
 * script's, unless it took another one; 15 octets of it. A change of its title leaves it. 0, or -1 with errno, ESRCH if
 * there is no such process; buffer is then left alone. */
[[nodiscard]] int process_name(pid_t pid, char *buffer, size_t size);
/* True if the process has ended and only waits for its parent, or for process 1, to take note of it. */
bool process_is_zombie(pid_t pid);

/* Prints name (null: the program's own) and the release to standard output, "NAME RELEASE". level above 1 adds lines on
 * how it was built; extended (not 0) adds the versions of what it runs with. */
void show_daemon_version(const char *name, int level, int extended);
/* One of the texts below, for people. Owned by the library; empty for another number. */
enum version_facts { VERSION_COMPILER, VERSION_BUILD, VERSION_TLS_LIBRARY, VERSION_C_LIBRARY, VERSION_FACTS };
const char *version_fact(int fact);

/* The node name of uname. Owned by the library, never null, valid until the next call. */
const char *system_name(void);

}   // extern "C"
