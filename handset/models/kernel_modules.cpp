// Module load and unload; see kernel_modules.h.

#include "handset/models/kernel_modules.h"

#include <errno.h>

namespace handset {

void KernelModules::set_loaded(const std::string& name, bool loaded) {
  const std::lock_guard lock(mutex_);
  if (loaded) {
    loaded_.insert(name);
  } else {
    loaded_.erase(name);
  }
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

// A module names itself in its information section: "name=NAME" and a zero byte.
std::string KernelModules::name(const std::string& image) {
  const size_t start = image.find("name=");
  if (start == std::string::npos) {
    return "";
  }
  const size_t begin = start + 5;
  const size_t end = image.find_first_of(std::string("\0\n", 2), begin);
  return image.substr(begin, end == std::string::npos ? end : end - begin);
}

int KernelModules::load(const std::string& image, const std::string& parameters) {
  const std::string loaded = name(image);
  const std::lock_guard lock(mutex_);
  calls_.push_back({.what = "load", .name = loaded, .parameters = parameters});
  if (loaded.empty()) {
    return -ENOEXEC;
  }
  return loaded_.insert(loaded).second ? 0 : -EEXIST;
}

int KernelModules::unload(const std::string& name, uint64_t flags) {
  const std::lock_guard lock(mutex_);
  calls_.push_back({.what = "unload", .name = name, .flags = flags});
  if (loaded_.count(name) == 0) {
    return -ENOENT;
  }
  if (const auto failure = failures_.find(name);
      failure != failures_.end() && failure->second.times > 0) {
    --failure->second.times;
    return -failure->second.error;
  }
  loaded_.erase(name);
  return 0;
}

}  // namespace handset
