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
static constexpr char compiler[] = __VERSION__;
#else
static constexpr char compiler[] = "g++ " __VERSION__;
#endif

#ifdef __OPTIMIZE__
static constexpr char optimized[] = "optimized";
#else
static constexpr char optimized[] = "not optimized";
#endif

#ifdef NDEBUG
static constexpr char assertions[] = "without assertions";
#else
static constexpr char assertions[] = "with assertions";
#endif

void show_daemon_version(const char *name, int level, int extended)
{
    printf("%s %s\n", name ? name : program_invocation_short_name, KELD_RELEASE);
    if (level > 1) {
        printf("  compiler: %s\n", compiler);
        printf("  build: %zu-bit, %s, %s\n", sizeof(void *) * 8, optimized, assertions);
    }
    if (extended) {
        printf("  TLS library: %s\n", OpenSSL_version(OPENSSL_VERSION));
        printf("  C library: %s\n", gnu_get_libc_version());
    }
    (void)fflush(stdout);   // who closed standard output does not want the text
}

const char *system_name(void)
{
    static struct utsname names;   // asked anew each time: a machine can be renamed
    return uname(&names) < 0 ? "" : names.nodename;
}
