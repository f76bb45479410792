// The kernel's module loader: what is loaded, who needs whom, and how load and unload answer.
// Callable from any thread.

#pragma once

#include <cstdint>
#include <map>
#include <mutex>
#include <set>
#include <string>
#include <vector>

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
  // The modules that it needs; a load takes them from the image.
  void set_needs(const std::string& name, const std::vector<std::string>& needs);
  bool loaded(const std::string& name) const;

  // The next unloads of the module fail with an errno, this many times.
  void fail(const std::string& name, int error, int times);

  // The latest calls, 100,000 at most, in order.
  std::vector<Call> calls() const;

  // What a module's image tells in its information section: its name (empty for an image that is
  // none) and the modules that it needs.
  static std::string name(const std::string& image);
  static std::vector<std::string> needs(const std::string& image);
  // Answer a load of a module's image and an unload: 0 or a negative errno. An image is refused
  // where a module that it needs is not loaded, an unload while another loaded module needs it. The
  // parameters and flags (O_NONBLOCK, O_TRUNC) are only recorded.
  int load(const std::string& image, const std::string& parameters);
  int unload(const std::string& name, uint64_t flags);

 private:
  struct Failure {
    int error;
    int times;
  };

  mutable std::mutex mutex_;
  std::set<std::string> loaded_;
  std::map<std::string, std::vector<std::string>> needs_;
  std::map<std::string, Failure> failures_;
  std::vector<Call> calls_;
};

}  // namespace handset
