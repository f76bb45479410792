// The mixer path engine on a fake sound card.

#include "audio_route/audio_route.h"

#include <expat.h>
#include <gtest/gtest.h>
#include <limits.h>

#include <algorithm>
#include <filesystem>
#include <fstream>

#include "audio_route/mixer_paths.h"
#include "tests/unit/fake_tinyalsa.h"
#include "tests/unit/log_capture.h"

static int arrays_left = INT_MAX;  // that can grow still
static bool no_parser = false;

// What the linker takes for the engine's (--wrap).
extern "C" {
void* __real_reallocarray(void* array, size_t count, size_t size);
void* __wrap_reallocarray(void* array, size_t count, size_t size) {
  return arrays_left-- < 1 ? nullptr : __real_reallocarray(array, count, size);
}
XML_Parser __real_XML_ParserCreate(const XML_Char* encoding);
XML_Parser __wrap_XML_ParserCreate(const XML_Char* encoding) {
  return no_parser ? nullptr : __real_XML_ParserCreate(encoding);
}
}

using Lines = std::vector<LogCapture::Line>;
using Writes = std::vector<std::string>;

// The engine's lines have a tag of their own.
static LogCapture::Line engine_debug(const std::string& text) {
  return {ANDROID_LOG_DEBUG, "audio_route", text};
}
static LogCapture::Line engine_error(const std::string& text) {
  return {ANDROID_LOG_ERROR, "audio_route", text};
}

class AudioRoute : public testing::Test {
 protected:
  AudioRoute() {
    __android_log_set_minimum_priority(ANDROID_LOG_VERBOSE);
    fake_card = {.controls = {
                     {"Switch", MIXER_CTL_TYPE_BOOL, {0}},
                     {"Volume", MIXER_CTL_TYPE_INT, {5, 6, 7}},
                     {"Select", MIXER_CTL_TYPE_ENUM, {2, 1}, {"zero", "one", "two"}},
                     {"Bytes", MIXER_CTL_TYPE_BYTE, {1, 2}},
                     {"Digital", MIXER_CTL_TYPE_IEC958, {9}},
                     {"Empty", MIXER_CTL_TYPE_INT, {}},
                 }};
  }
  ~AudioRoute() override {
    route_.reset();
    EXPECT_EQ(fake_card.open_mixers, 0);
    std::filesystem::remove(kFile);
  }

  bool load(const std::string& xml) {
    std::ofstream(kFile) << xml;
    route_.reset(audio_route_init(0, kFile));
    return route_ != nullptr;
  }
  static Writes take_writes() {
    return std::exchange(fake_card.writes, {});
  }

  const std::string pid_ = std::to_string(getpid());
  const std::string file_ = testing::TempDir() + "mixer_paths." + pid_ + ".xml";
  const char* const kFile = file_.c_str();
  UniqueAudioRoute route_;
  LogCapture log_;
};

TEST_F(AudioRoute, DefaultsReachTheCardInItsOwnOrder) {
  ASSERT_TRUE(
      load("<mixer><ctl name='Bytes' value='1Fe'/>"
           "<ctl name='Volume' value='010'/><ctl name='Volume' id='2' value='-0x10'/>"
           "<ctl name='Select' value='one'/><ctl name='Switch' value='0'/>"
           "<ctl name='Digital' id='7' value='1'/><ctl name='Empty' value='1'/>"
           "<ctl name='Volume' id='3' value='1'/><ctl name='Volume' id='-1' value='1'/>"
           "<ctl name='Missing' value='1'/><ctl value='1'/></mixer>"));
  // Nothing for the switch, which is off already; the enum's second value stays.
  EXPECT_EQ(take_writes(), (Writes{"Volume = 8 8 -16", "Select = 1 1", "Bytes = 254 254"}));
  EXPECT_EQ(log_.take(), (Lines{engine_error("value id out of range for mixer ctl 'Volume'"),
                                engine_error("value id out of range for mixer ctl 'Volume'"),
                                engine_error("Control 'Missing' doesn't exist - skipping"),
                                engine_error("Control '(null)' doesn't exist - skipping")}));
}

