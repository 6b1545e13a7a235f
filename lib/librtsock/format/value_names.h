/*
 * Names by value. Internal to the rendering.
 */
#pragma once

#include <span>

/* names[value], or the last name for what lies outside. names is not empty. */
const char *format_name_of(std::span<const char *const> names, int value);
