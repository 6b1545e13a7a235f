#include "wraps.h"

#include <errno.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <time.h>

#include <filesystem>
#include <fstream>

std::string log_socket_path, rename_refused;

extern "C" {
int __real_clock_gettime(clockid_t clock, struct timespec *time);
int __wrap_clock_gettime(clockid_t clock, struct timespec *time);
int __real_connect(int fd, const struct sockaddr *address, socklen_t length);
int __wrap_connect(int fd, const struct sockaddr *address, socklen_t length);
int __real_rename(const char *from, const char *to);
int __wrap_rename(const char *from, const char *to);
}

int __wrap_clock_gettime(clockid_t clock, struct timespec *time)
{
    if (clock != CLOCK_REALTIME) return __real_clock_gettime(clock, time);
    *time = { 1709251198, 7654321 };
    return 0;
}

int __wrap_connect(int fd, const struct sockaddr *address, socklen_t)
{
    struct sockaddr_un there{};
    memcpy(&there, address, sizeof there);
    EXPECT_STREQ(there.sun_path, "/dev/log");
    snprintf(there.sun_path, sizeof there.sun_path, "%s", log_socket_path.c_str());
    return __real_connect(fd, (const struct sockaddr *)&there, sizeof there);
}

int __wrap_rename(const char *from, const char *to)
{
    if (rename_refused != from) return __real_rename(from, to);
    errno = EACCES;
    return -1;
}

void log_fixture::SetUp()
{
    char folder[] = "/tmp/keld-log-XXXXXX";
    ASSERT_NE(mkdtemp(folder), nullptr);
    root = folder;
    setenv("KELD_ROOT", folder, 1);
    setenv("TZ", "UTC0", 1);
    rename_refused.clear();
}

void log_fixture::TearDown()
{
    unsetenv("KELD_ROOT");
    std::filesystem::remove_all(root);
}

std::string log_fixture::content(const std::string &path)
{
    std::ifstream file(root + path);
    return { std::istreambuf_iterator<char>(file), {} };
}
