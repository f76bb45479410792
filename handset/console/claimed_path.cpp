// Claims and links; see claimed_path.h.

#include "handset/console/claimed_path.h"

#include <string.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <filesystem>
#include <functional>
#include <stdexcept>
#include <system_error>

namespace handset {

namespace fs = std::filesystem;

// A claim is a socket of an abstract name: it lies in no folder, so that nothing is left of it.
ClaimedPath::ClaimedPath(const std::string& path)
    : path_(fs::weakly_canonical(fs::absolute(path).parent_path()) / fs::path(path).filename()) {
  const std::string name = "ftm-handset." + std::to_string(std::hash<std::string>()(path_));
  sockaddr_un address = {};
  address.sun_family = AF_UNIX;
  name.copy(address.sun_path + 1, sizeof(address.sun_path) - 1);
  const auto size = static_cast<socklen_t>(offsetof(sockaddr_un, sun_path) + 1 + name.size());
  lock_ = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
  if (lock_ < 0 || bind(lock_, reinterpret_cast<const sockaddr*>(&address), size) != 0) {
    close(lock_);
    throw std::runtime_error("another handset has " + path);
  }
}

ClaimedPath::~ClaimedPath() {
  close(lock_);
}

TtyLink::TtyLink(const std::string& path, const std::string& tty) : claim_(path), tty_(tty) {
  std::error_code error;
  const fs::path left = fs::read_symlink(claim_.path(), error);
  if (!error && left.string().starts_with("/dev/pts/")) {
    fs::remove(claim_.path(), error);
  }
  fs::create_symlink(tty_, claim_.path(), error);
  if (error) {
    throw std::runtime_error("cannot make the link " + path + ": " + error.message());
  }
}

TtyLink::~TtyLink() {
  std::error_code none;
  if (fs::read_symlink(claim_.path(), none) == tty_) {
    fs::remove(claim_.path(), none);
  }
}

}  // namespace handset
