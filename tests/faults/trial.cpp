// Running and judging a command under trouble; see trial.h.

#include "tests/faults/trial.h"

#include <string.h>
#include <sys/wait.h>

#include <algorithm>
#include <chrono>
#include <exception>
#include <regex>
#include <sstream>
#include <thread>

#include "handset/console/dot_commands.h"
#include "handset/visible.h"

using namespace handset;
using std::chrono::milliseconds;

static constexpr std::chrono::seconds kLimit(60);  // of a command; a busy desk is slow
static constexpr std::chrono::seconds kRest(5);    // that its threads and programs take to end
static constexpr double kTimeFactor = 0.001;       // not 0: the alarm is to come
static const char kNext[] = "AT^OPEN_GPS";
static const char kSecrecyFile[] = "/mnt/vendor/norvareserve/system/config/secrecy.cfg";

static void lock(Handset* phone) {
  std::string text = phone->read_file(kSecrecyFile).value_or("");
  const std::string open = "encrypt_data=false";
  text.replace(text.find(open), open.size(), "encrypt_data=true");
  phone->write_file(kSecrecyFile, text);
}

void Trial::start() {
  phone_ = std::make_unique<Handset>(Handset::Options{.time_factor = kTimeFactor});
  phone_->hub_service.set_patience(milliseconds(500));
  mark_partition(phone_.get());
  if (case_.locked) {
    lock(phone_.get());
  }
  laid_ = lasting_files(*phone_);
  Handset::StartOptions options;
  trouble_->attach(phone_.get(), &options);
  phone_->power.store_wake_lock("desk");  // a phone that sleeps answers nothing
  phone_->start(options);
  prepare();
  prepared_ = held(*phone_);
}

bool Trial::start_again() {
  try {
    lay_files(phone_.get(), laid_);
    prepare();
    return held(*phone_) == prepared_;
  } catch (const std::exception&) {
    return false;  // the daemon does not answer any more
  }
}

// Sends a line. What came of it, until the daemon listens again or has ended.
std::string Trial::send(const std::string& line, Observation* observed) {
  const std::string bytes = sent_bytes(line);
  const size_t seen = phone_->journal.size();
  const int reads = phone_->serial.reads();
  phone_->serial.send(bytes);
  const bool handled = phone_->serial.wait_reads(reads + 1, kLimit);
  settle();
  std::string exchange = visible(bytes);
  // What was written and refused was said all the same.
  static const std::regex kRefused(" = [A-Z0-9]+$");
  for (const Journal::Entry& entry : phone_->journal.since(seen)) {
    if (entry.text.starts_with("< ")) {
      exchange += "\t" + std::regex_replace(shown(entry), kRefused, "");
    }
  }
  if (!handled) {
    observed->status = phone_->wait_exit(std::chrono::seconds(1));
    observed->hangs = !observed->status.has_value();
    exchange += "\t!";
  }
  return exchange;
}

// Until the command's other threads are at rest.
void Trial::settle() const {
  constexpr milliseconds kLook(2);
  constexpr int kQuiet = 3;
  constexpr size_t kUsual = 2;  // main and worker
  size_t seen = trouble_->seen();
  for (int quiet = 0, looks = 0; held(*phone_).threads > kUsual && quiet < kQuiet && looks < 100;
       ++looks) {
    std::this_thread::sleep_for(kLook);
    quiet = trouble_->seen() == seen ? quiet + 1 : 0;
    seen = trouble_->seen();
  }
}

static bool has_replied(const std::vector<Journal::Entry>& entries) {
  return std::any_of(entries.begin(), entries.end(),
                     [](const Journal::Entry& entry) { return entry.text.starts_with("< "); });
}

void Trial::prepare() {
  const size_t seen = phone_->journal.size();
  for (const std::string& line : case_.before) {
    if (line[0] != '.') {
      phone_->command(line + "\n", kLimit);
      settle();
    } else if (!line.starts_with(".wait ") || !has_replied(phone_->journal.since(seen))) {
      std::ostringstream out;
      run_dot_command(phone_.get(), line, out);
    }
  }
}

Observation Trial::observe(const Held* least) {
  Observation observed;
  observed.before = lasting_files(*phone_);
  trouble_->begin();
  observed.exchange = send(case_.command, &observed);
  trouble_->end();
  observed.after = lasting_files(*phone_);
  for (const auto& [line, answer] :
       {std::pair(std::string(kNext), &observed.next), std::pair(case_.command, &observed.again)}) {
    if (!observed.hangs && !observed.status.has_value()) {
      *answer = send(line, &observed);
    }
  }
  observed.held = held(*phone_);
  const auto end = std::chrono::steady_clock::now() + kRest;
  while (least != nullptr && observed.held.exceeds(*least) &&
         std::chrono::steady_clock::now() < end) {
    phone_->power.wakeup_event();  // while it sleeps, a thread is frozen with the alarm open
    std::this_thread::sleep_for(milliseconds(2));
    observed.held = held(*phone_);
  }
  observed.last = lasting_files(*phone_);
  return observed;
}

// Whether the worker, beside whatever other threads may have said, replied this alone.
static bool worker_said(const std::string& exchange, const std::string& reply) {
  std::istringstream stream(exchange);
  std::string said;
  for (std::string part; std::getline(stream, part, '\t');) {
    said += part.starts_with("< ") ? part : "";
  }
  return said == "< " + reply;
}

static std::string shown_status(int status) {
  return WIFSIGNALED(status) ? std::string("signal ") + strsignal(WTERMSIG(status))
                             : "status " + std::to_string(WEXITSTATUS(status));
}

static void compare_held(const char* what, size_t has, size_t usual,
                         std::vector<std::string>* found) {
  if (has > usual) {
    found->push_back("the daemon holds " + std::to_string(has) + " " + what + ", not " +
                     std::to_string(usual));
  }
}

std::vector<std::string> findings(const Case& one, const Observation& observed,
                                  const Observation& healthy, Judge* judge) {
  std::vector<std::string> found;
  if (observed.hangs) {
    found.push_back("no end within " + std::to_string(kLimit.count()) + " s");
  }
  if (observed.status.has_value()) {
    found.push_back("the daemon ends: " + shown_status(*observed.status));
  }
  const Judge::Result result = judge->result(observed.exchange);
  if (found.empty() && result == Judge::Result::kNone) {
    found.push_back("no outcome: " + observed.exchange);
  }
  if (result == Judge::Result::kPass && observed.after == observed.before &&
      healthy.after != healthy.before) {
    found.push_back("a pass, and no file is changed");
  }
  for (const std::string& text :
       wrong_files(one.command, observed.before, observed.after, healthy.after)) {
    found.push_back(text);
  }
  if (observed.hangs || observed.status.has_value()) {
    return found;
  }
  if (!worker_said(observed.next, "OK\\r\\n")) {
    found.push_back("the next command: " + observed.next);
  }
  if (!judge->is_outcome(observed.again)) {
    found.push_back("the same command again: " + observed.again);
  }
  compare_held("descriptors", observed.held.descriptors, healthy.held.descriptors, &found);
  compare_held("threads", observed.held.threads, healthy.held.threads, &found);
  compare_held("children", observed.held.children, healthy.held.children, &found);
  return found;
}
