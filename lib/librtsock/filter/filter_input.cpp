/*
 * Input of the filter compiler: one open stream, or standard input while there is none.
 *
 * A text goes through a pipe, so that the one scanner, which reads streams, serves it as well. It is written before
 * anybody reads: that never blocks, because a text longer than what every pipe holds at once is refused.
 *
 * Whoever opened the input closes it. A failure to open leaves nothing open, neither of the descriptors of a pipe.
 */
#include "lib/librtsock/filter/filter_build.h"

#include <errno.h>
#include <fcntl.h>
#include <string.h>
#include <unistd.h>

static FILE *input;

static void report_errno(const char *what)
{
    char text[80];
    snprintf(text, sizeof text, "%s, errno = %d\n", what, errno);
    yyrtserror(text);
}

static int fail(const char *text)
{
    yyrtserror(text);
    return -1;
}

int yyrts_setyyin(const char *path)
{
    if (path == nullptr)
        return fail("NULL file name\n");
    input = fopen(path, "re");
    if (input == nullptr) {
        report_errno("Failed to open file");
        return -1;
    }
    return 0;
}

int yyrts_setyyin_mem(const char *text)
{
    size_t length = strlen(text);
    if (length > RTS_FILTER_SOURCE_MAX)
        return fail("Filter too long\n");
    int ends[2];
    if (pipe2(ends, O_CLOEXEC) != 0)
        return fail("Error creating pipe\n");
    ssize_t written = write(ends[1], text, length);
    close(ends[1]);
    if (written != (ssize_t)length) {
        close(ends[0]);
        return fail("Error writing to pipe\n");
    }
    input = fdopen(ends[0], "r");
    if (input == nullptr) {
        report_errno("Failed to open file");
        close(ends[0]);
        return -1;
    }
    (void)setvbuf(input, nullptr, _IONBF, 0);   // the scanner has a buffer of its own
    return 0;
}

void yyrts_closeyyin(void)
{
    fclose(input);
    input = nullptr;
}

size_t yyrts_read(char *octets, size_t room)
{
    FILE *stream = input ? input : stdin;
    if (feof(stream))
        return 0;
    size_t count = fread(octets, 1, room, stream);
    if (count == 0 && ferror(stream)) {
        report_errno("Failed to read file");   // a folder, say, which can be opened
        clearerr(stream);
        yyrts_abandon();
    }
    return count;
}
