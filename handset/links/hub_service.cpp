// Socket, packets and time of the sensor client service; see hub_service.h.

#include "handset/links/hub_service.h"

#include <errno.h>
#include <poll.h>
#include <string.h>
#include <sys/eventfd.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <algorithm>
#include <cmath>
#include <memory>
#include <stdexcept>
#include <utility>

#include "platform/host/qmi/packet.h"

namespace handset {

using std::chrono::nanoseconds;
using std::chrono::steady_clock;

static constexpr uint16_t kRequestMessage = 0x20;
static constexpr uint16_t kReportMessage = 0x21;

// ---- packets

static std::string number(uint64_t value, size_t size) {
  std::string bytes;
  for (size_t i = 0; i < size; ++i) {
    bytes.push_back(static_cast<char>(value >> (8 * i)));
  }
  return bytes;
}

static std::string field(uint8_t type, const std::string& value) {
  return number(type, 1) + number(value.size(), 2) + value;
}

static std::string packet(qmi::PacketKind kind, uint16_t txn, uint16_t msg_id,
                          const std::string& body) {
  uint8_t head[qmi::kHeadSize];
  qmi::write_head({kind, txn, msg_id, static_cast<uint16_t>(body.size())}, head);
  return std::string(head, head + sizeof(head)) + body;
}

// No error, unless the outcome is left out, the client's id, result 0.
static std::string response(uint16_t txn, bool outcome) {
  return packet(qmi::kResponse, txn, kRequestMessage,
                (outcome ? field(0x02, number(0, 4)) : "") + field(0x10, number(1, 8)) +
                    field(0x11, number(0, 4)));
}

// The client's id, and the payload behind its own length.
static std::string report(const std::string& payload) {
  return packet(qmi::kIndication, 0, kReportMessage,
                field(0x01, number(1, 8)) + field(0x02, number(payload.size(), 2) + payload));
}

// ---- set-up

void HubService::start(const std::filesystem::path& socket, Handler handler) {
  socket_path_ = socket;
  handler_ = std::move(handler);
  wake_ = eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK);
  if (wake_ < 0) {
    throw std::runtime_error(std::string("cannot make an event: ") + strerror(errno));
  }
  open_socket();
  thread_ = std::thread([this] { loop(); });
}

HubService::~HubService() {
  if (thread_.joinable()) {
    {
      const std::lock_guard lock(mutex_);
      ending_ = true;
    }
    wake();
    thread_.join();
  }
  for (const auto& [id, client] : clients_) {
    close(client.fd);
  }
  if (listener_ >= 0) {
    close(listener_);
  }
  if (wake_ >= 0) {
    close(wake_);
  }
}

void HubService::open_socket() {
  sockaddr_un address = {};
  address.sun_family = AF_UNIX;
  const std::string path = socket_path_.string();
  if (path.size() >= sizeof(address.sun_path)) {
    throw std::runtime_error("too long for a socket's path: " + path);
  }
  path.copy(address.sun_path, path.size());
  close_socket();
  listener_ = socket(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC | SOCK_NONBLOCK, 0);
  if (listener_ < 0 ||
      bind(listener_, reinterpret_cast<sockaddr*>(&address), sizeof(address)) != 0 ||
      listen(listener_, 8) != 0) {
    throw std::runtime_error("cannot listen on " + path + ": " + strerror(errno));
  }
}

void HubService::close_socket() {
  if (listener_ >= 0) {
    close(listener_);
    listener_ = -1;
  }
  std::error_code ignored;
  std::filesystem::remove(socket_path_, ignored);
}

HubService::State HubService::state() const {
  const std::lock_guard lock(mutex_);
  return state_;
}

void HubService::set_state(State state) {
  {
    const std::lock_guard lock(mutex_);
    state_ = state;
    if (state == State::kAbsent) {
      close_socket();
    } else {
      open_socket();
    }
    if (state == State::kRefusing) {
      close(listener_);  // its name stays
      listener_ = -1;
    }
  }
  wake();
}

void HubService::set_delay(std::chrono::milliseconds answer) {
  const std::lock_guard lock(mutex_);
  delay_ = answer;
}

void HubService::set_greeting(const std::string& payload) {
  const std::lock_guard lock(mutex_);
  greeting_ = payload;
}

void HubService::set_lifetime(std::chrono::milliseconds time) {
  const std::lock_guard lock(mutex_);
  lifetime_ = time;
}

void HubService::set_spoilt(Spoilt spoilt) {
  const std::lock_guard lock(mutex_);
  spoilt_ = spoilt;
}

// ---- the service's time

HubService::Time HubService::now() const {
  return skips_ > 0 ? stepped_ : steady_clock::now() + skipped_;
}

void HubService::go_to(Time time) {
  stepped_ = std::max(stepped_, time);
}

void HubService::end_skip() {
  const std::lock_guard lock(mutex_);
  if (--skips_ == 0) {
    skipped_ = stepped_ - steady_clock::now();
  }
}

void HubService::wake() const {
  const uint64_t one = 1;
  [[maybe_unused]] const ssize_t written = write(wake_, &one, sizeof(one));
}

// True when neither the service nor a client has anything left to do by now.
bool HubService::settled() const {
  std::vector<pollfd> unread = {{listener_, POLLIN, 0}};
  for (const auto& [id, client] : clients_) {
    if (client.busy) {
      return false;
    }
    unread.push_back({client.fd, POLLIN, 0});
  }
  return (queue_.empty() || queue_.begin()->first > now()) &&
         poll(unread.data(), unread.size(), 0) == 0;
}

void HubService::set_patience(std::chrono::milliseconds patience) {
  const std::lock_guard lock(mutex_);
  patience_ = patience;
}

