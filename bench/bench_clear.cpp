// How long gr_clear takes for a screen of 1440 x 3200, white and a mixed colour, against memset of
// the same buffer. All three in turns, so that whatever else the machine does falls on all.

#include <android/log.h>
#include <string.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <memory>
#include <vector>

#include "display/graphics.h"
#include "display/minui_backend_drm.h"

static constexpr int kWidth = 1440;
static constexpr int kHeight = 3200;
static constexpr size_t kBytes = size_t{kWidth} * kHeight * 4;

static const std::unique_ptr<unsigned char[]> pixels(new unsigned char[kBytes]);
static GRSurface surface = {.width = kWidth,
                            .height = kHeight,
                            .row_bytes = kWidth * 4,
                            .pixel_bytes = 4,
                            .data = pixels.get()};

// A display that is nothing but that buffer.
GRSurface* MinuiBackendDrm::Init() {
  return &surface;
}
GRSurface* MinuiBackendDrm::Flip() {
  return &surface;
}
void MinuiBackendDrm::Blank(bool) {}
MinuiBackendDrm::~MinuiBackendDrm() = default;

int main() {
  constexpr int kRounds = 300;
  __android_log_set_minimum_priority(ANDROID_LOG_SILENT);
  if (gr_init() != 0) {
    return 1;
  }
  struct Candidate {
    const char* name;
    void (*run)();
    std::vector<double> times = {};  // milliseconds
  };
  Candidate candidates[] = {
      {"memset", [] { memset(pixels.get(), 255, kBytes); }},
      {"white", gr_clear},
      {"mixed", gr_clear},
  };
  for (int round = 0; round < kRounds; ++round) {
    for (Candidate& candidate : candidates) {
      gr_color(255, 255, 255, 255);
      if (&candidate == &candidates[2]) {
        gr_color(10, 20, 30, 255);
      }
      const auto start = std::chrono::steady_clock::now();
      candidate.run();
      candidate.times.push_back(
          std::chrono::duration<double, std::milli>(std::chrono::steady_clock::now() - start)
              .count());
      if (pixels[kBytes - 1] != 255) {
        return 1;
      }
    }
  }
  for (Candidate& candidate : candidates) {
    std::nth_element(candidate.times.begin(), candidate.times.begin() + kRounds / 2,
                     candidate.times.end());
    const double median = candidate.times[kRounds / 2];
    printf("%s: median %.3f ms, of memset %.2f\n", candidate.name, median,
           median / candidates[0].times[kRounds / 2]);
  }
}
