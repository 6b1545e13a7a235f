/*
 * The command line against a menu, for any octets without a line end: what a search points at lies in the line, and
 * it either finds a command or says what is wrong in a text that fits.
 */
#include "platform/mgmt/menu.h"
#include "usr.sbin/keld/keld_ui.h"

#include <stdint.h>
#include <stdlib.h>
#include <string.h>

#include <string>

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size);

static void must(bool holds)
{
    if (!holds) abort();
}

static const struct menu_row things[] = {
    { "on", nullptr, 1, nullptr, xml_show_daemon_version },
    { "once", nullptr, 2, nullptr, xml_show_daemon_version },
    { "", nullptr, 3, nullptr, xml_show_daemon_version },   // chosen by no word
    {},
};
static const struct menu_row menu[] = {
    { "show", nullptr, 0, things, nullptr }, { "shut", nullptr, 0, things, nullptr }, {},
};

static void look_up(const struct menu_row *rows, const std::string &line)
{
    struct menu_search search;
    menu_find(rows, line.c_str(), &search);
    size_t place = static_cast<size_t>(search.me_word - line.c_str());
    must(place <= line.size() && search.me_length <= line.size() - place && search.me_before <= place);
    must((search.me_outcome == MENU_FOUND) == (search.me_row != nullptr));
    if (search.me_outcome == MENU_FOUND) {
        must(search.me_row->mn_handler != nullptr && search.me_length == 0);
        return;
    }
    char text[200];
    memset(text, 'x', sizeof text);
    size_t room = line.size() % sizeof text + 1;
    size_t length = menu_fault_text(line.c_str(), &search, text, room);
    must(length < room && text[length] == '\0' && strlen(text) == length);
}

int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    std::string line(reinterpret_cast<const char *>(data), size);
    line.resize(strlen(line.c_str()));
    look_up(menu, line);
    look_up(master_menu, line);
    return 0;
}
