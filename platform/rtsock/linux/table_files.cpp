/*
 * Names of routing tables from the host's files, the ones that its own tools read.
 *
 * A line is "NUMBER NAME", decimal or with 0x; '#' begins a comment. The site's file comes first, then the files that
 * packages drop beside it, then the distribution's: of two names for a number, or two numbers for a name, the first one
 * counts. All of it stands below the root of the system.
 */
#include "platform/rtsock/linux/lx.h"

#include "platform/process/process.h"
#include "platform/target.h"

#include <dirent.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>

#include <algorithm>

namespace {

enum { LINE_SIZE = 512, NAMELESS = 0, TABLE_DEFAULT = 253 };

constexpr char FILE_SITE[] = "/etc/iproute2/rt_tables", FOLDER_SITE[] = "/etc/iproute2/rt_tables.d";
constexpr char FILE_HOST[] = "/usr/share/iproute2/rt_tables";

bool known(const struct lx_list *tables, const struct lx_table *table)
{
    for (size_t i = 0; i < tables->count; i++) {
        const struct lx_table *one = &lx_items<struct lx_table>(tables)[i];
        if (one->number == table->number || strcmp(one->name, table->name) == 0)
            return true;
    }
    return false;
}

/* "default" is the main table's name here; what Linux calls so is a table that it looks into last. 0 is no table. */
bool tellable(const struct lx_table *table)
{
    return table->number != NAMELESS && table->number != TABLE_DEFAULT && table->number <= LX_TABLE_MAX;
}

int read_lines(FILE *file, struct lx_list *tables)
{
    char line[LINE_SIZE];
    bool begins = true;   // the rest of a line that is longer is passed over
    while (fgets(line, sizeof line, file) != nullptr) {
        struct lx_table table;
        bool whole = strchr(line, '\n') != nullptr || feof(file) != 0;
        if (begins && whole && lx_table_line(line, &table) && tellable(&table) && !known(tables, &table) &&
            !lx_list_add(tables, &table))
            return TARGET_ENOMEM;
        begins = whole;
    }
    return 0;
}

/* A file that is not there holds no names. */
int read_file(const char *path, struct lx_list *tables)
{
    char place[PLATFORM_PATH_MAX];
    const char *resolved = platform_path(place, sizeof place, path);
    FILE *file = resolved != nullptr ? fopen(resolved, "re") : nullptr;
    if (file == nullptr)
        return 0;
    int error = read_lines(file, tables);
    (void)fclose(file);
    return error;
}

int is_conf(const struct dirent *entry)
{
    static constexpr char suffix[] = ".conf";
    size_t length = strlen(entry->d_name), end = sizeof suffix - 1;
    return entry->d_name[0] != '.' && length > end && strcmp(entry->d_name + length - end, suffix) == 0;
}

int read_folder(const char *folder, struct lx_list *tables)
{
    char place[PLATFORM_PATH_MAX], path[PLATFORM_PATH_MAX];
    struct dirent **entries = nullptr;
    const char *resolved = platform_path(place, sizeof place, folder);
    int count = resolved != nullptr ? scandir(resolved, &entries, is_conf, alphasort) : -1;
    int error = 0;
    for (int i = 0; i < count; i++) {
        int length = snprintf(path, sizeof path, "%s/%s", folder, entries[i]->d_name);
        if (error == 0 && length > 0 && size_t(length) < sizeof path)
            error = read_file(path, tables);
        free(entries[i]);
    }
    free(entries);
    return error;
}

}   // namespace

bool lx_table_line(const char *line, struct lx_table *table)
{
    static constexpr char blanks[] = " \t\r\n";
    line += strspn(line, blanks);
    if (*line < '0' || *line > '9')
        return false;
    char *end;
    int base = line[0] == '0' && (line[1] == 'x' || line[1] == 'X') ? 16 : 10;
    unsigned long long number = strtoull(line, &end, base);
    const char *name = end + strspn(end, blanks);
    size_t length = strcspn(name, "# \t\r\n");
    if (number > UINT32_MAX || name == end || length == 0 || length >= sizeof table->name)
        return false;
    *table = {};
    table->number = uint32_t(number);
    memcpy(table->name, name, length);
    return true;
}

int lx_table_files(struct lx_list *tables)
{
    int error = read_file(FILE_SITE, tables);
    if (error == 0)
        error = read_folder(FOLDER_SITE, tables);
    return error == 0 ? read_file(FILE_HOST, tables) : error;
}
