%{
/*
 * Grammar of the filter language. Every action writes its instruction at once, so the program stands in the order of
 * reduction: operands first.
 *
 * Texts are not copied: a word's text is good until the next word is read, and every rule that takes one ends with it
 * and is the only one possible there, so the parser reduces it without reading on.
 *
 * Parentheses around one relation or one sum belong to the innermost thing that may have them, so that what is in them
 * can still be compared. The program is the same either way.
 *
 * Kept on purpose: a sum has two terms, and a term is no sum in parentheses, so "a + b - c" is refused.
 */
#include "lib/librtsock/filter/filter_build.h"

#define YY_NO_LEAKS
#define YYINITSTACKSIZE 200
#define YYMAXDEPTH 10000
%}

%union {
    int32_t value;
    const char *text;
    struct yyrts_node *node;
}

%token <value> INTEGER 257
%token <text> NAME 258 STRING 259 IPV4 260 IPV6 261 CONTEXT 263
%token AND 264 OR 265 GE 266 LE 267 EQ 268 NE 269 ARROW 270

%type <node> expr relation arith term text path address

%nonassoc INNERMOST
%nonassoc ')'
%left OR
%left AND
%left '>' '<' EQ NE GE LE '~'
%left '&'
%left ARROW '.'

%%

filter: expr                    { yyrts_code_gen(); yyrts_free_parse_tree(); }
    ;

expr: expr AND expr             { $$ = yyrts_operator(AND, $1, $3); }
    | expr OR expr              { $$ = yyrts_operator(OR, $1, $3); }
    | '(' expr ')'              { $$ = $2; }
    | relation                  %prec INNERMOST
    ;

relation: relation '>' relation { $$ = yyrts_operator('>', $1, $3); }
    | relation '<' relation     { $$ = yyrts_operator('<', $1, $3); }
    | relation EQ relation      { $$ = yyrts_operator(EQ, $1, $3); }
    | relation NE relation      { $$ = yyrts_operator(NE, $1, $3); }
    | relation GE relation      { $$ = yyrts_operator(GE, $1, $3); }
    | relation LE relation      { $$ = yyrts_operator(LE, $1, $3); }
    | relation '&' relation     { $$ = yyrts_operator('&', $1, $3); }
    | '(' relation ')'          { $$ = $2; }
    | relation '~' STRING       { $$ = yyrts_operator('~', $1, yyrts_string_constant($3)); }
    | arith                     %prec INNERMOST
    | text
    | address
    | address '/' INTEGER       { $$ = yyrts_set_prefix_len($1, $3); }
    ;

arith: term '+' term            { $$ = yyrts_operator('+', $1, $3); }
    | term '-' term             { $$ = yyrts_operator('-', $1, $3); }
    | '(' arith ')'             { $$ = $2; }
    | term
    ;

term: INTEGER                   { $$ = yyrts_int_constant($1); }
    | { yyrts_path_begin(); } path  { $$ = $2; yyrts_path_end(); }
    ;

text: STRING                    { $$ = yyrts_string_constant($1); }
    ;

path: path '.' path             { $$ = yyrts_operator('.', $1, $3); }
    | path ARROW path           { $$ = yyrts_operator(ARROW, $1, $3); }
    | NAME                      { $$ = yyrts_identifier($1); }
    | CONTEXT                   { $$ = yyrts_context_operator($1); }
    ;

address: IPV4                   { $$ = yyrts_ipv4_address($1); }
    | IPV6                      { $$ = yyrts_ipv6_address($1); }
    ;

%%

static void yyfreestack(YYSTACKDATA *);

/* The parser frees its stack when it returns, but not when a jump leaves it. */
void yyrts_free_stack(void)
{
    yyfreestack(&yystack);
}
