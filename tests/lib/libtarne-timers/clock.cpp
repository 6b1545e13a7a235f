#include "tests/lib/libtarne-timers/clock.h"

#include <time.h>

int64_t clock_ns = 1000 * clock_s;
std::vector<std::string> reported;

extern "C" int clock_gettime(clockid_t, struct timespec *now) noexcept
{
    *now = { clock_ns / clock_s, clock_ns % clock_s };
    return 0;
}

void note_assert(const char *text)
{
    std::string line = text;
    size_t begin = line.find('\'') + 1;
    reported.push_back(line.substr(begin, line.rfind('\'') - begin));
}
