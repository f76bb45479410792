// The socket and its clients; see control.h.

#include "handset/console/control.h"

#include <errno.h>
#include <string.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

#include <stdexcept>

namespace handset {

constexpr size_t kMostClients = 32;

static sockaddr_un address_of(const std::string& path) {
  sockaddr_un address = {};
  address.sun_family = AF_UNIX;
  if (path.size() >= sizeof(address.sun_path)) {
    throw std::runtime_error("too long a path for a socket: " + path);
  }
  path.copy(address.sun_path, path.size());
  return address;
}

// A socket at which nobody listens any more.
static bool is_left_over(const sockaddr_un& address) {
  struct stat status;
  if (lstat(address.sun_path, &status) != 0 || !S_ISSOCK(status.st_mode)) {
    return false;
  }
  const int probe = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
  const bool refused =
      connect(probe, reinterpret_cast<const sockaddr*>(&address), sizeof(address)) != 0 &&
      errno == ECONNREFUSED;
  close(probe);
  return refused;
}

Control::Control(const std::string& path, SharedPhone* phone) : claim_(path), phone_(phone) {
  const sockaddr_un address = address_of(claim_.path());
  if (is_left_over(address)) {
    unlink(address.sun_path);
  }
  listener_ = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0);
  const mode_t mask = umask(077);
  const bool bound =
      bind(listener_, reinterpret_cast<const sockaddr*>(&address), sizeof(address)) == 0;
  const int error = errno;
  umask(mask);
  if (!bound || listen(listener_, static_cast<int>(kMostClients)) != 0) {
    close(listener_);
    throw std::runtime_error("cannot make the socket " + path + ": " + strerror(error));
  }
}

Control::~Control() {
  close(listener_);
  unlink(claim_.path().c_str());
}

void Control::add_polled(std::vector<pollfd>* polled) const {
  polled->push_back({listener_, POLLIN, 0});
  for (const ControlClient& client : clients_) {
    polled->push_back({client.polled_socket(), client.polled_events(), 0});
  }
}

const pollfd* Control::go_on(const pollfd* polled) {
  const bool knocked = polled->revents != 0;
  ++polled;
  for (auto client = clients_.begin(); client != clients_.end(); ++polled) {
    client = client->go_on(polled->revents) ? std::next(client) : clients_.erase(client);
  }
  if (knocked) {
    accept_client();
  }
  return polled;
}

void Control::accept_client() {
  const int client = accept4(listener_, nullptr, nullptr, SOCK_CLOEXEC | SOCK_NONBLOCK);
  if (client < 0) {
    return;
  }
  if (clients_.size() < kMostClients) {
    clients_.emplace_back(client, phone_);
    return;
  }
  static const char kFull[] = " no more clients are served\nfailed\n";
  send(client, kFull, strlen(kFull), MSG_NOSIGNAL | MSG_DONTWAIT);
  close(client);
}

bool Control::busy() const {
  for (const ControlClient& client : clients_) {
    if (client.busy()) {
      return true;
    }
  }
  return false;
}

}  // namespace handset
