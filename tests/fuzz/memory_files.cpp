// The phone's files in memory; see memory_files.h. Each is a memfd that a call opens anew through
// /proc/self/fd, so that places and flags are its own.

#include "tests/fuzz/memory_files.h"

#include <dirent.h>
#include <errno.h>
#include <fcntl.h>
#include <stdarg.h>
#include <stdio.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <unistd.h>

#include <map>
#include <utility>

#include "tests/fuzz/fuzz.h"

static std::map<std::string, int> files;  // -1: a folder
static std::function<bool(const std::string&)> is_like;
static int like = -1;

static void fill(int fd, const std::string& content) {
  expect(ftruncate(fd, 0) == 0 &&
             pwrite(fd, content.data(), content.size(), 0) == static_cast<ssize_t>(content.size()),
         "no memory for a file");
}

static int memory_file() {
  return memfd_create("phone", MFD_CLOEXEC);
}

void set_file(const std::string& path, const std::string& content) {
  const auto [file, added] = files.try_emplace(path, -1);
  if (file->second < 0) {
    file->second = memory_file();
  }
  fill(file->second, content);
}

void set_folder(const std::string& path) {
  files[path] = -1;
}

void set_link(const std::string& path, const std::string& to) {
  files[path] = dup(files.at(to));
}

void remove_file(const std::string& path) {
  const auto file = files.find(path);
  if (file != files.end()) {
    if (file->second >= 0) {
      close(file->second);
    }
    files.erase(file);
  }
}

void remove_all_files() {
  while (!files.empty()) {
    remove_file(std::string(files.begin()->first));
  }
}

std::optional<std::string> file_content(const std::string& path) {
  const auto file = files.find(path);
  struct stat status;
  if (file == files.end() || file->second < 0 || fstat(file->second, &status) != 0) {
    return std::nullopt;
  }
  std::string content(static_cast<size_t>(status.st_size), '\0');
  expect(pread(file->second, content.data(), content.size(), 0) ==
             static_cast<ssize_t>(content.size()),
         "a file cannot be read back");
  return content;
}

void write_part(const std::string& path, size_t offset, const std::string& bytes) {
  expect(pwrite(files.at(path), bytes.data(), bytes.size(), static_cast<off_t>(offset)) ==
             static_cast<ssize_t>(bytes.size()),
         "no memory for a file");
}

std::string read_part(const std::string& path, size_t offset, size_t size) {
  std::string bytes(size, '\0');
  expect(pread(files.at(path), bytes.data(), size, static_cast<off_t>(offset)) ==
             static_cast<ssize_t>(size),
         "a file cannot be read back");
  return bytes;
}

size_t used_blocks(const std::string& path) {
  struct stat status;
  expect(fstat(files.at(path), &status) == 0, "no state of a file");
  return static_cast<size_t>(status.st_blocks);
}

void set_files_like(std::function<bool(const std::string&)> is_one, const std::string& content) {
  is_like = std::move(is_one);
  if (like < 0) {
    like = memory_file();
  }
  fill(like, content);
}

// The memory behind a path, -1 with errno when it is none.
static int memory_of(const std::string& path) {
  const auto file = files.find(path);
  if (file == files.end() && is_like && is_like(path)) {
    return like;
  }
  errno = file == files.end() ? ENOENT : EISDIR;
  return file == files.end() ? -1 : file->second;
}

// The fuzzer's own files are this machine's.
static bool is_phones(const std::string& path) {
  for (const char* folder :
       {"/data/", "/dev/block/", "dev/block/", "/mnt/", "/odm/", "/persist/", "/proc/", "/sys/"}) {
    if (path.starts_with(folder)) {
      return true;
    }
  }
  return false;
}

static std::string way_to(int memory) {
  return "/proc/self/fd/" + std::to_string(memory);
}

// What the linker takes for the calls of the same name (--wrap).
extern "C" {
int __real_open(const char* path, int flags, ...);
FILE* __real_fopen(const char* path, const char* mode);
int __real_access(const char* path, int mode);
int __real_unlink(const char* path);
DIR* __real_opendir(const char* path);

int __wrap_open(const char* path, int flags, ...) {
  if (!is_phones(path)) {
    va_list rest;
    va_start(rest, flags);
    const auto mode = (flags & O_CREAT) != 0 ? va_arg(rest, mode_t) : 0;
    va_end(rest);
    return __real_open(path, flags, mode);
  }
  if ((flags & O_CREAT) != 0 && !files.contains(path)) {
    set_file(path, "");
  }
  const int memory = memory_of(path);
  // The way to a memory is a link.
  return memory < 0 ? -1 : __real_open(way_to(memory).c_str(), flags & ~(O_NOFOLLOW | O_CREAT));
}

FILE* __wrap_fopen(const char* path, const char* mode) {
  if (!is_phones(path)) {
    return __real_fopen(path, mode);
  }
  if (mode[0] == 'w' && !files.contains(path)) {
    set_file(path, "");
  }
  const int memory = memory_of(path);
  return memory < 0 ? nullptr : __real_fopen(way_to(memory).c_str(), mode);
}

int __wrap_access(const char* path, int mode) {
  if (!is_phones(path)) {
    return __real_access(path, mode);
  }
  return files.contains(path) || memory_of(path) >= 0 ? 0 : -1;
}

int __wrap_unlink(const char* path) {
  if (!is_phones(path)) {
    return __real_unlink(path);
  }
  if (!files.contains(path)) {
    errno = ENOENT;
    return -1;
  }
  remove_file(path);
  return 0;
}

DIR* __wrap_opendir(const char* path) {
  if (!is_phones(path)) {
    return __real_opendir(path);
  }
  errno = ENOENT;
  return nullptr;
}

int __wrap_system(const char*) {
  return 0;
}
}