TEST_F(AudioRoute, PathsWriteWhatChangesAndComeBackInReverse) {
  ASSERT_TRUE(
      load("<mixer><path name='a'><ctl name='Volume' value='1'/>"
           "<ctl name='Select' value='zero'/><ctl name='Switch' value='0'/>"
           "<ctl name='Volume' id='1' value='3'/><ctl name='Digital' value='3'/></path>"
           "<path name='one element'><ctl name='Volume' id='2' value='4'/></path></mixer>"));
  EXPECT_EQ(log_.take(), Lines{engine_error("unsupported type 4")});
  EXPECT_EQ(audio_route_apply_path(route_.get(), "a"), 0);
  EXPECT_EQ(take_writes(), Writes{});
  EXPECT_EQ(audio_route_update_path(route_.get(), "a", kAudioRouteApply), 0);
  EXPECT_EQ(take_writes(), (Writes{"Volume = 1 3 1", "Select = 0 1"}));
  EXPECT_EQ(audio_route_apply_and_update_path(route_.get(), "a"), 0);
  EXPECT_EQ(take_writes(), Writes{});
  EXPECT_EQ(audio_route_force_reset_and_update_path(route_.get(), "a"), 0);
  EXPECT_EQ(take_writes(), (Writes{"Select = 2 1", "Volume = 5 6 7"}));
  // The first value follows the one that is named.
  audio_route_apply_and_update_path(route_.get(), "one element");
  EXPECT_EQ(take_writes(), Writes{"Volume = 4 0 4"});
  const LogCapture::Line a = engine_debug("Apply path: a");
  EXPECT_EQ(log_.take(), (Lines{a, a, engine_debug("Apply path: one element")}));
}

TEST_F(AudioRoute, ASharedControlStaysWhileItIsNeeded) {
  ASSERT_TRUE(
      load("<mixer><path name='a'><ctl name='Switch' value='1'/>"
           "<ctl name='Volume' value='1'/></path>"
           "<path name='b'><path name='a'/></path></mixer>"));
  for (const char* path : {"a", "b"}) {
    audio_route_apply_and_update_path(route_.get(), path);
  }
  EXPECT_EQ(take_writes(), (Writes{"Switch = 1", "Volume = 1 1 1"}));
  log_.take();
  audio_route_reset_path(route_.get(), "a");
  audio_route_update_path(route_.get(), "a", kAudioRouteReset);
  EXPECT_EQ(take_writes(), Writes{});
  const std::string skip = "audio_route_update_path: skip to reset mixer control '";
  const std::string needed = "' in path 'a' because it is still needed by other paths";
  EXPECT_EQ(log_.take(), (Lines{engine_debug(skip + "Volume" + needed),
                                engine_debug(skip + "Switch" + needed)}));
  audio_route_update_mixer(route_.get());
  EXPECT_EQ(take_writes(), Writes{});  // what the other path needs is wanted still
  audio_route_reset_path(route_.get(), "b");
  audio_route_update_path(route_.get(), "b", kAudioRouteReset);
  EXPECT_EQ(take_writes(), (Writes{"Volume = 5 6 7", "Switch = 0"}));
  // A reset of what is not applied does not count below none.
  audio_route_update_path(route_.get(), "b", kAudioRouteReset);
  audio_route_apply_and_update_path(route_.get(), "a");
  take_writes();
  audio_route_reset_path(route_.get(), "a");
  audio_route_update_path(route_.get(), "a", kAudioRouteReset);
  EXPECT_EQ(take_writes(), (Writes{"Volume = 5 6 7", "Switch = 0"}));

  for (const char* path : {"a", "b", "b"}) {
    audio_route_apply_and_update_path(route_.get(), path);
  }
  take_writes();
  audio_route_force_reset_and_update_path(route_.get(), "a");
  EXPECT_EQ(take_writes(), (Writes{"Volume = 5 6 7", "Switch = 0"}));
}

