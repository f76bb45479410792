// Files on partitions that others can write, too. Whatever they leave in a file's place, the daemon
// does not wait on it and neither reads nor writes elsewhere: only a regular file, or a folder,
// that lies at the path itself is opened. Callable from any thread.

#pragma once

#include <fcntl.h>
#include <stddef.h>
#include <sys/types.h>

#include "core/unique.h"

// Opens a regular file as open() would, with mode for one that O_CREAT makes. Without a descriptor,
// and with errno, for a link, a folder, a FIFO, a socket or a device, too.
UniqueFd open_regular(const char* path, int flags, mode_t mode = 0);

// Opens a folder to list it; null, with errno, for a link to one, too.
UniqueDir open_folder(const char* path);

// Reads until size bytes are there, the file ends or a read fails. Returns the bytes read.
size_t read_up_to(int fd, void* buffer, size_t size);
