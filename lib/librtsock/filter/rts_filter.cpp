/*
 * Filter compiler, the way in and out.
 *
 * A compilation is one run of the parser, which pulls words from the scanner and pushes instructions into the buffer.
 * Wherever it cannot go on - no room, no memory, input that breaks off - it jumps back to the top. So nothing that is
 * allocated may be known to a function on the way alone: nodes are on the live list, the scanner's memory in its slots,
 * the parser's stack in its static variable. All three are given back here, however the run ended.
 *
 * Errors do not stop the parser by themselves. Each is printed and counted where it is found, and one is enough to
 * refuse the program; a program that did not fit is called that even if it had errors as well.
 */
#include "lib/librtsock/filter/filter_build.h"

struct yyrts_state yyrts_state;

void yyrtserror(const char *text)
{
    fprintf(stderr, "%s \n", text);   // Kept on purpose: most texts end with a line end, and " \n" follows it
    if (yyrts_state.errors++ != 0)
        return;
    yyrts_state.error_line = yyrts_state.word_line;
    yyrts_state.error_column = yyrts_state.word_column;
}

void yyrts_abandon(void)
{
    longjmp(yyrts_state.top, 1);
}

void yyrts_word(size_t length)
{
    yyrts_state.word_line = yyrts_state.line;
    yyrts_state.word_column = yyrts_state.column;
    yyrts_state.column += unsigned(length);
}

void yyrts_line_ends(const char *text, size_t length)
{
    for (size_t i = 0; i < length; i++) {
        if (text[i] != '\n')
            continue;
        yyrts_state.line++;
        yyrts_state.column = unsigned(length - i);
    }
}

static void run(void)
{
    if (setjmp(yyrts_state.top) == 0)
        (void)yyrtsparse();   // everything that makes it fail has been counted
}

static int compile(void *buffer, size_t size)
{
    yyrts_state = {};
    yyrts_state.buffer = static_cast<uint8_t *>(buffer);
    yyrts_state.size = size;
    yyrts_state.cursor = sizeof(struct rts_filter_head);
    yyrts_state.line = yyrts_state.column = 1;
    yyrts_state.word_line = yyrts_state.word_column = 1;
    run();
    yyrts_free_parse_tree();
    yyrts_free_stack();
    yyrts_flush_buffer();
    if (yyrts_state.full)
        return RTS_FILTER_FULL;
    return yyrts_state.errors != 0 ? RTS_FILTER_REFUSED : RTS_FILTER_DONE;
}

int rts_filter_parse(const char *path, void *buffer, size_t size)
{
    if (path == nullptr)
        return compile(buffer, size);   // Kept on purpose: no fault; what stands open is read, standard input here
    if (yyrts_setyyin(path) != 0)
        return RTS_FILTER_NO_INPUT;
    int result = compile(buffer, size);
    yyrts_closeyyin();
    return result;
}

int rts_filter_string_parse(const char *text, void *buffer, size_t size)
{
    if (size == 0)
        return RTS_FILTER_REFUSED;   // Kept on purpose: without a word, where rts_filter_parse says that it is full
    if (text == nullptr)
        return compile(buffer, size);   // Kept on purpose: as above
    if (yyrts_setyyin_mem(text) != 0)
        return RTS_FILTER_NO_INPUT;
    int result = compile(buffer, size);
    yyrts_closeyyin();
    return result;
}

void rts_filter_error_place(unsigned *line, unsigned *column)
{
    *line = yyrts_state.error_line;
    *column = yyrts_state.error_column;
}
