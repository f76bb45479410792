// The phone's kernel nodes: everything below /sys and /proc, served over FUSE. A read gives the
// node's value, one write is one store of its exact bytes. Callable from any thread; the functions
// given to on_read and on_write run on a FUSE thread.

#pragma once

#include <sys/types.h>

#include <functional>
#include <map>
#include <mutex>
#include <optional>
#include <string>
#include <thread>
#include <vector>

namespace handset {

class Nodes {
 public:
  enum class Operation { kOpen, kRead, kWrite };

  ~Nodes();

  // Makes the node or changes its value. Paths are absolute and begin with /sys or /proc.
  void set(const std::string& path, const std::string& value);
  // What a write of the phone makes of the node's value: gone with a restart.
  void store(const std::string& path, const std::string& value);
  // The node's value, or nothing when there is no such node.
  std::optional<std::string> value(const std::string& path) const;
  void remove(const std::string& path);
  // The nodes that the phone has written get the values back that they had before, or were given
  // since: what a restart of the kernel does.
  void restart();

  // Makes an operation fail with an errno from now on; 0 makes it work again.
  void fail(const std::string& path, Operation operation, int error);

  // Answers reads (writes) of the node from a function instead. on_write's function gets the stored
  // bytes and returns 0 or a negative errno.
  void on_read(const std::string& path, std::function<std::string()> function);
  void on_write(const std::string& path, std::function<int(const std::string&)> function);

  // Runs a function before a process opens, reads or writes a node, which waits for it. Set before
  // serve.
  void before_access(std::function<void()> function) {
    before_access_ = std::move(function);
  }

  // In such a function that waits: true when the process that asks has been ended, so that nobody
  // waits for the answer any more.
  static bool caller_interrupted();

  std::vector<std::string> paths() const;

  // Serves the FUSE file system behind the descriptor (taken over) until its mount is gone.
  void serve(int fuse_fd);
  void wait_unmounted();

 private:
  friend struct NodeOperations;

  struct Node {
    std::string value;
    std::optional<std::string> before;  // the phone's first write, since the value was given
    mode_t mode = 0644;
    std::map<Operation, int> failing;
    std::function<std::string()> read;
    std::function<int(const std::string&)> write;
  };

  mutable std::mutex mutex_;
  std::map<std::string, Node> nodes_;
  std::function<void()> before_access_ = [] {};
  std::thread server_;
};

}  // namespace handset
