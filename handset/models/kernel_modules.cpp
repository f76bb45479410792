// Module load and unload; see kernel_modules.h.

#include "handset/models/kernel_modules.h"

#include <errno.h>

#include <fstream>
#include <iterator>

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
static std::string module_name(const std::string& image) {
  const size_t start = image.find("name=");
  if (start == std::string::npos) {
    return "";
  }
  const size_t begin = start + 5;
  const size_t end = image.find_first_of(std::string("\0\n", 2), begin);
  return image.substr(begin, end == std::string::npos ? end : end - begin);
}

Answer KernelModules::load(const std::string& image, const std::string& parameters) {
  const std::string name = module_name(image);
  const std::lock_guard lock(mutex_);
  calls_.push_back({.what = "load", .name = name, .parameters = parameters});
  if (name.empty()) {
    return Answer::result(-ENOEXEC);
  }
  return Answer::result(loaded_.insert(name).second ? 0 : -EEXIST);
}

Answer KernelModules::init_module(const TrappedCall& call) {
  constexpr uint64_t kLargest = 64U << 20;
  std::string image(call.arguments[1] > kLargest ? 0 : call.arguments[1], '\0');
  if (!call.read(call.arguments[0], image.data(), image.size())) {
    return Answer::result(-EFAULT);
  }
  return load(image, call.text(call.arguments[2]));
}

Answer KernelModules::finit_module(const TrappedCall& call) {
  std::ifstream file("/proc/" + std::to_string(call.thread) + "/fd/" +
                     std::to_string(call.descriptor()));
  const std::string image{std::istreambuf_iterator<char>(file), {}};
  return load(image, call.text(call.arguments[1]));
}

Answer KernelModules::delete_module(const TrappedCall& call) {
  const std::string name = call.text(call.arguments[0]);
  const std::lock_guard lock(mutex_);
  calls_.push_back({.what = "unload", .name = name, .flags = call.arguments[1]});
  if (loaded_.count(name) == 0) {
    return Answer::result(-ENOENT);
  }
  if (const auto failure = failures_.find(name);
      failure != failures_.end() && failure->second.times > 0) {
    --failure->second.times;
    return Answer::result(-failure->second.error);
  }
  loaded_.erase(name);
  return Answer::result(0);
}

}  // namespace handset
