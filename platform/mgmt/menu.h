/*
 * Menus: the commands that a program takes, as a tree of tables, and how a typed line finds its row.
 *
 * A line is words with blanks between them. Each word chooses a row of the menu that the word before led to, by its
 * keyword or by the beginning of one, as long as that fits no other row. A whole keyword always means itself.
 */
#pragma once

#include <stddef.h>
#include <stdint.h>

extern "C" {

struct menu_row;
struct mgmt_sock;

/* Runs a command: row is the one that was chosen. Answers on msp with the calls of xml_out.h. The result is not used.
 * */
typedef int (*menu_handler)(struct mgmt_sock *msp, const struct menu_row *row);

/* A row has a child menu or a handler. A row of zeros ends a menu. */
struct menu_row {
    const char *mn_keyword;
    const char *mn_help;               // a few words for people; null for none
    int32_t mn_argument;               // for the handler, so that several rows can share one
    const struct menu_row *mn_child;
    menu_handler mn_handler;
};

enum menu_outcome {
    MENU_FOUND,        // me_row is the command
    MENU_INCOMPLETE,   // the line ends before it reaches a handler
    MENU_UNKNOWN,      // no row begins with the word, or nothing may stand behind the words before it
    MENU_AMBIGUOUS,    // several rows begin with the word
};

struct menu_search {
    enum menu_outcome me_outcome;
    const struct menu_row *me_row;    // MENU_FOUND: the command's row; otherwise null
    const struct menu_row *me_menu;   // the rows that could stand at the word; null if nothing could
    const char *me_word;              // in the line: the word at fault; where the line ends if it is incomplete
    size_t me_length;                 // of the word
    size_t me_before;                 // octets of the line up to the end of the last good word
};

/* Looks line up in menu. Fills *search; its pointers are good as long as line and menu are. */
void menu_find(const struct menu_row *menu, const char *line, struct menu_search *search);
/* What is wrong with the line of a search that did not succeed, and what could stand there, as one sentence. Words and
 * lists that are too long for people are cut. Always terminated; its length. */
size_t menu_fault_text(const char *line, const struct menu_search *search, char *text, size_t size);

}   // extern "C"
