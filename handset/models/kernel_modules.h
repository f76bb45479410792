// The kernel's module loader: what is loaded, and how load and unload answer. Callable from any
// thread.

#pragma once

#include <map>
#include <mutex>
#include <set>
#include <string>
#include <vector>

#include "handset/links/supervisor.h"

namespace handset {

class KernelModules {
 public:
  struct Call {
    std::string what;  // "load" or "unload"
    std::string name;
    std::string parameters = {};  // of a load
    uint64_t flags = 0;           // of an unload
    bool operator==(const Call&) const = default;
  };

  void set_loaded(const std::string& name, bool loaded);
  bool loaded(const std::string& name) const;

  // The next unloads of the module answer EAGAIN, this many times.
  void keep_busy(const std::string& name, int times);

  // The calls so far, in order.
  std::vector<Call> calls() const;

  Answer init_module(const TrappedCall& call);
  Answer finit_module(const TrappedCall& call);
  Answer delete_module(const TrappedCall& call);

 private:
  Answer load(const TrappedCall& call, const std::string& image, const std::string& parameters);

  mutable std::mutex mutex_;
  std::set<std::string> loaded_;
  std::map<std::string, int> busy_;
  std::vector<Call> calls_;
};

}  // namespace handset
