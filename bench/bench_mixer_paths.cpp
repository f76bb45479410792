// How long audio_route_init takes for 3,000 controls and a path file of 20,000 ctl elements in 500
// paths, against expat alone on the same file; and how that grows when controls or elements are
// doubled. The controls lie in memory, with a look-up by name that hardly grows.

#include <expat.h>
#include <fcntl.h>
#include <time.h>
#include <unistd.h>

#include <algorithm>
#include <filesystem>
#include <fstream>
#include <iostream>

#include "audio_route/audio_route.h"
#include "tests/unit/fake_tinyalsa.h"

static constexpr int kControls = 3000;
static constexpr int kElements = 20000;
static constexpr int kPaths = 500;
static constexpr int kRounds = 15;

static std::string control_name(int control) {
  return "RX INT" + std::to_string(control) + " Interpolator Volume";
}

static void make_card(int controls) {
  fake_card.controls.clear();
  for (int i = 0; i < controls; ++i) {
    fake_card.controls.push_back({control_name(i), MIXER_CTL_TYPE_INT, {0, 0}});
  }
}

static void make_file(const std::string& file, int elements, int paths, int controls) {
  std::ofstream stream(file);
  stream << "<mixer>\n";
  for (int i = 0; i < paths; ++i) {
    stream << "  <path name=\"speaker-and-headphones-" << i << "\">\n";
    for (int j = 0; j < elements / paths; ++j) {
      stream << "    <ctl name=\"" << control_name((i * 37 + j) % controls)
             << "\" value=\"84\" />\n";
    }
    stream << "  </path>\n";
  }
  stream << "</mixer>\n";
}

static void parse_alone(const char* file) {
  const XML_Parser parser = XML_ParserCreate(nullptr);
  const int fd = open(file, O_RDONLY);
  XML_SetElementHandler(
      parser, [](void*, const XML_Char*, const XML_Char**) {}, [](void*, const XML_Char*) {});
  for (ssize_t count = 1; count > 0;) {
    void* buffer = XML_GetBuffer(parser, 1024);
    count = read(fd, buffer, 1024);
    XML_ParseBuffer(parser, static_cast<int>(count), count == 0);
  }
  close(fd);
  XML_ParserFree(parser);
}

// Of processor time: other programs do not count.
template <typename Work>
static double milliseconds(Work work) {
  const clock_t start = clock();
  work();
  return 1000.0 * static_cast<double>(clock() - start) / CLOCKS_PER_SEC;
}

// One line of results: both in turns, so that whatever else the machine does falls on both.
static void measure(const char* what, int controls, int elements, int paths) {
  const std::string file = std::filesystem::temp_directory_path() / "bench_mixer_paths.xml";
  make_card(controls);
  make_file(file, elements, paths, controls);
  std::vector<double> engine;
  std::vector<double> expat;
  for (int i = 0; i < kRounds; ++i) {
    UniqueAudioRoute route;
    expat.push_back(milliseconds([&] { parse_alone(file.c_str()); }));
    engine.push_back(milliseconds([&] { route.reset(audio_route_init(0, file.c_str())); }));
  }
  std::filesystem::remove(file);
  std::sort(engine.begin(), engine.end());
  std::sort(expat.begin(), expat.end());
  std::cout << what << ": " << controls << " controls, " << elements << " elements in " << paths
            << " paths: engine " << engine[kRounds / 2] << " ms, expat alone " << expat[kRounds / 2]
            << " ms, ratio " << engine[kRounds / 2] / expat[kRounds / 2] << "\n";
}

int main() {
  measure("base", kControls, kElements, kPaths);
  measure("controls doubled", 2 * kControls, kElements, kPaths);
  measure("elements doubled, longer paths", kControls, 2 * kElements, kPaths);
  measure("elements doubled, more paths", kControls, 2 * kElements, 2 * kPaths);
  measure("one path of them all", kElements, kElements, 1);
}
