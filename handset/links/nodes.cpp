// The FUSE file system behind the nodes; see nodes.h.

#define FUSE_USE_VERSION 312

#include "handset/links/nodes.h"

#include <errno.h>
#include <fuse.h>
#include <fuse_lowlevel.h>
#include <string.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <memory>
#include <stdexcept>
#include <string_view>
#include <utility>

#include "handset/links/stage.h"

namespace handset {

// The file system's operations. Kernel caches are off: a value that a test sets is seen at once.
struct NodeOperations {
  static Nodes* nodes() {
    return static_cast<Nodes*>(fuse_get_context()->private_data);
  }

  static bool is_folder(const Nodes& nodes, const std::string& path) {
    const std::string below = path == "/" ? "/" : path + "/";
    const auto next = nodes.nodes_.lower_bound(below);
    return (next != nodes.nodes_.end() && next->first.compare(0, below.size(), below) == 0) ||
           path == "/" || path == "/sys" || path == "/proc";
  }

  // Processes are the host's: links to its procfs, which the sanitizers' runtimes read.
  static bool is_link(const std::string& path) {
    static const std::string kProc = "/proc/";
    return path == "/proc/self" || path == "/proc/thread-self" ||
           (path.size() > kProc.size() && path.compare(0, kProc.size(), kProc) == 0 &&
            path.find_first_not_of("0123456789", kProc.size()) == std::string::npos);
  }

  static void* init(fuse_conn_info*, fuse_config* config) {
    config->attr_timeout = 0;
    config->entry_timeout = 0;
    config->negative_timeout = 0;
    config->direct_io = 1;
    return fuse_get_context()->private_data;
  }

  static int getattr(const char* path, struct stat* status, fuse_file_info*) {
    Nodes& all = *nodes();
    const std::lock_guard lock(all.mutex_);
    memset(status, 0, sizeof(*status));
    status->st_nlink = 1;
    if (const auto node = all.nodes_.find(path); node != all.nodes_.end()) {
      status->st_mode = S_IFREG | node->second.mode;
      // What sysfs says of an attribute, whatever it holds, and procfs of a file.
      status->st_size = std::string_view(path).starts_with("/sys/") ? 4096 : 0;
    } else if (is_link(path)) {
      status->st_mode = S_IFLNK | 0777;
    } else if (is_folder(all, path)) {
      status->st_mode = S_IFDIR | 0755;
    } else {
      return -ENOENT;
    }
    return 0;
  }

  static int readlink(const char* path, char* target, size_t size) {
    const std::string real = std::string(kRealProc) + (path + strlen("/proc"));
    snprintf(target, size, "%s", real.c_str());
    return 0;
  }

  static int readdir(const char* path, void* buffer, fuse_fill_dir_t fill, off_t, fuse_file_info*,
                     fuse_readdir_flags) {
    Nodes& all = *nodes();
    const std::lock_guard lock(all.mutex_);
    const std::string folder = strcmp(path, "/") == 0 ? "/" : std::string(path) + "/";
    std::string last;
    const auto none = static_cast<fuse_fill_dir_flags>(0);
    for (auto it = all.nodes_.lower_bound(folder);
         it != all.nodes_.end() && it->first.compare(0, folder.size(), folder) == 0; ++it) {
      const std::string rest = it->first.substr(folder.size());
      const std::string name = rest.substr(0, rest.find('/'));
      if (name != std::exchange(last, name)) {
        fill(buffer, name.c_str(), nullptr, 0, none);
      }
    }
    return 0;
  }

  static int open(const char* path, fuse_file_info*) {
    return failure(path, Nodes::Operation::kOpen);
  }

  // What each access begins with.
  static int failure(const char* path, Nodes::Operation operation) {
    Nodes& all = *nodes();
    all.before_access_();
    const std::lock_guard lock(all.mutex_);
    const auto node = all.nodes_.find(path);
    if (node == all.nodes_.end()) {
      return -ENOENT;
    }
    const auto error = node->second.failing.find(operation);
    return error == node->second.failing.end() ? 0 : -error->second;
  }

  static int read(const char* path, char* buffer, size_t size, off_t offset, fuse_file_info*) {
    if (const int error = failure(path, Nodes::Operation::kRead); error != 0) {
      return error;
    }
    Nodes& all = *nodes();
    std::unique_lock lock(all.mutex_);
    Nodes::Node node = all.nodes_[path];
    lock.unlock();
    // What a function gives is given once: the rest of a read text does not ask it again.
    if (node.read && offset == 0) {
      node.value = node.read();
      lock.lock();
      if (const auto read = all.nodes_.find(path); read != all.nodes_.end()) {
        read->second.value = node.value;
      }
      lock.unlock();
    }
    const std::string& value = node.value;
    const size_t start = std::min(static_cast<size_t>(offset), value.size());
    const size_t count = std::min(size, value.size() - start);
    std::copy_n(value.data() + start, count, buffer);
    return static_cast<int>(count);
  }

  static int write(const char* path, const char* data, size_t size, off_t, fuse_file_info*) {
    if (const int error = failure(path, Nodes::Operation::kWrite); error != 0) {
      return error;
    }
    Nodes& all = *nodes();
    const std::string bytes(data, size);
    std::unique_lock lock(all.mutex_);
    const auto node = all.nodes_.find(path);
    if (node == all.nodes_.end()) {
      return -ENOENT;
    }
    if (!node->second.write) {
      node->second.before = node->second.before.value_or(node->second.value);
      node->second.value = bytes;
      return static_cast<int>(size);
    }
    const auto store = node->second.write;
    lock.unlock();
    const int error = store(bytes);
    return error == 0 ? static_cast<int>(size) : error;
  }

