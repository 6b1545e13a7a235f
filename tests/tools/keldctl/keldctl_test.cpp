// keldctl: what a commit leaves behind, however it ends. keld is a script on PATH that answers as its root tells it.
#include "tools/keldctl/keldctl.h"

#include "platform/process/process.h"
#include "tests/platform/confdb/conf_fixture.h"

#include <errno.h>
#include <signal.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <set>
#include <thread>

using std::string;

// Each step of a commit that reaches the file system counts one; the process can end, or the call fail, at any of them.
static int good_steps = -1;
static bool steps_end_the_process;
static pid_t told_pid;
static int starting_daemon = -1, naps;   // its pid file; at the third pause of a commit it writes its pid

static bool step_fails()
{
    if (good_steps < 0 || good_steps-- > 0) return false;
    if (steps_end_the_process) _exit(99);
    errno = EIO;
    return true;
}

extern "C" {
int __real_open(const char *, int, mode_t), __wrap_open(const char *, int, mode_t);
ssize_t __real_write(int, const void *, size_t), __wrap_write(int, const void *, size_t);
int __real_fsync(int), __wrap_fsync(int);
int __real_rename(const char *, const char *), __wrap_rename(const char *, const char *);
int __real_link(const char *, const char *), __wrap_link(const char *, const char *);
int __real_unlink(const char *), __wrap_unlink(const char *);
int __wrap_kill(pid_t pid, int signal_number);
int __real_nanosleep(const struct timespec *, struct timespec *);
int __wrap_nanosleep(const struct timespec *, struct timespec *);
}

int __wrap_open(const char *path, int flags, mode_t mode) { return step_fails() ? -1 : __real_open(path, flags, mode); }
ssize_t __wrap_write(int fd, const void *data, size_t size)
{
    return step_fails() ? -1 : __real_write(fd, data, size > 10 ? 10 : size);   // in pieces
}
int __wrap_fsync(int fd) { return step_fails() ? -1 : __real_fsync(fd); }
int __wrap_rename(const char *from, const char *to) { return step_fails() ? -1 : __real_rename(from, to); }
int __wrap_link(const char *from, const char *to) { return step_fails() ? -1 : __real_link(from, to); }
int __wrap_unlink(const char *path) { return step_fails() ? -1 : __real_unlink(path); }
int __wrap_kill(pid_t pid, int signal_number)
{
    EXPECT_EQ(signal_number, SIGHUP);
    told_pid = pid;
    return 0;
}
int __wrap_nanosleep(const struct timespec *pause, struct timespec *left)
{
    if (starting_daemon < 0) return __real_nanosleep(pause, left);
    return ++naps == 3 ? pid_update(starting_daemon) : 0;
}

static string failure;   // what keldctl_fail was given last

int keldctl_fail(const char *format, ...)
{
    char text[2048];
    va_list args;
    va_start(args, format);
    vsnprintf(text, sizeof text, format, args);
    va_end(args);
    failure = text;
    return 1;
}

class keldctl : public conf_fixture {
protected:
    void SetUp() override
    {
        conf_fixture::SetUp();
        path_before = getenv("PATH");
        setenv("PATH", (root + ":" + path_before).c_str(), 1);
        keld("exit 0");
        failure.clear();
        told_pid = 0;
    }
    void TearDown() override
    {
        good_steps = -1;
        setenv("PATH", path_before.c_str(), 1);
        conf_fixture::TearDown();
    }
    void keld(const string &script)
    {
        write("/keld", "#!/bin/sh\ncd $KELD_ROOT\n" + script + "\n");
        chmod((root + "/keld").c_str(), 0755);
    }
    /* Commits text, as the operator's file "new.conf". */
    int commit_text(const string &text)
    {
        write("/new.conf", text);
        testing::internal::CaptureStdout();
        int result = keldctl_commit((root + "/new.conf").c_str());
        printed = testing::internal::GetCapturedStdout();
        return result;
    }
    std::set<string> files()
    {
        std::set<string> names;
        for (const auto &entry : std::filesystem::directory_iterator(root + "/var/etc"))
            names.insert(entry.path().filename());
        return names;
    }
    string in_force() { return content("/var/etc/keld.conf"); }
    string former() { return content("/var/etc/keld.conf.1"); }
    string path_before, printed;
};

