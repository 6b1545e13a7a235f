/*
 * Menus: from a typed line to the row of its command.
 *
 * The line is only read, never changed or copied: a search tells what it met by places in the line. It ends at the
 * first word that does not lead on, so that the one message names the first thing to put right, and what could stand
 * there are the rows of the menu at which it ended; for an ambiguous word only those that it could mean.
 */
#include "platform/mgmt/menu.h"

#include "platform/text/text.h"

#include <string.h>

static constexpr char blanks[] = " \t\r";   // a terminal's carriage return as well
static constexpr size_t SHOWN_MAX = 60, LIST_MAX = 512;   // octets of a word, and of the list of words, for people

/* --- finding ---------------------------------------------------------------------------------------------------- */

static bool begins_with(const struct menu_row *row, const char *word, size_t length)
{
    return strncmp(row->mn_keyword, word, length) == 0;
}

/* The row that word chooses, or null. *fits is how many rows the word could mean. */
static const struct menu_row *choose_row(const struct menu_row *menu, const char *word, size_t length, int *fits)
{
    const struct menu_row *chosen = nullptr;
    *fits = 0;
    for (const struct menu_row *row = menu; row && row->mn_keyword; row++) {
        if (!begins_with(row, word, length)) continue;
        if (row->mn_keyword[length] == '\0') {
            *fits = 1;
            return row;
        }
        chosen = row;
        ++*fits;
    }
    return *fits == 1 ? chosen : nullptr;
}

void menu_find(const struct menu_row *menu, const char *line, struct menu_search *search)
{
    *search = {};
    search->me_menu = menu;
    const struct menu_row *row = nullptr;
    for (const char *word = line + strspn(line, blanks);; word += strspn(word, blanks)) {
        search->me_word = word;
        search->me_length = strcspn(word, blanks);
        if (search->me_length == 0) break;
        int fits;
        row = choose_row(search->me_menu, word, search->me_length, &fits);
        if (!row) {
            search->me_outcome = fits > 1 ? MENU_AMBIGUOUS : MENU_UNKNOWN;
            return;
        }
        search->me_menu = row->mn_child;
        word += search->me_length;
        search->me_before = static_cast<size_t>(word - line);
    }
    search->me_outcome = row && row->mn_handler ? MENU_FOUND : MENU_INCOMPLETE;
    search->me_row = row && row->mn_handler ? row : nullptr;
}

/* --- telling ---------------------------------------------------------------------------------------------------- */

static bool could_stand(const struct menu_search *search, const struct menu_row *row)
{
    return search->me_outcome != MENU_AMBIGUOUS || begins_with(row, search->me_word, search->me_length);
}

/* "a, b or c" */
static void list_words(const struct menu_search *search, char *list, size_t size)
{
    size_t length = 0;
    const struct menu_row *last = nullptr;
    for (const struct menu_row *row = search->me_menu; row && row->mn_keyword; row++) {
        if (!could_stand(search, row)) continue;
        const char *comma = length > 0 ? ", " : "";
        if (last) length += snprintf_safe(list + length, size - length, "%s%s", comma, last->mn_keyword);
        last = row;
    }
    const char *link = length > 0 ? " or " : "";
    (void)snprintf_safe(list + length, size - length, "%s%s", link, last ? last->mn_keyword : "nothing more");
}

static int shown(size_t length)
{
    return static_cast<int>(length < SHOWN_MAX ? length : SHOWN_MAX);
}

size_t menu_fault_text(const char *line, const struct menu_search *search, char *text, size_t size)
{
    char list[LIST_MAX] = "";
    list_words(search, list, sizeof list);
    const char *start = line + strspn(line, blanks);
    size_t good = search->me_before > 0 ? search->me_before - static_cast<size_t>(start - line) : 0;
    if (search->me_outcome == MENU_INCOMPLETE)
        return snprintf_safe(text, size, "incomplete command '%.*s', expected %s", shown(good), start, list);

    const char *what = search->me_outcome == MENU_AMBIGUOUS ? "ambiguous" : "unknown";
    size_t length = snprintf_safe(text, size, "%s word '%.*s'", what, shown(search->me_length), search->me_word);
    if (good > 0) length += snprintf_safe(text + length, size - length, " behind '%.*s'", shown(good), start);
    return length + snprintf_safe(text + length, size - length, ", expected %s", list);
}
