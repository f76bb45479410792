// The loop of the served phones; see serve.h.

#include "handset/console/serve.h"

#include <poll.h>
#include <sys/resource.h>

#include <iostream>
#include <list>
#include <optional>
#include <string>

#include "handset/console/batch.h"
#include "handset/console/control.h"
#include "handset/console/ending.h"
#include "handset/console/started_phone.h"

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

void print_ready(const std::list<Served>& phones) {
  if (phones.size() == 1) {
    std::cout << "ready: " << where(phones.front()) << std::endl;
    return;
  }
  int number = 0;
  for (const Served& phone : phones) {
    std::cout << "phone " << ++number << ": " << where(phone) << "\n";
  }
  std::cout << "ready: " << phones.size() << " phones" << std::endl;
}

// Replies that only the line's program has awaited are not kept for ever.
void forget_replies(Handset* phone) {
  constexpr size_t kKept = 100;
  if (phone->serial.replies().size() > kKept) {
    phone->serial.take_replies();
  }
}

void look_after(Served* phone) {
  phone->started.write_journal();
  if (const std::string said = phone->started.phone.keep_running(); !said.empty()) {
    std::cerr << "handset: " << said << "\n";
  }
  forget_replies(&phone->started.phone.handset);
}

void serve_once(std::list<Served>* phones) {
  std::vector<pollfd> polled = {{ending_descriptor(), POLLIN, 0}};
  bool busy = false;
  for (const Served& phone : *phones) {
    if (phone.control.has_value()) {
      phone.control->add_polled(&polled);
      busy = busy || phone.control->busy();
    }
  }
  constexpr int kSoon = 2;  // ms
  constexpr int kLook = 100;
  poll(polled.data(), polled.size(), busy ? kSoon : kLook);
  const pollfd* next = polled.data() + 1;
  for (Served& phone : *phones) {
    if (phone.control.has_value()) {
      next = phone.control->go_on(next);
    }
    look_after(&phone);
  }
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
  print_ready(phones);
  while (ending() == 0) {
    serve_once(&phones);
  }
  return 0;
}

}  // namespace handset
