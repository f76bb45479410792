// Module load and unload; see kernel_modules.h.

#include "handset/models/kernel_modules.h"

#include <errno.h>

#include <algorithm>
#include <sstream>

#include "handset/recent.h"

namespace handset {

void KernelModules::set_loaded(const std::string& name, bool loaded) {
  const std::lock_guard lock(mutex_);
  if (loaded) {
    loaded_.insert(name);
  } else {
    loaded_.erase(name);
  }
}

void KernelModules::set_needs(const std::string& name, const std::vector<std::string>& needs) {
  const std::lock_guard lock(mutex_);
  needs_[name] = needs;
}

bool KernelModules::loaded(const std::string& name) const {
  const std::lock_guard lock(mutex_);
  return loaded_.count(name) != 0;
}

void KernelModules::fail(const std::string& name, int error, int times) {
  const std::lock_guard lock(mutex_);
  failures_[name] = {.error = error, .times = times};
}

std::vector<KernelModules::Call> KernelModules::calls() const {
  const std::lock_guard lock(mutex_);
  return calls_;
}

// An entry of the information section: "KEY=VALUE" and a zero byte.
static std::string information(const std::string& image, const std::string& key) {
  const size_t start = image.find(key + "=");
  if (start == std::string::npos) {
    return "";
  }
  const size_t begin = start + key.size() + 1;
  const size_t end = image.find_first_of(std::string("\0\n", 2), begin);
  return image.substr(begin, end == std::string::npos ? end : end - begin);
}

std::string KernelModules::name(const std::string& image) {
  return information(image, "name");
}

std::vector<std::string> KernelModules::needs(const std::string& image) {
  std::istringstream list(information(image, "depends"));
  std::vector<std::string> names;
  for (std::string name; std::getline(list, name, ',');) {
    names.push_back(name);
  }
  return names;
}

int KernelModules::load(const std::string& image, const std::string& parameters) {
  const std::string loaded = name(image);
  const std::lock_guard lock(mutex_);
  add_recent(&calls_, Call{.what = "load", .name = loaded, .parameters = parameters});
  if (loaded.empty()) {
    return -ENOEXEC;
  }
  if (loaded_.count(loaded) != 0) {
    return -EEXIST;
  }
  const std::vector<std::string> needed = needs(image);
  for (const std::string& other : needed) {
    if (loaded_.count(other) == 0) {
      return -ENOENT;  // its symbols are unknown
    }
  }
  needs_[loaded] = needed;
  loaded_.insert(loaded);
  return 0;
}

int KernelModules::unload(const std::string& name, uint64_t flags) {
  const std::lock_guard lock(mutex_);
  add_recent(&calls_, Call{.what = "unload", .name = name, .flags = flags});
  if (loaded_.count(name) == 0) {
    return -ENOENT;
  }
  if (const auto failure = failures_.find(name);
      failure != failures_.end() && failure->second.times > 0) {
    --failure->second.times;
    return -failure->second.error;
  }
  for (const std::string& other : loaded_) {
    const std::vector<std::string>& needed = needs_[other];
    if (std::find(needed.begin(), needed.end(), name) != needed.end()) {
      return -EWOULDBLOCK;
    }
  }
  loaded_.erase(name);
  return 0;
}

}  // namespace handset
