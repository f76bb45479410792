// The server's routes and its event streams; see web.h.

#include "handset/console/web.h"

#include <arpa/inet.h>
#include <errno.h>
#include <json/json.h>
#include <malloc.h>
#include <string.h>
#include <sys/socket.h>

#include <algorithm>
#include <charconv>
#include <fstream>
#include <iterator>
#include <memory>
#include <optional>
#include <sstream>
#include <stdexcept>

#include "handset/console/broken_phones.h"
#include "handset/console/dot_commands.h"
#include "handset/console/web_state.h"
#include "handset/phone_files.h"

namespace handset {

constexpr int kMostStreams = 24;
constexpr size_t kThreads = 48;  // for the streams, the lines under way and short requests
constexpr size_t kMostBody = 65536;
constexpr time_t kPatience = 2;  // seconds, for a browser that sends or takes nothing
constexpr std::chrono::seconds kHeartbeat(3);

constexpr int kForbidden = 403;
constexpr int kBusy = 503;

// ---- who is listened to

// "HOST" of "HOST:PORT".
static std::string host_of(const std::string& place) {
  const size_t colon = place.rfind(':');
  const bool port = colon != std::string::npos && place.find(']', colon) == std::string::npos;
  return port ? place.substr(0, colon) : place;
}

// A name may be pointed at this machine by whoever owns it, an address not.
static bool is_own_host(std::string host) {
  if (host.starts_with("[") && host.ends_with("]")) {
    host = host.substr(1, host.size() - 2);
  }
  char address[sizeof(in6_addr)];
  return host == "localhost" || inet_pton(AF_INET, host.c_str(), address) == 1 ||
         inet_pton(AF_INET6, host.c_str(), address) == 1;
}

static bool is_own_page(const httplib::Request& request) {
  const std::string place = request.get_header_value("Host");
  const std::string origin = request.get_header_value("Origin");
  return is_own_host(host_of(place)) && (origin.empty() || origin == "http://" + place);
}

// ---- the panel's picture

static int step_of(const httplib::Request& request) {
  const std::string text = request.get_param_value("every");
  constexpr int kLargest = 32;
  int step = 1;
  std::from_chars(text.data(), text.data() + text.size(), step);
  return std::clamp(step, 1, kLargest);
}

static void send_panel(const httplib::Request& request, httplib::Response* response,
                       const DisplayCard& display) {
  response->set_content(display.picture().smaller(step_of(request)).png(), "image/png");
}

// ---- the journal as a file

static void send_journal(httplib::Response* response, const WebFeed& feed) {
  response->set_header("Content-Disposition", "attachment; filename=\"journal.txt\"");
  response->set_chunked_content_provider(
      "application/octet-stream",
      [&feed, index = size_t{0}](size_t, httplib::DataSink& sink) mutable {
        const std::string text = feed.journal_text(&index);
        if (text.empty()) {
          sink.done();
          return true;
        }
        return sink.write(text.data(), text.size());
      });
}

// ---- an event stream

namespace {

// What one page has been told of one phone.
struct Told {
  WebFeed* feed;
  size_t number;  // of the phone, from 1
  uint64_t state = 0;
  uint64_t event = 0;
};

class Stream {
 public:
  Stream(std::vector<Told> told, bool whole) : told_(std::move(told)), whole_(whole) {
    for (const Told& one : told_) {
      one.feed->watch(whole_, 1);
    }
  }
  ~Stream() {
    for (const Told& one : told_) {
      one.feed->watch(whole_, -1);
    }
  }
  Stream(const Stream&) = delete;
  Stream& operator=(const Stream&) = delete;

  // What has come since the last time.
  std::string news() {
    std::string text;
    for (Told& one : told_) {
      const WebFeed::State state = one.feed->state();
      if (state.number != one.state) {
        one.state = state.number;
        text += "event: state\ndata: {\"phone\":" + std::to_string(one.number) +
                ",\"state\":" + state.json + "}\n\n";
      }
      if (whole_) {
        text += one.feed->events_after(&one.event);
      }
    }
    const auto now = std::chrono::steady_clock::now();
    if (text.empty() && now - last_ > kHeartbeat) {
      text = ":\n\n";
    }
    last_ = text.empty() ? last_ : now;
    return text;
  }

