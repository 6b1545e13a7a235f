/*
 * Files that must survive a crash: each step is whole or not there.
 *
 * Results: true, or false with errno. Paths are used as they are.
 */
#pragma once

#include <string>

/* The contents of the file or pipe at path, opened with these flags beside O_RDONLY. Of what is longer than a
 * configuration may be, only enough to see that it is. */
[[nodiscard]] bool file_read(const std::string &path, int flags, std::string *text);
/* Makes the file at path hold text, readable by its owner only, by way of PATH.tmp: under path stands the old contents
 * or the new, and the old if this is false. The new contents are on the disk, their name not yet. */
[[nodiscard]] bool file_replace(const std::string &path, const std::string &text);
/* Makes copy a second name of the file at path, in place of what stood there. True too if there is no such file. */
[[nodiscard]] bool file_keep(const std::string &path, const std::string &copy);
/* Waits until the names in the folder of path are on the disk. */
[[nodiscard]] bool file_sync_name(const std::string &path);
/* Waits up to some seconds for the lock of fd. EWOULDBLOCK if another process still holds it. */
[[nodiscard]] bool file_lock(int fd);
