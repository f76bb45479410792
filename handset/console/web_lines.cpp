// The lines under way; see web_lines.h.

#include "handset/console/web_lines.h"

#include <sys/eventfd.h>
#include <unistd.h>

#include <algorithm>

namespace handset {

constexpr size_t kMostLines = 12;
constexpr size_t kMostSaid = 1U << 20;  // bytes

// Whoever reaches the port is not asked who he is: what goes beyond the phone is left to the
// console and to the control socket, which belong to the handset's user.
static bool leaves_phone(const std::string& line) {
  const bool names_desk_file = line.starts_with(".panel") || line.starts_with(".link") ||
                               (line.starts_with(".broken") && line.find('/') != std::string::npos);
  return names_desk_file || (line.starts_with(".") && line.find("..", 1) != std::string::npos);
}

WebLines::WebLines() : handed_over_(eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK)) {}

WebLines::~WebLines() {
  close(handed_over_);
}

WebLines::Result WebLines::run(SharedPhone* phone, const std::string& text) {
  if (text.empty() || text.find('\n') != std::string::npos) {
    return {.said = "one line, please\n"};
  }
  if (leaves_phone(text)) {
    return {.said = "not from a page: it would reach files of the desk\n"};
  }
  std::unique_lock lock(mutex_);
  if (ended_ || lines_.size() >= kMostLines) {
    return {.said = ended_ ? "the handset ends\n" : "too many lines are under way\n"};
  }
  const auto line = lines_.insert(lines_.end(), {.phone = phone, .text = text});
  eventfd_write(handed_over_, 1);
  done_.wait(lock, [&] { return line->done; });
  Result result = line->result;
  lines_.erase(line);
  return result;
}

// True when it is done.
bool WebLines::go_on_with(Line* line) {
  if (line->session == nullptr) {
    line->session = std::make_unique<Session>(line->phone, &line->said);
    line->session->begin(line->text);
  }
  if (!line->session->go_on()) {
    return false;
  }
  line->result = {.carried_out = !line->session->failed(),
                  .said = line->said.str().substr(0, kMostSaid)};
  line->session.reset();
  return true;
}

void WebLines::go_on() {
  eventfd_t ignored = 0;
  eventfd_read(handed_over_, &ignored);
  std::list<Line*> under_way;
  {
    const std::lock_guard lock(mutex_);
    for (Line& line : lines_) {
      if (!line.done) {
        under_way.push_back(&line);
      }
    }
  }
  for (Line* line : under_way) {
    if (go_on_with(line)) {
      const std::lock_guard lock(mutex_);
      line->done = true;
      done_.notify_all();
    }
  }
}

bool WebLines::busy() const {
  const std::lock_guard lock(mutex_);
  return std::any_of(lines_.begin(), lines_.end(), [](const Line& line) { return !line.done; });
}

void WebLines::end() {
  const std::lock_guard lock(mutex_);
  ended_ = true;
  for (Line& line : lines_) {
    if (!line.done) {
      line.session.reset();
      line.result = {.said = "the handset ends\n"};
      line.done = true;
    }
  }
  done_.notify_all();
}

}  // namespace handset