 private:
  std::vector<Told> told_;
  bool whole_;
  std::chrono::steady_clock::time_point last_ = std::chrono::steady_clock::now();
};

}  // namespace

static uint64_t last_event_of(const httplib::Request& request) {
  const std::string text = request.get_header_value("Last-Event-ID");
  uint64_t number = 0;
  std::from_chars(text.data(), text.data() + text.size(), number);
  return number;
}

void Web::stream(const httplib::Request& request, httplib::Response* response,
                 const std::vector<Phone*>& phones, bool whole) {
  if (++streams_ > kMostStreams) {
    --streams_;
    response->status = kBusy;
    return;
  }
  std::vector<Told> told;
  for (Phone* phone : phones) {
    size_t number = 1;
    for (auto other = phones_.begin(); &*other != phone; ++other) {
      ++number;
    }
    told.push_back({.feed = &phone->feed, .number = number, .event = last_event_of(request)});
  }
  const auto stream = std::make_shared<Stream>(std::move(told), whole);
  response->set_header("Cache-Control", "no-store");
  response->set_chunked_content_provider(
      "text/event-stream",
      [this, stream](size_t, httplib::DataSink& sink) {
        const std::string text = stream->news();
        if (text.empty()) {
          std::this_thread::sleep_for(kLook);
        }
        if (ending_) {
          sink.done();
        }
        return text.empty() || sink.write(text.data(), text.size());
      },
      [this](bool) { --streams_; });
}

// ---- routes

void Web::add_file(const std::string& path, const std::string& name, const std::string& type) {
  std::ifstream stream(phone_file(name), std::ios::binary);
  const std::string content{std::istreambuf_iterator<char>(stream), {}};
  server_.Get(path, [content, type](const httplib::Request&, httplib::Response& response) {
    response.set_content(content, type);
  });
}

void Web::add_phone(const std::string& path, Phone* phone) {
  server_.Get(path + "/events",
              [this, phone](const httplib::Request& request, httplib::Response& response) {
                stream(request, &response, {phone}, true);
              });
  server_.Get(path + "/panel\\.png",
              [phone](const httplib::Request& request, httplib::Response& response) {
                send_panel(request, &response, phone->shared->handset.display);
              });
  server_.Get(path + "/journal\\.txt",
              [phone](const httplib::Request&, httplib::Response& response) {
                send_journal(&response, phone->feed);
              });
  server_.Post(path + "/line",
               [this, phone](const httplib::Request& request, httplib::Response& response) {
                 const WebLines::Result result = lines_.run(phone->shared, request.body);
                 Json::Value told;
                 told["ok"] = result.carried_out;
                 told["said"] = result.said;
                 response.set_content(json_text(told), "application/json");
               });
}

// The list of ".broken", its names and what each says of itself.
static Json::Value broken_phones() {
  std::stringstream list;
  print_broken_phones(list);
  Json::Value all = Json::arrayValue;
  for (std::string line; std::getline(list, line);) {
    const size_t name_end = line.find(' ');
    Json::Value one;
    one["name"] = line.substr(0, name_end);
    one["about"] = line.substr(line.find_first_not_of(' ', name_end));
    all.append(one);
  }
  return all;
}

void Web::tell_phones(httplib::Response* response) const {
  Json::Value told;
  told["phones"] = static_cast<Json::UInt64>(phones_.size());
  told["broken"] = broken_phones();
  told["dots"] = Json::arrayValue;
  for (const std::string& name : dot_command_names()) {
    told["dots"].append(name);
  }
  response->set_content(json_text(told), "application/json");
}

// ---- its life

struct Place {
  std::string host;  // an IPv6 address has no brackets
  int port;
};

static Place place_of(const std::string& text) {
  const size_t colon = text.rfind(':');
  const std::string port = colon == std::string::npos ? text : text.substr(colon + 1);
  Place place = {colon == std::string::npos ? "127.0.0.1" : text.substr(0, colon), 0};
  const auto [end, error] = std::from_chars(port.data(), port.data() + port.size(), place.port);
  constexpr int kLargest = 65535;
  if (error != std::errc() || end != port.data() + port.size() || place.port < 0 ||
      place.port > kLargest || !is_own_host(place.host)) {
    throw std::runtime_error("no place for the page: " + text + "; PORT or ADDRESS:PORT is one");
  }
  if (place.host.starts_with("[")) {
    place.host = place.host.substr(1, place.host.size() - 2);
  }
  return place;
}

// Every thread of the pool would keep memory of its own, as much as its largest picture took.
static void keep_memory_small() {
  constexpr int kArenas = 2;
  constexpr int kGivenBack = 1 << 18;  // bytes: a block of this size is given back when it is freed
  mallopt(M_ARENA_MAX, kArenas);
  mallopt(M_MMAP_THRESHOLD, kGivenBack);
}

Web::Web(const std::string& place, const std::vector<SharedPhone*>& phones) {
  keep_memory_small();
  add_file("/", "page/index.html", "text/html; charset=utf-8");
  add_file("/page\\.css", "page/page.css", "text/css; charset=utf-8");
  add_file("/page\\.js", "page/page.js", "text/javascript; charset=utf-8");
  add_file("/commands\\.json", "commands.json", "application/json");
  std::vector<Phone*> all;
  for (SharedPhone* phone : phones) {
    phones_.emplace_back(phone);
    all.push_back(&phones_.back());
    add_phone("/phones/" + std::to_string(all.size()), all.back());
  }
  server_.Get("/phones", [this](const httplib::Request&, httplib::Response& response) {
    tell_phones(&response);
  });
  server_.Get("/events", [this, all](const httplib::Request& request, httplib::Response& response) {
    stream(request, &response, all, false);
  });
  server_.set_pre_routing_handler([](const httplib::Request& request, httplib::Response& response) {
    if (is_own_page(request)) {
      return httplib::Server::HandlerResponse::Unhandled;
    }
    response.status = kForbidden;
    response.set_content("only this handset's own pages are served\n", "text/plain");
    return httplib::Server::HandlerResponse::Handled;
  });
  server_.set_default_headers(
      {{"Content-Security-Policy",
        "default-src 'none'; script-src 'self'; style-src 'self'; img-src 'self' data: blob:; "
        "connect-src 'self'; base-uri 'none'; form-action 'none'; frame-ancestors 'none'"},
       {"Cross-Origin-Resource-Policy", "same-origin"},
       {"X-Content-Type-Options", "nosniff"},
       {"Cache-Control", "no-cache"}});
  server_.new_task_queue = [] { return new httplib::ThreadPool(kThreads); };
  server_.set_keep_alive_max_count(1);  // an idle browser holds no thread
  server_.set_keep_alive_timeout(kPatience);
  server_.set_read_timeout(kPatience);
  server_.set_write_timeout(kPatience);
  server_.set_payload_max_length(kMostBody);
  server_.set_tcp_nodelay(true);
  server_.set_socket_options([](int socket) {  // the library's own would share the port
    const int yes = 1;
    setsockopt(socket, SOL_SOCKET, SO_REUSEADDR, &yes, sizeof(yes));
  });

  const auto [host, port] = place_of(place);
  const int bound =
      port == 0 ? server_.bind_to_any_port(host) : (server_.bind_to_port(host, port) ? port : -1);
  if (bound < 0) {
    throw std::runtime_error("cannot serve the page at " + place + ": " + strerror(errno));
  }
  const bool brackets = host.find(':') != std::string::npos;
  url_ = "http://" + (brackets ? "[" + host + "]" : host) + ":" + std::to_string(bound) + "/";
  thread_ = std::thread([this] { server_.listen_after_bind(); });
}

Web::~Web() {
  ending_ = true;
  lines_.end();
  server_.stop();
  thread_.join();
}

void Web::go_on() {
  lines_.go_on();
  const auto now = std::chrono::steady_clock::now();
  if (now - looked_ < kLook) {
    return;
  }
  looked_ = now;
  for (Phone& phone : phones_) {
    phone.feed.look();
  }
}

bool Web::watched() const {
  return streams_ > 0;
}

void Web::note(size_t phone, const std::string& text) {
  std::next(phones_.begin(), static_cast<std::ptrdiff_t>(phone))->feed.note(text);
}

}  // namespace handset
