/*
 * Files that must survive a crash: each step is whole or not there.
 *
 * Results: true, or false with errno. Paths are used as they are.
 */
#pragma once

#include <string>

/* The contents of the file at path. EFBIG if it is longer than a configuration may be. */
[[nodiscard]] bool file_read(const std::string &path, std::string *text);
/* Makes the file at path hold text, readable by its owner only, by way of PATH.tmp: under path stands the old contents
 * or the new, on the disk too once this is true. */
[[nodiscard]] bool file_replace(const std::string &path, const std::string &text);
/* Makes copy a second name of the file at path, in place of what stood there. True too if there is no such file. */
[[nodiscard]] bool file_keep(const std::string &path, const std::string &copy);
/* Moves from to to, in place of what stood there, and waits until the folder is on the disk. One folder holds both. */
[[nodiscard]] bool file_move(const std::string &from, const std::string &to);
/* Waits up to some seconds for the lock of fd. EWOULDBLOCK if another process still holds it. */
[[nodiscard]] bool file_lock(int fd);
