// Process: paths below the root, and the pid file over the life of a daemon.
#include "platform/process/process.h"

#include "tests/platform/confdb/conf_fixture.h"

#include <errno.h>
#include <fcntl.h>
#include <sys/wait.h>
#include <unistd.h>

static const char PID_FILE[] = "/var/run/keld.pid";
using process = conf_fixture;

TEST_F(process, paths_below_the_root)
{
    std::string start = std::filesystem::current_path();
    char buffer[PLATFORM_PATH_MAX];
    (void)platform_path(buffer, sizeof buffer, "/");   // the start folder is remembered from here on
    ASSERT_EQ(chdir("/"), 0);

    const struct { const char *root; std::string result; } rows[] = {
        { nullptr, "/etc/x" }, { "", "/etc/x" }, { "/r", "/r/etc/x" }, { "r/s", start + "/r/s/etc/x" },
    };
    for (const auto &row : rows) {
        row.root ? setenv("KELD_ROOT", row.root, 1) : unsetenv("KELD_ROOT");
        EXPECT_EQ(platform_path(buffer, row.result.size() + 1, "/etc/x"), buffer);
        EXPECT_EQ(buffer, row.result);
        EXPECT_EQ(platform_path(buffer, row.result.size(), "/etc/x"), nullptr);
        EXPECT_EQ(errno, ENAMETOOLONG);
    }
    ASSERT_EQ(chdir(start.c_str()), 0);
}

TEST_F(process, descriptors_survive_detaching_but_not_exec)
{
    int saved = dup(STDIN_FILENO);
    close(STDIN_FILENO);
    int fd = platform_open("/a/b/file", O_RDWR | O_CREAT, 0600);
    EXPECT_GT(fd, STDERR_FILENO);
    EXPECT_NE(fcntl(fd, F_GETFD) & FD_CLOEXEC, 0);
    EXPECT_LT(fcntl(STDIN_FILENO, F_GETFD), 0);
    dup2(saved, STDIN_FILENO);
    close(saved);
    close(fd);

    EXPECT_LT(platform_open("/absent/file", O_RDONLY, 0), 0);
    EXPECT_EQ(errno, ENOENT);
    EXPECT_FALSE(std::filesystem::exists(root + "/absent"));   // reading makes no folders
}

TEST_F(process, pid_file_over_the_life_of_a_daemon)
{
    EXPECT_EQ(pid_read(PID_FILE), 0);
    int fd = pid_lock(PID_FILE);
    ASSERT_GE(fd, 0);
    ASSERT_EQ(pid_update(fd), 0);
    EXPECT_LT(pid_lock(PID_FILE), 0);
    EXPECT_EQ(errno, EWOULDBLOCK);
    EXPECT_EQ(pid_read(PID_FILE), getpid());   // whoever was refused has not emptied the file

    // Detaching: the process that took the lock goes, its child keeps it.
    int gate[2];
    ASSERT_EQ(pipe(gate), 0);
    pid_t child = fork();
    if (child == 0) {
        char octet;
        close(gate[1]);
        _exit(read(gate[0], &octet, 1) == 0 ? 0 : 1);
    }
    close(gate[0]);
    close(fd);
    EXPECT_EQ(pid_read(PID_FILE), getpid());
    close(gate[1]);
    int status = -1;
    ASSERT_EQ(waitpid(child, &status, 0), child);
    EXPECT_EQ(status, 0);
    EXPECT_EQ(pid_read(PID_FILE), 0);

    // The next daemon: the number of a former one, still there when the lock is taken, is nobody's, and leaves no rest.
    fd = pid_lock(PID_FILE);
    for (const char *text : { "", "1234567890\n" }) {
        write(PID_FILE, text);
        EXPECT_EQ(pid_read(PID_FILE), -1);
        EXPECT_EQ(errno, EAGAIN);
    }
    EXPECT_EQ(pid_update(fd), 0);
    EXPECT_EQ(content(PID_FILE), std::to_string(getpid()) + "\n");
    close(fd);
}

TEST_F(process, version_starts_with_name_and_release)
{
    testing::internal::CaptureStdout();
    show_daemon_version(nullptr, 1, 0);
    show_daemon_version("keld", 2, 1);
    std::string text = testing::internal::GetCapturedStdout();
    EXPECT_TRUE(text.starts_with("process_test " KELD_RELEASE "\nkeld " KELD_RELEASE "\n  compiler: ")) << text;
    EXPECT_NE(text.find("OpenSSL"), text.npos) << text;
}

TEST_F(process, names_of_other_processes)
{
    write("/sshd", "#!/bin/sh\necho\nread line\n");
    std::filesystem::permissions(root + "/sshd", std::filesystem::perms::owner_all);
    int in[2], out[2];
    ASSERT_EQ(pipe2(in, O_CLOEXEC) | pipe2(out, O_CLOEXEC), 0);
    pid_t child = fork();
    if (child == 0) {
        dup2(in[0], STDIN_FILENO);
        dup2(out[1], STDOUT_FILENO);
        execl((root + "/sshd").c_str(), "another title", nullptr);
        _exit(1);
    }
    char name[8] = "", sign;
    ASSERT_EQ(read(out[0], &sign, 1), 1);   // the script runs
    EXPECT_EQ(process_name(child, name, sizeof name), 0);
    EXPECT_STREQ(name, "sshd");
    EXPECT_EQ(process_name(child, name, 3), 0);
    EXPECT_STREQ(name, "ss");
    EXPECT_FALSE(process_is_zombie(child));
    for (int end : { in[0], in[1], out[0], out[1] }) close(end);
    siginfo_t ended;
    ASSERT_EQ(waitid(P_PID, id_t(child), &ended, WEXITED | WNOWAIT), 0);
    EXPECT_TRUE(process_is_zombie(child));
    ASSERT_EQ(waitpid(child, nullptr, 0), child);
    EXPECT_FALSE(process_is_zombie(child));
    EXPECT_EQ(process_name(child, name, sizeof name), -1);
    EXPECT_EQ(errno, ESRCH);
    EXPECT_STREQ(name, "ss");
}
