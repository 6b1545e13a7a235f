/*
 * Printing: what a person, or a script that reads along, sees.
 *
 * One event is one line: the time, "#N" for the connection that it belongs to, and a sentence. A line is one write, so
 * that it stands in a pipe or file when the call returns and lines never mix. What a peer sent passes printable()
 * first: no control character of his reaches a terminal.
 */
#include "tools/kelserver/kelserver.h"

#include <stdarg.h>
#include <stdio.h>
#include <string.h>
#include <time.h>
#include <unistd.h>

static void write_line(std::string line)
{
    line += '\n';
    const char *left = line.data();
    size_t size = line.size();
    while (size > 0) {
        ssize_t written = write(STDOUT_FILENO, left, size);
        if (written <= 0) return;   // nobody reads any more; serving goes on
        left += written;
        size -= static_cast<size_t>(written);
    }
}

[[gnu::format(printf, 2, 0)]] static void say_args(unsigned number, const char *format, va_list args)
{
    struct timespec now;
    struct tm local;
    char clock[16] = "";
    char text[2048];

    clock_gettime(CLOCK_REALTIME, &now);
    localtime_r(&now.tv_sec, &local);
    strftime(clock, sizeof clock, "%H:%M:%S", &local);

    vsnprintf(text, sizeof text, format, args);

    char front[48];
    if (number) snprintf(front, sizeof front, "%s.%03ld #%u ", clock, now.tv_nsec / 1000000, number);
    else snprintf(front, sizeof front, "%s.%03ld ", clock, now.tv_nsec / 1000000);
    write_line(std::string(front) + text);
}

void say(const struct connection *connection, const char *format, ...)
{
    va_list args;
    va_start(args, format);
    say_args(connection ? connection->number : 0, format, args);
    va_end(args);
}

void say_number(unsigned number, const char *format, ...)
{
    va_list args;
    va_start(args, format);
    say_args(number, format, args);
    va_end(args);
}

void say_block(const std::string &text)
{
    size_t start = 0;
    while (start < text.size()) {
        size_t end = text.find('\n', start);
        if (end == std::string::npos) end = text.size();
        write_line("  | " + printable(text.substr(start, end - start)));
        start = end + 1;
    }
}

std::string printable(const std::string &text)
{
    std::string out = text;
    for (char &octet : out) {
        if (octet == '\n' || octet == '\r' || octet == '\t') octet = ' ';
        else if (octet < ' ' || octet > '~') octet = '?';
    }
    while (!out.empty() && out.back() == ' ') out.pop_back();
    return out;
}
