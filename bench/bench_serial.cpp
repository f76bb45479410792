// How long "AT^OPEN_GPS" takes from its last byte written to its reply read, against a bare
// read-and-write loop on the same kind of pty. Nothing traps system calls here. Both answer in
// turns, so that whatever else the machine does falls on both.

#include <fcntl.h>
#include <stdlib.h>
#include <string.h>
#include <termios.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <iostream>
#include <memory>
#include <stdexcept>

#include "handset/handset.h"

using namespace handset;

using std::chrono::steady_clock;

class Candidate {
 public:
  explicit Candidate(const char* program) : phone_({.daemon = program}) {
    master_ = posix_openpt(O_RDWR | O_NOCTTY);
    char slave[128];
    termios raw;
    if (master_ < 0 || grantpt(master_) != 0 || unlockpt(master_) != 0 ||
        ptsname_r(master_, slave, sizeof(slave)) != 0 || tcgetattr(master_, &raw) != 0) {
      throw std::runtime_error("this machine gives no pty");
    }
    cfmakeraw(&raw);
    tcsetattr(master_, TCSANOW, &raw);
    phone_.start({.serial = slave, .traps = false, .log = false});
  }
  ~Candidate() {
    phone_.stop();
    close(master_);
  }

  // Microseconds.
  double round() {
    static const char kCommand[] = "AT^OPEN_GPS\r\n";
    char reply[64];
    const auto start = steady_clock::now();
    if (write(master_, kCommand, strlen(kCommand)) < 0 ||
        read(master_, reply, sizeof(reply)) != 4) {
      throw std::runtime_error("no reply");
    }
    return std::chrono::duration<double, std::micro>(steady_clock::now() - start).count();
  }

 private:
  Handset phone_;
  int master_ = -1;
};

static double at(std::vector<double>* sorted, double part) {
  return (*sorted)[static_cast<size_t>(part * static_cast<double>(sorted->size() - 1))];
}

int main() {
  constexpr int kWarmUp = 500;
  constexpr int kRounds = 10000;
  Candidate daemon(FTM_DAEMON);
  Candidate echo(FTM_ECHO);
  std::vector<double> daemon_times;
  std::vector<double> echo_times;
  for (int i = 0; i < kWarmUp + kRounds; ++i) {
    // What follows the daemon's reply (its last log lines) is done before the next round.
    usleep(300);
    const double daemon_time = daemon.round();
    usleep(300);
    const double echo_time = echo.round();
    if (i >= kWarmUp) {
      daemon_times.push_back(daemon_time);
      echo_times.push_back(echo_time);
    }
  }
  std::sort(daemon_times.begin(), daemon_times.end());
  std::sort(echo_times.begin(), echo_times.end());
  for (const double part : {0.5, 0.9, 0.99}) {
    const double d = at(&daemon_times, part);
    const double e = at(&echo_times, part);
    std::cout << "p" << part * 100 << ": daemon " << d << " us, bare loop " << e << " us, ratio "
              << d / e << "\n";
  }
}
