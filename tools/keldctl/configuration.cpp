/*
 * keldctl check and commit.
 *
 * A commit has four stages, and a crash or refusal at any point leaves the configuration that was in force, whole:
 *   1. The file is read once and checked: syntax, keywords, names, kinds, limits. A refusal leaves no trace at all.
 *   2. It becomes the candidate, and keld -C, which reads the candidate, has its say. If it refuses, the candidate
 *      stays, so that keldctl check and keld -C show again what is wrong. If it had no say, the candidate goes.
 *   3. The committed file gets its second name keld.conf.1, unless it holds the same text: then it is no former one.
 *      Until the next stage both names are the same file.
 *   4. The candidate is renamed to keld.conf, and the daemon, if one runs, is told with SIGHUP. From the rename on the
 *      configuration is in force, so nothing that fails later keeps it from the daemon.
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
#include <sys/stat.h>
#include <sys/wait.h>
#include <time.h>
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

enum verdict { ACCEPTED, REFUSED, NOT_JUDGED };

/* Has keld -C check the candidate, or without one the committed configuration. It prints what it finds; unless it
 * accepts, *advice says what to do. */
static enum verdict ask_keld(std::string *advice)
{
    (void)signal(SIGCHLD, SIG_DFL);   // where it is ignored there is no status to wait for
    pid_t pid = fork();
    if (pid == 0) become_keld();
    int status = 0;
    while (pid > 0 && waitpid(pid, &status, 0) < 0 && errno == EINTR) continue;
    int exited = pid > 0 && WIFEXITED(status) ? WEXITSTATUS(status) : -1;
    if (exited == 0) return ACCEPTED;
    if (exited > 0 && exited != cannot_run) {
        *advice = "keld -C refuses it, correct what it says above";
        return REFUSED;
    }
    if (pid < 0)
        *advice = std::string("cannot start keld -C (") + strerror(errno) + "), try again";
    else if (exited == cannot_run)
        *advice = "cannot run keld -C, put keld beside keldctl or on PATH";
    else
        *advice = "keld -C was ended by signal " + std::to_string(WTERMSIG(status)) + ", try again";
    return NOT_JUDGED;
}

/* The text of an operator's file, checked. 0 or 1. */
static int read_checked(const char *file, std::string *text)
{
    if (!file_read(file, 0, text)) return keldctl_fail("cannot read %s: %s", file, strerror(errno));
    char error[DDL_ACCESS_ERROR_MAX];
    if (ddl_access_check_text(file, text->data(), text->size(), error, sizeof error) < 0)
        return keldctl_fail("%s", error);
    return 0;
}

/* The configuration in its place, also by keld -C, which knows no other. 0 or 1. */
static int check_in_place()
{
    const char *file;
    char error[DDL_ACCESS_ERROR_MAX];
    if (ddl_access_check_candidate(&file, error, sizeof error) < 0) return keldctl_fail("%s", error);
    std::string advice;
    if (ask_keld(&advice) != ACCEPTED) return keldctl_fail("%s: %s", file, advice.c_str());
    (void)printf("%s: nothing wrong\n", file);
    return 0;
}

int keldctl_check(const char *file)
{
    std::string text;
    return file ? read_checked(file, &text) : check_in_place();
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

/* The daemon's pid, as pid_read. A daemon that is just starting is given a second to write it. */
static pid_t daemon_pid()
{
    static constexpr struct timespec pause = { 0, 100'000'000 };
    for (int tries = 10;; tries--) {
        pid_t pid = pid_read(pid_name);
        if (pid >= 0 || errno != EAGAIN || tries == 0) return pid;
        (void)nanosleep(&pause, nullptr);   // a signal only makes the pause shorter
    }
}

static int tell_daemon()
{
    pid_t pid = daemon_pid();
    if (pid > 0 && kill(pid, SIGHUP) == 0)
        (void)printf("committed, keld (pid %d) reads it now\n", static_cast<int>(pid));
    else if (pid == 0 || (pid > 0 && errno == ESRCH))
        (void)printf("committed, keld is not running\n");
    else if (pid < 0 && errno == EAGAIN)
        (void)printf("committed, keld is starting and will read it\n");
    else
        return keldctl_fail("committed, but keld could not be told (%s), send it SIGHUP", strerror(errno));
    return 0;
}

/* True if text is what is in force: then the former configuration is another, and stays. */
static bool is_in_force(const std::string &committed, const std::string &text)
{
    struct stat status;
    std::string now;
    return stat(committed.c_str(), &status) == 0 && S_ISREG(status.st_mode) &&
           file_read(committed, O_NONBLOCK | O_NOCTTY, &now) && now == text;
}

/* The candidate, which holds text, becomes the committed configuration. 0 or 1. */
static int put_in_force(const std::string &text)
{
    std::string committed = system_path(committed_name);
    if (!is_in_force(committed, text) && !file_keep(committed, system_path(former_name)))
        return keldctl_fail("cannot keep the former configuration as %s (%s), the new one stays as %s, commit again",
                            former_name, strerror(errno), candidate_name);
    if (rename(system_path(candidate_name).c_str(), committed.c_str()) < 0)
        return keldctl_fail("cannot put %s in place of %s (%s), commit again", candidate_name, committed_name,
                            strerror(errno));
    int unsure = file_sync_name(committed) ? 0 : errno;
    int failed = tell_daemon();
    if (unsure == 0) return failed;
    return keldctl_fail("it is in force, but a loss of power could undo it (%s), commit again", strerror(unsure));
}

/* Makes text the candidate and has it judged. 0 or 1. Only a candidate that was judged stays, since it is what a check
 * without a file looks at. */
static int make_candidate(const char *file, const std::string &text)
{
    std::string candidate = system_path(candidate_name);
    if (!file_replace(candidate, text)) return keldctl_fail("cannot write %s: %s", candidate_name, strerror(errno));
    std::string advice;
    enum verdict verdict = ask_keld(&advice);
    if (verdict == ACCEPTED) return 0;
    if (verdict == REFUSED) return keldctl_fail("%s: %s, it stays as %s", file, advice.c_str(), candidate_name);
    (void)unlink(candidate.c_str());   // if it stays after all, a check names it
    return keldctl_fail("%s: %s, it was not put in force", file, advice.c_str());
}

int keldctl_commit(const char *file)
{
    std::string text;
    if (read_checked(file, &text)) return 1;
    int lock = lock_commits();
    if (lock < 0) return 1;
    int failed = make_candidate(file, text);
    if (!failed) failed = put_in_force(text);
    (void)close(lock);
    return failed;
}
