/*
 * rtsfilter: what a person sees of a compilation, in runs of the program.
 */
#include "tests/support/router.h"

#include <gtest/gtest.h>

static const struct { std::vector<std::string> arguments; int status; const char *shown; } runs[] = {
    { { "a == 1" }, 0, "    16   1  field       a\n    48  10  integer     1\n    80  11  operator    ==\n" },
    { { "--octets", "NULL" }, 0, "00 00 00 00 00 00 00 00 00 00 00 00 00 00 20 00\n" },
    { { "a == 1 ==\n  == b" }, 1, "syntax error \nrtsfilter: refused, at line 2, column 3\n      == b\n      ^\n" },
    { { "a = 1" }, 1, "rtsfilter: skipped, for it means nothing in a filter: =\n" },
    { { "--size", "48", "a & b" }, 1, "rtsfilter: the program takes more than 48 octets, at line 1, column 5\n" },
    { { "--file", "/nowhere/filter" }, 1, "rtsfilter: cannot open /nowhere/filter\n" },
    { { std::string(512, ' ') }, 1, "rtsfilter: a longer expression than 511 octets goes into a file; use --file\n" },
    { { "--file", "/dev/null" }, 1, "syntax error \nrtsfilter: refused, at line 1, column 1\n" },
    { { "a", "==", "1" }, 64, "rtsfilter: one expression is wanted; quote it; see rtsfilter --help\n" },
    { { "--size", "0", "a" }, 64, "rtsfilter: --size takes a number from 1 to 65550; see rtsfilter --help\n" },
};

TEST(rtsfilter, shows_programs_and_the_places_of_errors)
{
    struct router router;
    for (const auto &run : runs) {
        std::string output;
        EXPECT_EQ(router_run(router, "rtsfilter", run.arguments, &output), run.status) << run.shown;
        EXPECT_NE(output.find(run.shown), std::string::npos) << run.shown << "is not in\n" << output;
    }
}
