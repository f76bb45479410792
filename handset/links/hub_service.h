// The sensor client service as the phone's QMI clients meet it: a socket in /dev/socket, requests
// in, responses and report indications out, each in its packet. The handler given to start answers
// the messages. Callable from any thread; the service has one of its own.

#pragma once

#include <chrono>
#include <cstdint>
#include <filesystem>
#include <functional>
#include <map>
#include <mutex>
#include <optional>
#include <string>
#include <thread>
#include <vector>

namespace handset {

class HubService {
 public:
  // Reports that come by themselves, the first after one period; next gives each one's payload, or
  // nothing at the stream's end.
  struct Stream {
    std::chrono::nanoseconds period;
    std::function<std::optional<std::string>()> next;
  };
  // What comes of a request: payloads of reports, and a stream that begins behind them.
  struct Reply {
    std::vector<std::string> reports = {};
    std::optional<Stream> stream = {};
  };
  // Answers a request's payload; nothing: the client gets no response at all. Runs, as next does,
  // on the service's thread.
  using Handler = std::function<std::optional<Reply>(const std::string& payload)>;

  enum class State {
    kOpen,
    kRefusing,  // the service is announced and takes no clients
    kAbsent,
  };

  ~HubService();

  // Opens the service's socket. Throws std::runtime_error when it cannot.
  void start(const std::filesystem::path& socket, Handler handler);

  void set_state(State state);
  State state() const;
  // How long each response and report takes.
  void set_delay(std::chrono::milliseconds answer);
  // Each client that connects is first sent this as a report's payload, unless empty.
  void set_greeting(const std::string& payload);
  // Each client that connects is hung up on after this time; 0: none is.
  void set_lifetime(std::chrono::milliseconds time);
  // What is wrong with the packets from now on.
  enum class Spoilt {
    kNothing,
    kResponses,  // they lack their outcome
    kHeads,      // they tell a wrong length
  };
  void set_spoilt(Spoilt spoilt);

  // A client that handles nothing is waited for no longer than that in skip: 10 s unless set.
  void set_patience(std::chrono::milliseconds patience);

  // The service's time goes ahead by this much: what falls due meanwhile is sent and handled by the
  // clients before the returned function (to be asked again and again) says true. As long as that
  // exists, the time takes these steps only, however slow the desk is.
  std::function<bool()> skip(std::chrono::nanoseconds time);

  // The message within a client's request packet; empty for any other packet.
  static std::string request_message(const std::string& packet);

 private:
  using Time = std::chrono::steady_clock::time_point;

  struct Client {
    int fd = -1;
    bool busy = false;  // has been sent a packet that it has not handled yet
  };
  struct Outgoing {
    int client = 0;
    std::string packet = {};
    std::optional<Stream> stream = {};  // instead of a packet: its next report
    bool hang_up = false;               // instead of a packet: the client's end
  };

  void loop();
  void open_socket();
  void close_socket();
  void wake() const;
  Time now() const;
  void go_to(Time time);
  void end_skip();
  int next_timeout() const;
  bool settled() const;
  bool skip_towards(Time target, Time give_up);

  void accept_client();
  void receive(int id);
  void drop(int id);
  void answer(int id, uint16_t txn, const std::string& body);
  void queue_packet(int id, std::string packet);
  void send_due();

  mutable std::mutex mutex_;
  std::filesystem::path socket_path_;
  Handler handler_;
  State state_ = State::kOpen;
  std::chrono::milliseconds delay_{0};
  std::string greeting_;
  std::chrono::milliseconds lifetime_{0};
  Spoilt spoilt_ = Spoilt::kNothing;
  std::chrono::milliseconds patience_{10'000};
  std::chrono::nanoseconds skipped_{0};
  int skips_ = 0;      // under way
  Time stepped_ = {};  // the time while there are any
  std::multimap<Time, Outgoing> queue_;
  std::map<int, Client> clients_;
  int last_client_ = 0;
  int listener_ = -1;
  int wake_ = -1;
  bool ending_ = false;
  std::thread thread_;
};

}  // namespace handset
