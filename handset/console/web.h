// The page: a web server that shows the phones of this handset in browsers. Its own threads answer
// requests; what needs the thread that made the phones is done by that one in go_on.
//
//   GET  /                          the page, which finds its other files beside it
//   GET  /commands.json             the command table
//   GET  /phones                    what there is: phones, dot commands, broken phones
//   GET  /events                    an event stream with the states of all phones
//   GET  /phones/N/events           the same of one phone, with its journal and its line
//   GET  /phones/N/panel.png?every=K    what the panel shows, every K-th pixel
//   GET  /phones/N/journal.txt      the journal as far as it is kept
//   POST /phones/N/line             carries out a line, as the control socket does
//
// Only pages that it has served itself are listened to: a request that names another host, or that
// comes from another origin, is refused.

#pragma once

#include <httplib.h>
#include <poll.h>

#include <atomic>
#include <chrono>
#include <list>
#include <string>
#include <thread>
#include <vector>

#include "handset/console/session.h"
#include "handset/console/web_feed.h"
#include "handset/console/web_lines.h"

namespace handset {

class Web {
 public:
  // Serves at a place "PORT" or "ADDRESS:PORT", port 0 for any that is free. Throws
  // std::runtime_error when that cannot be, or files of the page are missing.
  Web(const std::string& place, const std::vector<SharedPhone*>& phones);
  ~Web();
  Web(const Web&) = delete;
  Web& operator=(const Web&) = delete;

  // Where a browser finds it: "http://127.0.0.1:8080/".
  const std::string& url() const {
    return url_;
  }

  // On the thread that made the phones.

  pollfd polled() const {
    return {lines_.descriptor(), POLLIN, 0};
  }
  // Carries out what pages ask for and takes up what they want to know. It is to be called every
  // kLook while watched, and soon while busy.
  void go_on();
  bool busy() const {
    return lines_.busy();
  }
  bool watched() const;
  static constexpr std::chrono::milliseconds kLook{50};

  // The handset has something to say of a phone, from 0.
  void note(size_t phone, const std::string& text);

 private:
  struct Phone {
    explicit Phone(SharedPhone* phone) : shared(phone), feed(phone) {}

    SharedPhone* shared;
    WebFeed feed;
  };

  void add_file(const std::string& path, const std::string& name, const std::string& type);
  void add_phone(const std::string& path, Phone* phone);
  void tell_phones(httplib::Response* response) const;
  void stream(const httplib::Request& request, httplib::Response* response,
              const std::vector<Phone*>& phones, bool whole);

  std::list<Phone> phones_;
  WebLines lines_;
  httplib::Server server_;
  std::string url_;
  std::atomic<bool> ending_ = false;
  std::atomic<int> streams_ = 0;
  std::chrono::steady_clock::time_point looked_;
  std::thread thread_;
};

}  // namespace handset
