// Files of the phone in memory: the linker leads the daemon's calls on paths here, so that a case
// costs no disk and touches no file of this machine. Paths that no test has set do not exist.

#pragma once

#include <functional>
#include <optional>
#include <string>

// Makes the path a file of this content, a folder for nothing, or lets it be gone again.
void set_file(const std::string& path, const std::string& content);
void set_folder(const std::string& path);
void set_link(const std::string& path, const std::string& to);
void remove_file(const std::string& path);
void remove_all_files();

// The file's content, or nothing when there is none.
std::optional<std::string> file_content(const std::string& path);

// Part of a file, for one that is too long to be set anew for each case; and how much of it takes
// memory, which a write to a place that was never written changes.
void write_part(const std::string& path, size_t offset, const std::string& bytes);
std::string read_part(const std::string& path, size_t offset, size_t size);
size_t used_blocks(const std::string& path);

// Every path that is not set and of which this is true is a file of this content.
void set_files_like(std::function<bool(const std::string&)> is_one, const std::string& content);
