/*
 * What this program is: its release, how it was built, what it runs with, and the name of the machine.
 *
 * The first line stays the same at all levels; further ones are added below it, each a label and a value, so that what
 * reads the release never has to look past it. Nothing in the text changes from one build of a source to the next.
 */
#include "platform/process/process.h"

#include <errno.h>
#include <gnu/libc-version.h>
#include <openssl/crypto.h>
#include <stdio.h>
#include <sys/utsname.h>

#ifdef __clang__
#define COMPILER __VERSION__
#else
#define COMPILER "g++ " __VERSION__
#endif

#ifdef __OPTIMIZE__
#define OPTIMIZED "optimized"
#else
#define OPTIMIZED "not optimized"
#endif

#ifdef NDEBUG
#define ASSERTIONS "without assertions"
#else
#define ASSERTIONS "with assertions"
#endif

static const char *const build = sizeof(void *) == 8 ? "64-bit, " OPTIMIZED ", " ASSERTIONS
                                                    : "32-bit, " OPTIMIZED ", " ASSERTIONS;

const char *version_fact(int fact)
{
    switch (fact) {
    case VERSION_COMPILER: return COMPILER;
    case VERSION_BUILD: return build;
    case VERSION_TLS_LIBRARY: return OpenSSL_version(OPENSSL_VERSION);
    case VERSION_C_LIBRARY: return gnu_get_libc_version();
    default: return "";
    }
}

void show_daemon_version(const char *name, int level, int extended)
{
    printf("%s %s\n", name ? name : program_invocation_short_name, KELD_RELEASE);
    if (level > 1) {
        printf("  compiler: %s\n", version_fact(VERSION_COMPILER));
        printf("  build: %s\n", version_fact(VERSION_BUILD));
    }
    if (extended) {
        printf("  TLS library: %s\n", version_fact(VERSION_TLS_LIBRARY));
        printf("  C library: %s\n", version_fact(VERSION_C_LIBRARY));
    }
    (void)fflush(stdout);   // who closed standard output does not want the text
}

const char *system_name(void)
{
    static struct utsname names;   // asked anew each time: a machine can be renamed
    return uname(&names) < 0 ? "" : names.nodename;
}