static const string first = "chassis { }", second = "interfaces { a; }", third = "interfaces { b; }";

TEST_F(keldctl, commit_keeps_the_former_and_tells_the_daemon)
{
    keld("echo \"$@\" >>asked; cat var/etc/keld.conf.candidate >>asked");
    EXPECT_EQ(commit_text(first), 0) << failure;
    EXPECT_EQ(printed, "committed, keld is not running\n");
    EXPECT_EQ(files(), (std::set<string>{ "keld.conf", "keld.conf.lock" }));
    EXPECT_EQ(content("/asked"), "-C\n" + first);
    starting_daemon = pid_lock("/var/run/keld.pid");
    naps = 3;
    EXPECT_EQ(commit_text(second), 0) << failure;
    EXPECT_EQ(printed, "committed, keld is starting and will read it\n");
    naps = 0;
    EXPECT_EQ(commit_text(third), 0) << failure;
    EXPECT_EQ(told_pid, getpid());
    EXPECT_EQ(commit_text(third), 0) << failure;   // the former one is still the one before
    EXPECT_EQ(in_force(), third);
    EXPECT_EQ(former(), second);
    struct stat status;
    ASSERT_EQ(stat((root + "/var/etc/keld.conf").c_str(), &status), 0);
    EXPECT_EQ(status.st_mode & 0777, 0600u);   // it holds secrets
    close(std::exchange(starting_daemon, -1));
}

TEST_F(keldctl, refusals_change_nothing)
{
    EXPECT_EQ(commit_text(first), 0) << failure;
    std::set<string> before = files();
    EXPECT_EQ(commit_text("chassis { cluster 1; }"), 1);
    EXPECT_EQ(failure, "new.conf:1:19: found '1', expected ;");
    EXPECT_EQ(keldctl_commit((root + "/none").c_str()), 1);
    EXPECT_EQ(files(), before);
    const string refusal = "keld -C refuses it, correct what it says above";
    const struct { const char *keld; string says; } rows[] = {   // only what was judged stays, to be looked at
        { "exit 3", refusal + ", it stays as /var/etc/keld.conf.candidate" },
        { "kill -9 $$", "keld -C was ended by signal 9, try again, it was not put in force" },
        { "exit 127", "cannot run keld -C, put keld beside keldctl or on PATH, it was not put in force" },
    };
    for (const auto &row : rows) {
        keld(row.keld);
        EXPECT_EQ(commit_text(second), 1);
        EXPECT_EQ(failure, root + "/new.conf: " + row.says);
        bool judged = &row == rows;
        EXPECT_EQ(files().contains("keld.conf.candidate"), judged);
        if (!judged) continue;
        EXPECT_EQ(keldctl_check(nullptr), 1);
        EXPECT_EQ(failure, "/var/etc/keld.conf.candidate: " + refusal);
    }
    EXPECT_EQ(in_force(), first);
    EXPECT_EQ(former(), "");
}

