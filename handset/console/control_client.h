// One client of the control socket; the protocol is described in control.h.

#pragma once

#include <chrono>
#include <cstddef>
#include <sstream>
#include <string>

#include "handset/console/session.h"

namespace handset {

class ControlClient {
 public:
  // Takes over a socket that does not block.
  ControlClient(int socket, SharedPhone* phone);
  ~ControlClient();
  ControlClient(const ControlClient&) = delete;
  ControlClient& operator=(const ControlClient&) = delete;

  // The socket, -1 while there is nothing to be heard of it, and the events to wait for.
  int polled_socket() const;
  short polled_events() const;
  // Reads, goes on with its lines and writes, as far as that goes without waiting. events is what
  // poll has said. False when the client is done with.
  bool go_on(short events);
  bool busy() const {
    return !session_.idle() || follows_;
  }

 private:
  bool wants_input() const;
  bool receive();
  void run_lines();
  void begin(const std::string& line);
  void finish(bool failed);
  void take_output();
  void add_journal();
  void transmit();
  bool stalled();

  int socket_;
  SharedPhone& phone_;
  std::ostringstream out_;  // the session's
  Session session_;
  std::string input_;     // not begun yet
  std::string unsent_;    // not taken by the socket yet
  bool in_line_ = false;  // the end of a line is still to be told
  bool input_ended_ = false;
  bool gone_ = false;  // nobody takes what is sent
  bool follows_ = false;
  size_t followed_ = 0;  // entries of the journal
  std::chrono::steady_clock::time_point last_sent_;
};

}  // namespace handset
