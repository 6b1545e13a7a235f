/*
 * keldctl check and commit.
 *
 * A commit has four stages, and a crash or refusal at any point leaves the configuration that was in force, whole:
 *   1. The file is read once and checked: syntax, keywords, names, kinds, limits. A refusal leaves no trace at all.
 *   2. It becomes the candidate, and keld -C, which reads the candidate, has its say. If it refuses, the candidate
 *      stays, so that keldctl check and keld -C show again what is wrong.
 *   3. The committed file gets its second name keld.conf.1. Until the next stage both names are the same file.
 *   4. The candidate is renamed to keld.conf, and the daemon, if one runs, is told with SIGHUP.
 *
 * Stages 2 to 4 run under a lock, since there is only one candidate. The lock ends with the process.
 */
#include "platform/confdb/confdb.h"
#include "platform/process/process.h"
#include "tools/keldctl/files.h"
#include "tools/keldctl/keldctl.h"

#include <errno.h>
#include <fcntl.h>
#include <limits.h>
#include <signal.h>
#include <stdio.h>
#include <string.h>
#include <sys/wait.h>
#include <unistd.h>

static constexpr char committed_name[] = "/var/etc/keld.conf";
static constexpr char former_name[] = "/var/etc/keld.conf.1";
static constexpr char candidate_name[] = "/var/etc/keld.conf.candidate";
static constexpr char lock_name[] = "/var/etc/keld.conf.lock";
static constexpr char pid_name[] = "/var/run/keld.pid";

static constexpr int cannot_run = 127;   // exit status of a child that could not become keld

/* The path below the root; empty if it would be too long. */
static std::string system_path(const char *name)
{
    char buffer[PLATFORM_PATH_MAX];
    const char *path = platform_path(buffer, sizeof buffer, name);
    return path ? path : "";
}

/* Becomes keld -C: the one beside this program, or else the first on PATH. Does not return. */
[[noreturn]] static void become_keld()
{
    char self[PATH_MAX];
    ssize_t length = readlink("/proc/self/exe", self, sizeof self - 1);
    std::string beside(self, length > 0 ? static_cast<size_t>(length) : 0);
    beside = beside.substr(0, beside.rfind('/') + 1) + "keld";
    (void)execl(beside.c_str(), "keld", "-C", nullptr);
    (void)execlp("keld", "keld", "-C", nullptr);
    _exit(cannot_run);
}

/* Has keld -C check the candidate, or without one the committed configuration. It prints what it finds. 0 or 1. */
static int ask_keld()
{
    pid_t pid = fork();
    if (pid == 0) become_keld();
    int status = 0;
    while (pid > 0 && waitpid(pid, &status, 0) < 0 && errno == EINTR) continue;
    if (pid < 0) return keldctl_fail("cannot start keld -C (%s), nothing was changed, try again", strerror(errno));
    if (WIFEXITED(status) && WEXITSTATUS(status) == 0) return 0;
    if (WIFEXITED(status) && WEXITSTATUS(status) == cannot_run)
        return keldctl_fail("cannot run keld -C, put keld beside keldctl or on PATH");
    return keldctl_fail("keld -C refuses the configuration, correct what it says above");
}

/* The file's text, checked. 0 or 1. */
static int read_checked(const std::string &file, std::string *text)
{
    if (!file_read(file, text)) return keldctl_fail("cannot read %s: %s", file.c_str(), strerror(errno));
    char error[DDL_ACCESS_ERROR_MAX];
    if (ddl_access_check_text(file.c_str(), text->data(), text->size(), error, sizeof error) < 0)
        return keldctl_fail("%s", error);
    return 0;
}

int keldctl_check(const char *file)
{
    std::string text;
    if (file) return read_checked(file, &text);   // keld -C knows only the configuration in its place
    std::string path = system_path(candidate_name);
    if (access(path.c_str(), F_OK) < 0) path = system_path(committed_name);
    int failed = read_checked(path, &text);
    return failed ? failed : ask_keld();
}

/* A descriptor that holds the lock of commits until the process ends; -1 after telling why not. */
static int lock_commits()
{
    int fd = platform_open(lock_name, O_RDWR | O_CREAT, 0600);
    if (fd >= 0 && file_lock(fd)) return fd;
    if (errno == EWOULDBLOCK)
        (void)keldctl_fail("another commit is running, try again when it has ended");
    else
        (void)keldctl_fail("cannot lock %s: %s", lock_name, strerror(errno));
    if (fd >= 0) (void)close(fd);
    return -1;
}

static int put_in_force()
{
    std::string committed = system_path(committed_name);
    if (!file_keep(committed, system_path(former_name)))
        return keldctl_fail("cannot keep the former configuration as %s (%s), nothing was changed", former_name,
                            strerror(errno));
    if (!file_move(system_path(candidate_name), committed))
        return keldctl_fail("cannot put %s in place of %s (%s), commit again", candidate_name, committed_name,
                            strerror(errno));
    return 0;
}

static int tell_daemon()
{
    pid_t pid = pid_read(pid_name);
    if (pid > 0 && kill(pid, SIGHUP) == 0) {
        (void)printf("committed, keld (pid %d) reads it now\n", static_cast<int>(pid));
        return 0;
    }
    if (pid == 0 || (pid > 0 && errno == ESRCH)) {
        (void)printf("committed, keld is not running\n");
        return 0;
    }
    return keldctl_fail("committed, but keld could not be told (%s), send it SIGHUP", strerror(errno));
}

int keldctl_commit(const char *file)
{
    std::string text;
    if (read_checked(file, &text)) return 1;
    int lock = lock_commits();
    if (lock < 0) return 1;
    int failed = 0;
    if (!file_replace(system_path(candidate_name), text))
        failed = keldctl_fail("cannot write %s: %s", candidate_name, strerror(errno));
    if (!failed) failed = ask_keld();
    if (!failed) failed = put_in_force();
    if (!failed) failed = tell_daemon();
    (void)close(lock);
    return failed;
}
