/*
 * Shows compiled filters.
 */
#pragma once

#include <stddef.h>
#include <stdio.h>

/* Prints the program in a block of size octets, an instruction a line: offset, code, what it is, its operand, and for
 * the left operand of && and || where evaluation goes on at which value. False if the block is damaged; then what
 * stands in front of the damage has been printed. */
bool listing_print(FILE *out, const void *block, size_t size);

/* Prints the program's octets, head included, in hexadecimal, 16 a line. False, and nothing printed, as above. */
bool listing_print_octets(FILE *out, const void *block, size_t size);