TEST_F(AudioRoute, TheLaterPathsValuesAreWrittenAndStay) {
  ASSERT_TRUE(
      load("<mixer><path name='low'><ctl name='Volume' value='1'/></path>"
           "<path name='high'><ctl name='Volume' value='9'/></path></mixer>"));
  audio_route_apply_and_update_path(route_.get(), "low");
  audio_route_apply_and_update_path(route_.get(), "high");
  EXPECT_EQ(take_writes(), (Writes{"Volume = 1 1 1", "Volume = 9 9 9"}));
  audio_route_reset_path(route_.get(), "low");
  audio_route_update_path(route_.get(), "low", kAudioRouteReset);
  EXPECT_EQ(take_writes(), Writes{});
  audio_route_reset_path(route_.get(), "high");
  audio_route_update_path(route_.get(), "high", kAudioRouteReset);
  EXPECT_EQ(take_writes(), Writes{"Volume = 5 6 7"});
}

TEST_F(AudioRoute, WrongElementsAreLoggedAndPassedOver) {
  struct Case {
    const char* inside;  // of the root element
    std::vector<std::string> errors;
    Writes writes = {};  // of applying path "p"
  };
  const std::string exists = "Path name 'p' already exists";
  const std::string failed = "path created failed, please check the path if existed";
  const std::vector<Case> cases = {
      {"<path/><path name='p'/>", {"Unnamed path!"}},
      {"<path name='q'><ctl name='Volume' value='1'/></path>"
       "<path name='p'><path name='q'/><ctl name='Volume' id='1' value='3'/></path>",
       {},
       {"Volume = 1 3 1"}},
      // One without a name leaves the path before it the current one, ...
      {"<path name='p'/><path><ctl name='Switch' value='1'/></path>",
       {"Unnamed path!"},
       {"Switch = 1"}},
      // ... one of a name already taken leaves none, but what is in it is looked at.
      {"<path name='p'/><path name='p'><path name='later'/><ctl name='Select' value='?'/>"
       "<ctl name='Volume' id='9'/></path>",
       {exists, failed, "unable to find sub path 'later'",
        "unknown enum value string ? for ctl Select"}},
      {"<path name='p'><ctl name='Digital' id='1'/><ctl name='Digital'/></path>",
       {"mixer index 1 is out of range for 'Digital'", "unsupported type 4"}},
      {"<path name='p'><ctl name='Switch' value='0x1'/></path>", {}, {"Switch = 1"}},
      {"<path name='p'><ctl name='Switch' value='1'/></path>"
       "<path name='p'><ctl name='Volume' value='1'/><path name='p'/></path>",
       {exists, failed},
       {"Switch = 1"}},
      {"<path name='p'><path name='later'/><path/></path><path name='later'/>",
       {"unable to find sub path 'later'", "Unnamed path!"}},
      {"<path name='p'><ctl name='Switch' value='1'/><path name='p'/></path>",
       {"Control 'Switch' already exists in path 'p'"},
       {"Switch = 1"}},
      // What was included before the clash stays.
      {"<path name='q'><ctl name='Volume' value='1'/><ctl name='Switch' value='1'/>"
       "<ctl name='Select' value='one'/></path>"
       "<path name='p'><ctl name='Switch' value='0'/><path name='q'/></path>",
       {"Control 'Switch' already exists in path 'p'"},
       {"Volume = 1 1 1"}},
      {"<path name='p'><ctl name='Volume' id='3' value='1'/><ctl name='Volume' id='-1' value='1'/>"
       "<ctl name='Volume' id='99999999999' value='1'/><ctl name='Empty' id='0' value='1'/></path>",
       {"mixer index 3 is out of range for 'Volume'", "mixer index -1 is out of range for 'Volume'",
        "mixer index 2147483647 is out of range for 'Volume'",
        "mixer index 0 is out of range for 'Empty'"}},
      {"<path name='p'><ctl name='Select'/><ctl name='Select' id='1' value='One'/></path>",
       {"NULL enum value string passed to mixer_enum_string_to_value() for ctl Select",
        "unknown enum value string One for ctl Select"},
       {"Select = 0 1"}},
      // Of an enum only the first value is read from the card.
      {"<path name='p'><ctl name='Select' value='two'/><ctl name='Select' id='1' value='zero'/>"
       "</path>",
       {}},
      {"<path name='p'><ctl name='Volume'/><ctl name='Bytes'/><ctl name='Empty' value='1'/></path>",
       {},
       {"Volume = 0 0 0", "Bytes = 0 0"}},
      {"<other name='p'/><path name='p' other='1'><other>text<ctl name='Switch' value='1' id='0'/>"
       "</other></path><path name='q'/><other><ctl name='Switch' value='0'/></other>",
       {},
       {"Switch = 1"}},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.inside);
    ASSERT_TRUE(load("<mixer>" + std::string(c.inside) + "</mixer>"));
    Lines lines;
    for (const std::string& error : c.errors) {
      lines.push_back(engine_error(error));
    }
    EXPECT_EQ(log_.take(), lines);
    EXPECT_EQ(audio_route_apply_and_update_path(route_.get(), "p"), 0);
    EXPECT_EQ(take_writes(), c.writes);
    audio_route_force_reset_and_update_path(route_.get(), "p");
    fake_card.controls[2].values = {2, 1};
    take_writes();
    log_.take();
  }
}

