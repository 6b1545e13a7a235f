/*
 * sshd's configuration for one client: the router's own, without what the client decides, and what it decided.
 *
 * The words to drop are looked for anywhere in a line. Kept on purpose: so every line that holds one of them goes, a
 * comment or a path as well, and spellings in other letter cases stay, although sshd knows no case. Lines longer than
 * the buffer are judged in pieces.
 *
 * A file that cannot be written or a template that cannot be read is only traced. The attempt goes on with what the
 * file holds, and sshd decides.
 */
#include "usr.sbin/keld/outbound_ssh/obssh_private.h"

#include "platform/log/log.h"
#include "platform/process/process.h"
#include "platform/text/text.h"

#include <algorithm>
#include <fcntl.h>
#include <iterator>
#include <string.h>
#include <sys/stat.h>
#include <unistd.h>

static const char template_path[] = "/var/etc/sshd_conf";
static const char netconf_path[] = "/usr/libexec/ui/netconf";
static constexpr const char *dropped_words[] = { "netconf", "ClientAliveInterval", "ClientAliveCountMax" };
enum { LINE_SIZE = 1024, FILE_MODE = 0644 };

const char *obssh_file_name(char *buffer, const char *client_id)
{
    (void)snprintf_safe(buffer, OBSSH_FILE_SIZE, "%s%s", obssh_file_prefix, client_id);
    return buffer;
}

static bool is_dropped(const char *line)
{
    return std::any_of(std::begin(dropped_words), std::end(dropped_words),
                       [line](const char *word) { return strstr(line, word) != nullptr; });
}

bool obssh_copy_template(FILE *from, FILE *to)
{
    char line[LINE_SIZE];
    bool ended = true;
    while (fgets(line, sizeof line, from)) {
        if (is_dropped(line)) continue;
        (void)fputs(line, to);
        ended = strchr(line, '\n') != nullptr;
    }
    return ended;
}

/* A stream on the file below the root, or null with that traced. */
static FILE *open_stream(const char *path, int flags, const char *mode, const char *caller)
{
    int fd = platform_open(path, flags, FILE_MODE);
    FILE *stream = fd >= 0 ? fdopen(fd, mode) : nullptr;
    if (stream) return stream;
    if (fd >= 0) (void)close(fd);
    tarne_trace(1, "%s: Failed to open %s", caller, path);
    return nullptr;
}

static void append_choices(FILE *file, const struct obssh_app_config *app)
{
    char netconf[PLATFORM_PATH_MAX];
    if (app->ac_ka_timeout != 0) (void)fprintf(file, "ClientAliveInterval %u\n", app->ac_ka_timeout);
    if (app->ac_ka_retry != 0) (void)fprintf(file, "ClientAliveCountMax %u\n", app->ac_ka_retry);
    if (app->ac_services == 0 && platform_path(netconf, sizeof netconf, netconf_path))
        (void)fprintf(file, "Subsystem netconf %s\n", netconf);
}

int generate_obssh_config_file(const struct obssh_app_config *app)
{
    char name[OBSSH_FILE_SIZE];
    FILE *file = open_stream(obssh_file_name(name, app->ac_client_id), O_RDWR | O_CREAT | O_TRUNC, "w+", __func__);
    if (!file) return 0;
    FILE *router = open_stream(template_path, O_RDONLY, "r", __func__);
    if (router) {
        bool ended = obssh_copy_template(router, file);
        (void)fclose(router);
        bool appends = app->ac_ka_timeout != 0 || app->ac_ka_retry != 0 || app->ac_services == 0;
        if (!ended && appends) (void)fputc('\n', file);   // or the first choice would join the template's last line
        append_choices(file, app);
    }
    bool failed = ferror(file) != 0;
    if (fclose(file) != 0 || failed) tarne_trace(1, "%s: Failed to write %s", __func__, name);
    return 0;
}

int delete_obssh_config_file(const char *client_id)
{
    char name[OBSSH_FILE_SIZE], path[PLATFORM_PATH_MAX];
    if (!platform_path(path, sizeof path, obssh_file_name(name, client_id))) return -1;
    return unlink(path);
}
