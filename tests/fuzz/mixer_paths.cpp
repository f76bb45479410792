// A mixer path file through the parser and the engine, on a card in memory. Whatever the file says:
// the card is brought back to what it held after the file's defaults by resetting every path, and
// what a path wrote stays written when the path is applied again.

#include "audio_route/mixer_paths.h"

#include <vector>

#include "audio_route/audio_route.h"
#include "tests/fuzz/fuzz.h"
#include "tests/fuzz/memory_files.h"
#include "tests/unit/fake_tinyalsa.h"

static std::vector<std::vector<long>> held() {
  std::vector<std::vector<long>> values;
  for (const mixer_ctl& ctl : fake_card.controls) {
    values.push_back(ctl.values);
  }
  return values;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  static constexpr char kFile[] = "/odm/paths.xml";
  set_file(kFile, std::string(reinterpret_cast<const char*>(data), size));
  fake_card = {.controls = {
                   {"A", MIXER_CTL_TYPE_BOOL, {0, 1}},
                   {"B", MIXER_CTL_TYPE_INT, {5, 6, 7}},
                   {"C", MIXER_CTL_TYPE_ENUM, {2}, {"zero", "one", "two"}},
                   {"D", MIXER_CTL_TYPE_BYTE, {1, 2, 3, 4}},
                   {"E", MIXER_CTL_TYPE_IEC958, {9}},
                   {"F", MIXER_CTL_TYPE_INT, {}},
               }};
  const auto before = held();
  {
    const UniqueAudioRoute route(audio_route_init(0, kFile));
    if (route == nullptr) {
      expect(held() == before, "a file that is refused has changed the card");
    } else {
      const auto defaults = held();
      std::vector<std::string> names;
      for (uint32_t i = 0; i < route->num_mixer_paths; ++i) {
        names.emplace_back(route->mixer_path[i].name);
      }
      for (const std::string& name : names) {
        expect(audio_route_apply_and_update_path(route.get(), name.c_str()) == 0, "no such path");
      }
      const auto applied = held();
      fake_card.writes.clear();
      for (const std::string& name : names) {
        audio_route_force_reset_and_update_path(route.get(), name.c_str());
      }
      expect(held() == defaults, "the card does not come back");
      for (const std::string& name : names) {
        audio_route_apply_and_update_path(route.get(), name.c_str());
      }
      expect(held() == applied, "the same paths give another card");
      expect(audio_route_apply_path(route.get(), "no such path") == -1 ||
                 std::find(names.begin(), names.end(), "no such path") != names.end(),
             "a path that the file does not have");
    }
  }
  expect(fake_card.open_mixers == 0, "the mixer stays open");
  return 0;
}