TEST_F(AudioRoute, HostileFilesEndInALineAndNothingOpen) {
  std::string entities = "<!DOCTYPE m [<!ENTITY a0 'xxxxxxxxxxxxxxxxxxxxxxxxxxxxxxxx'>";
  for (int i = 1; i < 12; ++i) {
    entities += "<!ENTITY a" + std::to_string(i) + " '";
    for (int j = 0; j < 10; ++j) {
      entities += "&a" + std::to_string(i - 1) + ";";
    }
    entities += "'>";
  }
  entities += "]><mixer>&a11;</mixer>";
  std::string deep;
  std::string deep_end;
  for (int i = 0; i < 10000; ++i) {
    deep += "<x>";
    deep_end += "</x>";
  }
  const std::string attribute(1 << 20, 'n');
  const std::string broken = "Error in mixer xml (/system/etc/mixer_paths.xml)";
  const std::vector<std::pair<std::string, bool>> files = {
      {"", false},
      {"no XML at all", false},
      {"<mixer><path name='a'><ctl name='Switch' value='1'/>", false},
      {"<mixer><ctl name='Switch' name='Volume' value='1'/></mixer>", false},
      {entities, false},
      {deep, false},
      {"<mixer>" + deep + "<ctl name='Switch' value='1'/>" + deep_end + "</mixer>", true},
      {"<mixer><path name='" + attribute + "'/></mixer>", true},
  };
  for (const auto& [file, loads] : files) {
    SCOPED_TRACE(file.substr(0, 60));
    EXPECT_EQ(load(file), loads);
    EXPECT_EQ(log_.take(), loads ? Lines{} : Lines{engine_error(broken)});
    EXPECT_EQ(fake_card.open_mixers, loads ? 1 : 0);
    EXPECT_EQ(take_writes(), Writes{});
  }
}

