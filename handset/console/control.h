// The control socket, through which other programs use a running phone as a person uses its
// console. The protocol:
//
//   A Unix stream socket that only the user of the handset may open. Each client has a session.
//   A client sends lines as the console takes them, each with "\n" behind it: AT commands and dot
//   lines. They are done one by one, in order; the clients' lines among each other as they come.
//   The serial line is one: a program on its tty sees the replies to a client's AT commands, too.
//   What comes of a line is sent as lines with a blank before each, as it comes.
//   Then comes the line "ok", or "failed" when the line could not be carried out.
//   ".follow" also sends, from its "ok" on, each entry of the journal as it is made.
//   ".quit" closes; a client that stops sending is served to its last line and then closed.
//   A line has at most 65536 bytes. A client that sends a longer one, takes nothing for 10 seconds
//   or lets 4 MiB gather is closed. 32 clients at most are served at once.
//
// On the thread that made the phone.

#pragma once

#include <poll.h>

#include <list>
#include <string>
#include <vector>

#include "handset/console/claimed_path.h"
#include "handset/console/control_client.h"
#include "handset/console/session.h"

namespace handset {

class Control {
 public:
  // Takes the place of a socket that a killed handset left. Throws std::runtime_error when anything
  // else is there, or the socket cannot be made.
  Control(const std::string& path, SharedPhone* phone);
  ~Control();
  Control(const Control&) = delete;
  Control& operator=(const Control&) = delete;

  // Adds what poll is to wait for.
  void add_polled(std::vector<pollfd>* polled) const;
  // Serves everybody, given the first of the descriptors that the last add_polled added. Returns
  // the place behind the last of them.
  const pollfd* go_on(const pollfd* polled);
  // Somebody's line is under way: go_on is to be called soon, whatever poll says.
  bool busy() const;

 private:
  void accept_client();

  ClaimedPath claim_;
  SharedPhone* phone_;
  int listener_ = -1;
  std::list<ControlClient> clients_;
};

}  // namespace handset
