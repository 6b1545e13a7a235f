/*
 * Files that must survive a crash.
 *
 * What the steps rest on: rename within a folder replaces a name at once or not at all; contents are on the disk after
 * fsync of the file, names after fsync of the folder. A second name made with link leaves the first where it is, so a
 * former version can be kept without a moment in which there is none.
 */
#include "tools/keldctl/files.h"

#include "platform/confdb/confdb.h"

#include <errno.h>
#include <fcntl.h>
#include <stdio.h>
#include <sys/file.h>
#include <time.h>
#include <unistd.h>

/* Closes fd with errno kept. Always false. */
static bool fail_closed(int fd)
{
    int error = errno;
    (void)close(fd);
    errno = error;
    return false;
}

bool file_read(const std::string &path, int flags, std::string *text)
{
    int fd = open(path.c_str(), O_RDONLY | O_CLOEXEC | flags);
    if (fd < 0) return false;
    text->clear();
    char piece[16 * 1024];
    while (text->size() <= DDL_ACCESS_TEXT_MAX) {
        ssize_t got = read(fd, piece, sizeof piece);
        if (got < 0 && errno == EINTR) continue;
        if (got < 0) return fail_closed(fd);
        if (got == 0) break;
        text->append(piece, static_cast<size_t>(got));
    }
    (void)close(fd);   // it was only read
    return true;
}

static bool write_whole(int fd, const std::string &text)
{
    for (size_t at = 0; at < text.size();) {
        ssize_t put = write(fd, text.data() + at, text.size() - at);
        if (put < 0 && errno != EINTR) return false;
        if (put > 0) at += static_cast<size_t>(put);
    }
    return true;
}

static bool write_new(const std::string &path, const std::string &text)
{
    (void)unlink(path.c_str());   // left by a commit that was cut short
    int fd = open(path.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, 0600);
    if (fd < 0) return false;
    if (!write_whole(fd, text) || fsync(fd) < 0) return fail_closed(fd);
    return close(fd) == 0;
}

bool file_sync_name(const std::string &path)
{
    std::string folder = path.substr(0, path.rfind('/') + 1);
    int fd = open(folder.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
    if (fd < 0) return false;
    if (fsync(fd) < 0) return fail_closed(fd);
    return close(fd) == 0;
}

bool file_replace(const std::string &path, const std::string &text)
{
    std::string temporary = path + ".tmp";
    if (write_new(temporary, text) && rename(temporary.c_str(), path.c_str()) == 0) return true;
    int error = errno;
    (void)unlink(temporary.c_str());
    errno = error;
    return false;
}

bool file_keep(const std::string &path, const std::string &copy)
{
    std::string temporary = copy + ".tmp";
    (void)unlink(temporary.c_str());
    if (link(path.c_str(), temporary.c_str()) < 0) return errno == ENOENT;
    bool kept = rename(temporary.c_str(), copy.c_str()) == 0 && file_sync_name(copy);
    int error = errno;
    (void)unlink(temporary.c_str());   // still there if both were names of one file already: rename then does nothing
    errno = error;
    return kept;
}

bool file_lock(int fd)
{
    static constexpr int tries = 100;
    static constexpr struct timespec pause = { 0, 100'000'000 };
    for (int i = 0; i < tries; i++) {
        if (flock(fd, LOCK_EX | LOCK_NB) == 0) return true;
        if (errno != EWOULDBLOCK) return false;
        (void)nanosleep(&pause, nullptr);   // a signal only makes the pause shorter
    }
    errno = EWOULDBLOCK;
    return false;
}