std::function<bool()> HubService::skip(nanoseconds time) {
  const std::lock_guard lock(mutex_);
  stepped_ = now();
  ++skips_;
  // Ends with the last copy of the function.
  const std::shared_ptr<void> skip(nullptr, [this](void*) { end_skip(); });
  return [this, skip, target = now() + time, give_up = steady_clock::now() + patience_] {
    return skip_towards(target, give_up);
  };
}

bool HubService::skip_towards(Time target, Time give_up) {
  const std::lock_guard lock(mutex_);
  if (!settled()) {
    return steady_clock::now() > give_up;
  }
  if (!queue_.empty() && queue_.begin()->first <= target) {
    go_to(queue_.begin()->first);
    wake();
    return false;
  }
  go_to(target);
  return true;
}

// ---- the service's thread

int HubService::next_timeout() const {
  for (const auto& [due, outgoing] : queue_) {
    const auto client = clients_.find(outgoing.client);
    if (client != clients_.end() && !client->second.busy) {
      const std::chrono::duration<double, std::milli> left = due - now();
      return std::max(0, static_cast<int>(std::ceil(left.count())));
    }
  }
  return -1;
}

void HubService::loop() {
  std::unique_lock lock(mutex_);
  while (!ending_) {
    std::vector<pollfd> polled = {{wake_, POLLIN, 0}, {listener_, POLLIN, 0}};
    std::vector<int> ids;
    for (const auto& [id, client] : clients_) {
      ids.push_back(id);
      polled.push_back({client.fd, POLLIN, 0});
    }
    const int timeout = next_timeout();
    lock.unlock();
    poll(polled.data(), polled.size(), timeout);
    lock.lock();
    uint64_t count = 0;
    [[maybe_unused]] const ssize_t wakes = read(wake_, &count, sizeof(count));
    if (listener_ >= 0) {
      accept_client();
    }
    for (size_t i = 0; i < ids.size(); ++i) {
      if (polled[i + 2].revents != 0) {
        receive(ids[i]);
      }
    }
    send_due();
  }
}

void HubService::accept_client() {
  const int fd = accept4(listener_, nullptr, nullptr, SOCK_CLOEXEC | SOCK_NONBLOCK);
  if (fd >= 0) {
    clients_[++last_client_] = {.fd = fd};
    if (!greeting_.empty()) {
      queue_packet(last_client_, report(greeting_));
    }
    if (lifetime_.count() > 0) {
      queue_.insert({now() + lifetime_, {.client = last_client_, .hang_up = true}});
    }
  }
}

void HubService::drop(int id) {
  close(clients_[id].fd);
  clients_.erase(id);
  std::erase_if(queue_, [id](const auto& queued) { return queued.second.client == id; });
}

void HubService::receive(int id) {
  char bytes[4096];
  const ssize_t size = recv(clients_[id].fd, bytes, sizeof(bytes), 0);
  if (size < 1) {
    if (size == 0 || errno != EAGAIN) {
      drop(id);
    }
    return;
  }
  if (static_cast<size_t>(size) < qmi::kHeadSize) {
    return;
  }
  const qmi::PacketHead head = qmi::read_head(reinterpret_cast<const uint8_t*>(bytes));
  if (head.kind == qmi::kHandled) {
    clients_[id].busy = false;
  } else if (head.kind == qmi::kRequest && head.msg_id == kRequestMessage) {
    answer(id, head.txn,
           std::string(bytes + qmi::kHeadSize, static_cast<size_t>(size) - qmi::kHeadSize));
  }
}

std::string HubService::request_message(const std::string& packet) {
  // Behind both heads and the payload's length.
  constexpr size_t kMessage = qmi::kHeadSize + qmi::kFieldHeadSize + 2;
  const bool is_request = packet.size() > kMessage && packet[0] == qmi::kRequest;
  return is_request ? packet.substr(kMessage) : "";
}

void HubService::answer(int id, uint16_t txn, const std::string& body) {
  constexpr size_t kPayload = qmi::kFieldHeadSize + 2;  // behind the payload's length
  if (body.size() < kPayload) {
    return;
  }
  std::optional<Reply> reply = handler_(body.substr(kPayload));
  if (!reply.has_value()) {
    return;
  }
  queue_packet(id, response(txn, spoilt_ != Spoilt::kResponses));
  for (const std::string& payload : reply->reports) {
    queue_packet(id, report(payload));
  }
  if (reply->stream.has_value()) {
    const nanoseconds period = reply->stream->period;
    queue_.insert({now() + delay_ + period, {.client = id, .stream = std::move(reply->stream)}});
  }
}

void HubService::queue_packet(int id, std::string packet) {
  if (spoilt_ == Spoilt::kHeads) {
    ++packet[qmi::kHeadSize - 2];  // of the length
  }
  queue_.insert({now() + delay_, {.client = id, .packet = std::move(packet)}});
}

// Sends each client the first packet that is due. The next goes out when that has been handled, so
// that no queue fills up on either side.
void HubService::send_due() {
  for (auto next = queue_.begin(); next != queue_.end() && next->first <= now();) {
    Client& client = clients_[next->second.client];
    if (client.busy) {
      ++next;
      continue;
    }
    const Time time = next->first;
    Outgoing due = std::move(next->second);
    next = queue_.erase(next);
    if (due.hang_up) {
      drop(due.client);
      return;  // what else is due comes with the loop's next turn
    }
    if (due.stream.has_value()) {
      const std::optional<std::string> payload = due.stream->next();
      if (!payload.has_value()) {
        continue;
      }
      due.packet = report(*payload);
      queue_.insert({time + due.stream->period, {.client = due.client, .stream = due.stream}});
    }
    client.busy = send(client.fd, due.packet.data(), due.packet.size(), MSG_NOSIGNAL) > 0;
  }
}

}  // namespace handset
