// The loop of the served phones; see serve.h.

#include "handset/console/serve.h"

#include <poll.h>
#include <sys/resource.h>

#include <iostream>
#include <list>
#include <optional>
#include <string>
#include <vector>

#include "handset/console/batch.h"
#include "handset/console/control.h"
#include "handset/console/ending.h"
#include "handset/console/started_phone.h"
#include "handset/console/web.h"

namespace handset {

namespace {

struct Served {
  Served(const Options& options, int number) : started(options, number) {
    if (!options.control.empty()) {
      path = numbered(options.control, number);
      control.emplace(path, &started.phone);
    }
  }

  StartedPhone started;
  std::string path = {};
  std::optional<Control> control = {};
};

// Each phone has some twenty descriptors.
void allow_many_descriptors() {
  rlimit limit = {};
  getrlimit(RLIMIT_NOFILE, &limit);
  limit.rlim_cur = limit.rlim_max;
  setrlimit(RLIMIT_NOFILE, &limit);
}

std::string where(const Served& phone) {
  return "line " + phone.started.line() + (phone.path.empty() ? "" : " control " + phone.path);
}

void print_ready(const std::list<Served>& phones, const std::string& page) {
  if (phones.size() == 1) {
    std::cout << "ready: " << where(phones.front()) << page << std::endl;
    return;
  }
  int number = 0;
  for (const Served& phone : phones) {
    std::cout << "phone " << ++number << ": " << where(phone) << "\n";
  }
  std::cout << "ready: " << phones.size() << " phones" << page << std::endl;
}

// Replies that only the line's program has awaited are not kept for ever.
void forget_replies(Handset* phone) {
  constexpr size_t kKept = 100;
  if (phone->serial.replies().size() > kKept) {
    phone->serial.take_replies();
  }
}

// Returns what is to be said of it.
std::string look_after(Served* phone) {
  phone->started.write_journal();
  std::string said = phone->started.phone.keep_running();
  if (!said.empty()) {
    std::cerr << "handset: " << said << "\n";
  }
  forget_replies(&phone->started.phone.handset);
  return said;
}

// What everybody who is served asks for is in polled; how long, in ms, to wait for it at most.
int add_polled(const std::list<Served>& phones, const std::optional<Web>& web,
               std::vector<pollfd>* polled) {
  bool busy = web.has_value() && web->busy();
  for (const Served& phone : phones) {
    if (phone.control.has_value()) {
      phone.control->add_polled(polled);
      busy = busy || phone.control->busy();
    }
  }
  if (web.has_value()) {
    polled->push_back(web->polled());
  }
  constexpr int kSoon = 2;
  constexpr int kLook = 100;
  const bool watched = web.has_value() && web->watched();
  return busy ? kSoon : (watched ? static_cast<int>(Web::kLook.count()) : kLook);
}

void serve_once(std::list<Served>* phones, std::optional<Web>* web) {
  std::vector<pollfd> polled = {{ending_descriptor(), POLLIN, 0}};
  const int wait = add_polled(*phones, *web, &polled);
  poll(polled.data(), polled.size(), wait);
  if (web->has_value()) {
    (*web)->go_on();
  }
  const pollfd* next = polled.data() + 1;
  size_t number = 0;
  for (Served& phone : *phones) {
    if (phone.control.has_value()) {
      next = phone.control->go_on(next);
    }
    const std::string said = look_after(&phone);
    if (web->has_value() && !said.empty()) {
      (*web)->note(number, said);
    }
    ++number;
  }
}

std::vector<SharedPhone*> shared(std::list<Served>* phones) {
  std::vector<SharedPhone*> all;
  for (Served& phone : *phones) {
    all.push_back(&phone.started.phone);
  }
  return all;
}

}  // namespace

int serve(const Options& options) {
  if (options.count > 1) {
    allow_many_descriptors();
  }
  std::list<Served> phones;
  for (int number = 1; number <= options.count && ending() == 0; ++number) {
    phones.emplace_back(options, number);
  }
  for (Served& phone : phones) {
    if (!phone.started.wait_ready()) {
      return 0;
    }
    if (const int status = run_lines(&phone.started, options.lines); status != 0) {
      return status;
    }
  }
  std::optional<Web> web;
  if (!options.web.empty()) {
    web.emplace(options.web, shared(&phones));
  }
  print_ready(phones, web.has_value() ? " page " + web->url() : "");
  while (ending() == 0) {
    serve_once(&phones, &web);
  }
  return 0;
}

}  // namespace handset