TEST_F(keldctl, check)
{
    string in_force = root + "/var/etc/keld.conf", candidate = in_force + ".candidate";
    EXPECT_EQ(keldctl_check(nullptr), 1);
    EXPECT_EQ(failure, "/var/etc/keld.conf: no configuration yet, put one in force with keldctl commit FILE");
    commit("chassis { }");
    testing::internal::CaptureStdout();
    EXPECT_EQ(keldctl_check(nullptr), 0) << failure;
    EXPECT_EQ(testing::internal::GetCapturedStdout(), "/var/etc/keld.conf: nothing wrong\n");
    write("/var/etc/keld.conf.candidate", "chassis { capabilities 256; }");
    EXPECT_EQ(keldctl_check(nullptr), 1);
    EXPECT_EQ(failure, "keld.conf.candidate:1:24: found '256', expected a number from 0 to 255");
    EXPECT_EQ(keldctl_check(in_force.c_str()), 0);
    std::filesystem::resize_file(in_force, 17 << 20);
    EXPECT_EQ(keldctl_check(in_force.c_str()), 1);
    EXPECT_EQ(failure, "keld.conf: longer than 16777216 octets");

    std::filesystem::remove(candidate);   // as a FILE it may be a pipe, in its place a pipe holds nobody up
    ASSERT_EQ(mkfifo(candidate.c_str(), 0600), 0);
    EXPECT_EQ(keldctl_check(nullptr), 1);
    EXPECT_EQ(failure, "/var/etc/keld.conf.candidate: not a regular file");
    std::thread writer([&] { write("/var/etc/keld.conf.candidate", "chassis {"); });
    EXPECT_EQ(keldctl_check(candidate.c_str()), 1);
    writer.join();
    EXPECT_TRUE(failure.starts_with("keld.conf.candidate:1:10: found end of file")) << failure;
}

/* In a child, so that it may end there. */
static pid_t start_commit(const string &file)
{
    pid_t pid = fork();
    if (pid > 0) return pid;
    (void)!freopen("/dev/null", "w", stdout);
    _exit(keldctl_commit(file.c_str()));
}

static int exit_status(pid_t pid)
{
    int status = 0;
    EXPECT_EQ(waitpid(pid, &status, 0), pid);
    return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
}

TEST_F(keldctl, old_or_new_and_never_half)
{
    int pid_file = pid_lock("/var/run/keld.pid");
    ASSERT_EQ(pid_update(pid_file), 0);
    for (bool ends : { true, false }) {
        int cut_short = 0, steps = 0;
        for (bool over = false; !over; steps++) {
            good_steps = -1;
            ASSERT_EQ(commit_text(first), 0) << failure;
            ASSERT_EQ(commit_text(second), 0) << failure;
            write("/new.conf", third);
            good_steps = steps;
            steps_end_the_process = ends;
            told_pid = 0;
            failure.clear();
            string file = root + "/new.conf";
            int result = ends ? exit_status(start_commit(file)) : keldctl_commit(file.c_str());
            good_steps = -1;
            if (!ends) {   // whatever comes after it, what is in force is also told
                bool untold = failure.find("could not be told") != string::npos;
                EXPECT_EQ(in_force() == third && !untold, told_pid != 0) << steps << failure;
            }
            over = result == 0 && in_force() == third && former() == second && steps > 30;
            cut_short += result != 0;
            EXPECT_TRUE(in_force() == second || in_force() == third) << steps << in_force();
            EXPECT_TRUE(former() == first || former() == second) << steps << former();
            EXPECT_TRUE(in_force() == second || former() == second) << steps;
            ASSERT_LT(steps, 100);
        }
        EXPECT_GT(cut_short, 10);
    }
    close(pid_file);
}

TEST_F(keldctl, commits_exclude_each_other)
{
    keld("mkdir inside || touch overlap; cp var/etc/keld.conf.candidate seen; cmp seen var/etc/keld.conf.candidate || "
         "touch overlap; rmdir inside");
    std::vector<pid_t> committers;
    for (int i = 0; i < 8; i++) {
        string file = "/file" + std::to_string(i);
        write(file, "interfaces { i" + std::to_string(i) + "; }");
        committers.push_back(start_commit(root + file));
    }
    for (pid_t pid : committers) EXPECT_EQ(exit_status(pid), 0);
    EXPECT_FALSE(std::filesystem::exists(root + "/overlap"));
    EXPECT_EQ(in_force().size(), former().size());
    EXPECT_NE(in_force(), former());
}
