/*
 * keldctl: the operator's tool. What its commands share.
 *
 * Every command returns the exit status: 0, or 1 after one line on standard error that says what to do.
 */
#pragma once

/* "keldctl: TEXT" on standard error, one line. Always 1. */
[[gnu::format(printf, 1, 2)]] int keldctl_fail(const char *format, ...);

/* keldctl check [FILE]: file is null for the configuration that keld -C checks. */
int keldctl_check(const char *file);
/* keldctl commit FILE. */
int keldctl_commit(const char *file);
/* keldctl show [--xml] WORD...: words are the count arguments behind "show". */
int keldctl_show(int count, char **words);