  static int truncate(const char*, off_t, fuse_file_info*) {
    return 0;  // a shell's ">" truncates first; a node has nothing to cut
  }

  static int chmod(const char* path, mode_t mode, fuse_file_info*) {
    Nodes& all = *nodes();
    const std::lock_guard lock(all.mutex_);
    const auto node = all.nodes_.find(path);
    if (node == all.nodes_.end()) {
      return -ENOENT;
    }
    node->second.mode = mode & 07777;
    return 0;
  }

  static fuse_operations table() {
    fuse_operations operations = {};
    operations.init = init;
    operations.getattr = getattr;
    operations.readlink = readlink;
    operations.readdir = readdir;
    operations.open = open;
    operations.read = read;
    operations.write = write;
    operations.truncate = truncate;
    operations.chmod = chmod;
    return operations;
  }
};

Nodes::~Nodes() {
  wait_unmounted();
}

void Nodes::set(const std::string& path, const std::string& value) {
  const std::lock_guard lock(mutex_);
  nodes_[path].value = value;
  nodes_[path].before.reset();
}

void Nodes::store(const std::string& path, const std::string& value) {
  const std::lock_guard lock(mutex_);
  Node& node = nodes_[path];
  node.before = node.before.value_or(node.value);
  node.value = value;
}

std::optional<std::string> Nodes::value(const std::string& path) const {
  const std::lock_guard lock(mutex_);
  const auto node = nodes_.find(path);
  if (node == nodes_.end()) {
    return std::nullopt;
  }
  return node->second.value;
}

void Nodes::remove(const std::string& path) {
  const std::lock_guard lock(mutex_);
  nodes_.erase(path);
}

void Nodes::restart() {
  const std::lock_guard lock(mutex_);
  for (auto& [path, node] : nodes_) {
    if (node.before.has_value()) {
      node.value = *std::exchange(node.before, std::nullopt);
    }
    node.mode = Node().mode;
  }
}

void Nodes::fail(const std::string& path, Operation operation, int error) {
  const std::lock_guard lock(mutex_);
  if (error == 0) {
    nodes_[path].failing.erase(operation);
  } else {
    nodes_[path].failing[operation] = error;
  }
}

void Nodes::on_read(const std::string& path, std::function<std::string()> function) {
  const std::lock_guard lock(mutex_);
  nodes_[path].read = std::move(function);
}

void Nodes::on_write(const std::string& path, std::function<int(const std::string&)> function) {
  const std::lock_guard lock(mutex_);
  nodes_[path].write = std::move(function);
}

bool Nodes::caller_interrupted() {
  return fuse_interrupted() != 0;
}

std::vector<std::string> Nodes::paths() const {
  const std::lock_guard lock(mutex_);
  std::vector<std::string> all;
  for (const auto& [path, node] : nodes_) {
    all.push_back(path);
  }
  return all;
}

// More than can wait in a node at a time: a suspend lasts until the phone wakes.
static constexpr int kWorkers = 8;

// The library's own bound: its header's page, and 256 pages of data.
static constexpr size_t kMostRequest = 4096 + 256 * 4096;

// Until the mount is gone. Not the library's own loop: it cancels its threads, also in the middle
// of a message on standard error, whose lock then stays taken. Nor its own read, which writes such
// a message when the mount goes while it waits.
static void answer_requests(fuse_session* session) {
  const auto memory = std::make_unique_for_overwrite<char[]>(kMostRequest);
  for (;;) {
    const ssize_t size = read(fuse_session_fd(session), memory.get(), kMostRequest);
    if (size > 0) {
      fuse_buf request = {};
      request.mem = memory.get();
      request.size = static_cast<size_t>(size);
      fuse_session_process_buf(session, &request);
    } else if (size == 0 || (errno != EINTR && errno != EAGAIN && errno != ENOENT)) {
      break;
    }
  }
}

void Nodes::serve(int fuse_fd) {
  wait_unmounted();
  server_ = std::thread([this, fuse_fd] {
    const fuse_operations operations = NodeOperations::table();
    char name[] = "handset";
    char* arguments[] = {name, nullptr};
    fuse_args args = FUSE_ARGS_INIT(1, arguments);
    fuse* server = fuse_new(&args, &operations, sizeof(operations), this);
    fuse_opt_free_args(&args);
    if (server == nullptr) {
      return;
    }
    // The stage has mounted it already: this form only takes over the descriptor.
    const std::string mounted = "/dev/fd/" + std::to_string(fuse_fd);
    if (fuse_mount(server, mounted.c_str()) == 0) {
      std::vector<std::thread> workers;
      workers.reserve(kWorkers);
      for (int i = 0; i < kWorkers; ++i) {
        workers.emplace_back(answer_requests, fuse_get_session(server));
      }
      for (std::thread& worker : workers) {
        worker.join();
      }
      fuse_unmount(server);
    }
    fuse_destroy(server);
  });
}

void Nodes::wait_unmounted() {
  if (server_.joinable()) {
    server_.join();
  }
}

}  // namespace handset