TEST_F(AudioRoute, FailuresSayWhy) {
  EXPECT_EQ(audio_route_init(0, "/nowhere/paths.xml"), nullptr);
  EXPECT_EQ(audio_route_init(0, nullptr), nullptr);
  EXPECT_EQ(audio_route_init(0, "/tmp"), nullptr);  // opens, but cannot be read
  fake_card.present = false;
  EXPECT_EQ(audio_route_init(0, nullptr), nullptr);
  fake_card.present = true;
  ASSERT_TRUE(load("<mixer/>"));
  EXPECT_EQ(audio_route_apply_and_update_path(route_.get(), "p"), -1);
  EXPECT_EQ(audio_route_force_reset_and_update_path(route_.get(), "p"), -1);
  EXPECT_EQ(audio_route_update_path(route_.get(), "p", kAudioRouteApply), -1);
  EXPECT_EQ(audio_route_apply_path(nullptr, "p"), -1);
  EXPECT_EQ(audio_route_reset_path(nullptr, "p"), -1);
  EXPECT_EQ(audio_route_update_path(nullptr, "p", kAudioRouteReset), -1);
  EXPECT_EQ(audio_route_update_mixer(nullptr), -1);
  const std::string missing = ": No such file or directory";
  const LogCapture::Line unknown = engine_error("unable to find path 'p'");
  const LogCapture::Line invalid = engine_error("invalid audio_route");
  EXPECT_EQ(log_.take(),
            (Lines{engine_error("Failed to open /nowhere/paths.xml" + missing),
                   engine_error("Failed to open /system/etc/mixer_paths.xml" + missing),
                   engine_error("Unable to open the mixer, aborting."), unknown, unknown, unknown,
                   invalid, invalid, invalid, invalid}));
}

TEST_F(AudioRoute, WithoutMemoryAPathOrASettingIsLeftOut) {
  const Lines no_path = {
      engine_error("Unable to allocate more paths"),
      engine_error("path created failed, please check the path if existed"),
  };
  const Lines no_setting = {engine_error("Unable to allocate more path settings")};
  // A path grows two arrays, its first setting a third.
  for (const int left : {0, 1, 2}) {
    SCOPED_TRACE(left);
    fake_card.controls[1].values = {5, 6, 7};
    arrays_left = left;
    const bool loaded = load(
        "<mixer><path name='p'><ctl name='Switch' value='1'/></path>"
        "<ctl name='Volume' value='9'/></mixer>");
    arrays_left = INT_MAX;
    ASSERT_TRUE(loaded);
    EXPECT_EQ(log_.take(), left < 2 ? no_path : no_setting);
    EXPECT_EQ(take_writes(), Writes{"Volume = 9 9 9"});  // the file is read on
    EXPECT_EQ(audio_route_apply_and_update_path(route_.get(), "p"), left < 2 ? -1 : 0);
    EXPECT_EQ(take_writes(), Writes{});
    log_.take();
  }
  no_parser = true;
  EXPECT_FALSE(load("<mixer/>"));
  no_parser = false;
  EXPECT_EQ(log_.take(), Lines{engine_error("Failed to create XML parser")});
}

// Also far more controls and paths than one growth step, defined out of their names' order.
TEST_F(AudioRoute, ArraysStartWithEightAndDouble) {
  constexpr int kPaths = 300;
  fake_card.controls.clear();
  std::string paths;
  for (int i = 0; i < 3000; ++i) {
    fake_card.controls.push_back({"c" + std::to_string(i), MIXER_CTL_TYPE_INT, {0}});
  }
  for (int i = 0; i < kPaths; ++i) {
    paths += "<path name='p" + std::to_string((i * 7) % kPaths) + "'>";
    for (int j = 0; j <= i % 20; ++j) {
      paths += "<ctl name='c" + std::to_string((i * 31 + j) % 3000) + "' value='1'/>";
    }
    paths += "</path>";
  }
  ASSERT_TRUE(load("<mixer>" + paths + "</mixer>"));
  EXPECT_EQ(route_->mixer_path_size, 512U);
  for (uint32_t i = 0; i < kPaths; ++i) {
    const mixer_path& path = route_->mixer_path[i];
    ASSERT_EQ(path.length, i % 20 + 1);
    EXPECT_EQ(path.size, path.length <= 8 ? 8U : path.length <= 16 ? 16U : 32U);
    EXPECT_EQ(audio_route_apply_and_update_path(route_.get(), path.name), 0);
    EXPECT_EQ(take_writes().size(), path.length);
    audio_route_force_reset_and_update_path(route_.get(), path.name);
    EXPECT_EQ(take_writes().size(), path.length);
  }
}
