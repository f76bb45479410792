// Opening what others can replace; see shared_files.h.

#include "core/shared_files.h"

#include <errno.h>
#include <sys/stat.h>
#include <unistd.h>

UniqueFd open_regular(const char* path, int flags, mode_t mode) {
  // What it holds goes only once it is known to be a file.
  UniqueFd fd(open(path, (flags & ~O_TRUNC) | O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC, mode));
  struct stat status = {};
  if (fd.ok() && (fstat(fd.get(), &status) != 0 || !S_ISREG(status.st_mode))) {
    fd.reset();
    errno = S_ISDIR(status.st_mode) ? EISDIR : ENXIO;
  } else if (fd.ok() && (flags & O_TRUNC) != 0 && status.st_size > 0 &&
             ftruncate(fd.get(), 0) != 0) {
    const int error = errno;
    fd.reset();
    errno = error;
  }
  return fd;
}

UniqueDir open_folder(const char* path) {
  UniqueFd fd(open(path, O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC));
  UniqueDir folder(fd.ok() ? fdopendir(fd.get()) : nullptr);
  if (folder != nullptr) {
    fd.release();
  }
  return folder;
}

size_t read_up_to(int fd, void* buffer, size_t size) {
  size_t filled = 0;
  while (filled < size) {
    const ssize_t count = read(fd, static_cast<char*>(buffer) + filled, size - filled);
    if (count < 1) {
      break;
    }
    filled += static_cast<size_t>(count);
  }
  return filled;
}
