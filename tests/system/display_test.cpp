// The panel as an operator sees it, and the card's objects as the kernel counts them.

#include <drm.h>
#include <errno.h>

#include <fstream>

#include "tests/system/station.h"

static constexpr uint32_t kWhite = 0xffffff;
static constexpr uint32_t kRed = 0xff0000;
static constexpr uint32_t kBlue = 0x0000ff;
static const char kCard[] = "/dev/dri/card0";

static DisplayCard::Connector connector(uint32_t type, uint16_t width, uint16_t height) {
  DisplayCard::Connector made;
  made.type = type;
  made.modes = {{.width = width, .height = height}};
  return made;
}

static DisplayCard::Card card(const std::vector<DisplayCard::Connector>& connectors) {
  DisplayCard::Card made;
  made.connectors = connectors;
  return made;
}

// A phone with one card of the test's own.
struct CardPhone {
  explicit CardPhone(const DisplayCard::Card& made, const char* daemon = FTM_DAEMON)
      : device(made), phone({.daemon = daemon}) {
    phone.add_device(kCard, &device);
  }
  DisplayCard device;
  Handset phone;
};

static bool all(const Picture& picture, uint32_t colour) {
  return std::all_of(picture.pixels.begin(), picture.pixels.end(),
                     [&](uint32_t pixel) { return pixel == colour; });
}

TEST(Display, IsWhiteWhileOpenAndBlackAfterwards) {
  Handset phone;
  phone.start();
  EXPECT_TRUE(all(phone.display.picture(), 0));
  EXPECT_EQ(phone.display.objects(), DisplayCard::Objects{});
  phone.command("AT+EDFT=0,5");
  const Picture lit = phone.display.picture();
  EXPECT_EQ(lit.width, 1080);
  EXPECT_EQ(lit.height, 2340);
  EXPECT_TRUE(all(lit, kWhite));
  EXPECT_EQ(phone.open_devices("drm-card"), 1U);
  phone.command("AT+EDFT=0,0");
  EXPECT_TRUE(all(phone.display.picture(), 0));
  EXPECT_EQ(phone.display.objects(), DisplayCard::Objects{});
  EXPECT_EQ(phone.open_devices("drm-card"), 0U);
  // A daemon that ends takes its picture with it.
  phone.command("AT+EDFT=0,5");
  phone.stop();
  EXPECT_EQ(phone.open_devices("drm-card"), 0U);
  EXPECT_TRUE(all(phone.display.picture(), 0));
  EXPECT_EQ(phone.display.objects(), DisplayCard::Objects{});
}

TEST(Display, ShowsTheHalvesOfOneBufferWhateverTheTopology) {
  const std::vector<std::pair<std::string, int>> topologies = {
      {"sde_singlepipe", 1},
      {"sde_singlepipe_dsc", 1},
      {"sde_dualpipe", 2},
      {"sde_dualpipe_dsc", 2},
      {"sde_dualpipemerge", 2},
      {"sde_dualpipemerge_dsc", 2},
      {"sde_dualpipe_dscmerge", 2},
      {"sde_ppsplit", 1},
      {"sde_other", 2},
      {"sde_singlepipe ", 2},
      {"sde_dualpipe\n topology=sde_singlepipe", 2},
      {"", 2},
  };
  for (const auto& [topology, mixers] : topologies) {
    SCOPED_TRACE(topology);
    DisplayCard::Connector panel = connector(16, 60, 40);
    panel.mode_properties = "fps=60\ntopology=" + topology + "\nmode=video\n";
    CardPhone p(card({panel}), FTM_DISPLAY_PROBE);
    p.phone.start();
    EXPECT_EQ(p.phone.command("AT+HALVES"), std::vector<std::string>{"drawn"});
    EXPECT_TRUE(all(p.device.picture(), 0));  // the other buffer is shown still
    p.phone.command("AT+FLIP");
    EXPECT_EQ(times(p.phone.output(), "number of lms in topology " + std::to_string(mixers) + "\n"),
              1U);
    const Picture picture = p.device.picture();
    ASSERT_EQ(picture.width, 60);
    for (const int y : {0, 39}) {
      EXPECT_EQ(picture.at(0, y), kRed);
      EXPECT_EQ(picture.at(29, y), kRed);
      EXPECT_EQ(picture.at(30, y), kBlue);
      EXPECT_EQ(picture.at(59, y), kBlue);
    }
  }
}

TEST(Display, PrefersPanelsAndTheirPreferredMode) {
  constexpr uint32_t kHdmi = 11;
  constexpr uint32_t kLvds = 7;
  constexpr uint32_t kEdp = 14;
  constexpr uint32_t kDsi = 16;
  DisplayCard::Connector two_modes = connector(kHdmi, 20, 10);
  two_modes.modes.push_back({.width = 26, .height = 10, .preferred = true});
  two_modes.modes.push_back({.width = 28, .height = 10, .preferred = true});
  DisplayCard::Connector no_preference = connector(kHdmi, 20, 10);
  no_preference.modes.push_back({.width = 26, .height = 10});
  DisplayCard::Connector unplugged = connector(kLvds, 24, 10);
  unplugged.connected = false;
  DisplayCard::Connector no_mode = connector(kLvds, 24, 10);
  no_mode.modes.clear();
  DisplayCard::Connector no_crtc_yet = connector(kDsi, 28, 10);
  no_crtc_yet.crtc = -1;
  no_crtc_yet.possible_crtcs = 2;  // the second one only
  DisplayCard::Connector beside = connector(kHdmi, 22, 10);
  beside.crtc = 1;
  struct Case {
    std::vector<DisplayCard::Connector> connectors;
    int width;
  };
  const std::vector<Case> cases = {
      {{connector(kHdmi, 20, 10), connector(kDsi, 22, 10)}, 22},
      {{connector(kDsi, 20, 10), connector(kEdp, 22, 10)}, 22},
      {{connector(kEdp, 20, 10), connector(kLvds, 22, 10), connector(kLvds, 24, 10)}, 22},
      {{unplugged, no_mode, connector(kDsi, 20, 10)}, 20},
      {{two_modes}, 26},
      {{no_preference}, 20},
      {{connector(kHdmi, 20, 10), connector(kHdmi, 22, 10)}, 20},
      {{no_crtc_yet}, 28},
      {{connector(kDsi, 20, 10), beside}, 20},
  };
  for (size_t i = 0; i < cases.size(); ++i) {
    SCOPED_TRACE(i);
    CardPhone p(card(cases[i].connectors));
    p.phone.start();
    p.phone.command("AT+EDFT=0,5");
    const Picture picture = p.device.picture();
    EXPECT_EQ(picture.width, cases[i].width);
    EXPECT_TRUE(all(picture, kWhite));
    // Six at start-up and four now, all the panel's: the others stay as they are.
    EXPECT_EQ(p.device.commits(), 10);
  }
}

TEST(Display, TakesTheCrtcThatDrivesThePanel) {
  DisplayCard::Card made = card({connector(16, 20, 10)});
  made.connectors[0].crtc = 1;
  made.plane_crtcs = 2;  // the planes can be shown on that one alone
  CardPhone p(made);
  p.phone.start();  // the first open alone finds it driven
  EXPECT_EQ(p.device.commits(), 6);
}

TEST(Display, SkipsCardsThatCannotShowAnything) {
  DisplayCard::Card no_buffers = card({connector(16, 20, 10)});
  no_buffers.dumb_buffers = false;
  DisplayCard::Connector unplugged = connector(16, 20, 10);
  unplugged.connected = false;
  DisplayCard::Card no_crtc = card({connector(16, 20, 10)});
  no_crtc.crtcs = 0;
  DisplayCard useless[] = {DisplayCard(no_buffers), DisplayCard(card({unplugged})),
                           DisplayCard(no_crtc)};
  DisplayCard right(card({connector(16, 20, 10)}));
  Handset phone;
  for (int i = 0; i < 3; ++i) {
    phone.add_device("/dev/dri/card" + std::to_string(i), &useless[i]);
  }
  phone.add_device("/dev/dri/card15", &right);
  phone.start();
  phone.command("AT+EDFT=0,5");
  EXPECT_TRUE(all(right.picture(), kWhite));
  EXPECT_EQ(phone.open_devices("drm-card"), 1U);
  // Its rows are padded: one colour, too, is filled pixel by pixel, twice at start-up and now.
  EXPECT_EQ(times_logged(phone, "E qlmgr_clear size=10x20\\n"), 3U);
}

TEST(Display, MessagesOfTheCommitStandOnItsSuccess) {
  CardPhone p(card({connector(16, 60, 40)}), FTM_DISPLAY_PROBE);
  p.phone.start();
  p.phone.command("AT+HALVES");
  p.phone.command("AT+FLIP");
  p.phone.command("AT+NOMEM");
  // This card has no topology, and nothing is said of it.
  EXPECT_EQ(times(p.phone.output(), "number of lms in topology"), 0U);
  EXPECT_EQ(times(p.phone.output(), "Atomic Alloc failed. Could not update fb_id\n"), 1U);
  EXPECT_EQ(times(p.phone.output(), "Atomic Alloc failed\n"), 1U);
  EXPECT_EQ(p.device.picture().at(0, 0), kRed);
  EXPECT_EQ(times(p.phone.output(), "Atomic Commit failed in DisableNonMainCrtcs\n"), 1U);
  EXPECT_EQ(times(p.phone.output(), "Atomic Commit failed, rc = 0\n"), 1U);
  const int commits = p.device.commits();
  p.phone.command("AT+REFUSE");  // nothing is committed
  EXPECT_EQ(times(p.phone.output(),
                  "Could not add prop_id = 506 for obj_id 400\n"
                  "Failed to add property for plane_id=400\nFailed to tear down plane 400\n"),
            1U);
  EXPECT_EQ(p.device.commits(), commits);
  p.phone.command("AT+BLANK");  // twice in one command, committed once
  EXPECT_EQ(p.device.commits(), commits + 1);
  EXPECT_EQ(times(p.phone.output(), "Atomic Commit failed, rc = 0\n"), 2U);
  EXPECT_TRUE(all(p.device.picture(), 0));
}

TEST(Display, FillsAMixedColourPixelByPixel) {
  for (const uint32_t alignment : {16U, 256U}) {  // 240 bytes of a row, without padding and with it
    SCOPED_TRACE(alignment);
    DisplayCard::Card made = card({connector(16, 60, 40)});
    made.pitch_alignment = alignment;
    CardPhone p(made, FTM_DISPLAY_PROBE);
    p.phone.start();
    p.phone.command("AT+FILL");
    p.phone.command("AT+FILL");  // an open without a close
    EXPECT_TRUE(all(p.device.picture(), 0x0a141e));
    EXPECT_EQ(p.phone.open_devices("drm-card"), 1U);
    EXPECT_EQ(times_logged(p.phone, "E qlmgr_clear size=40x60\\n"), 2U);
    EXPECT_EQ(times_logged(p.phone, "E qlmfailed to read font: res=-7\\n"), 2U);
    // It blanks the panel first.
    EXPECT_EQ(times(p.phone.output(), "Atomic Commit failed, rc = 0\n"), 3U);
  }
}

TEST(Display, EachFailingCallLeavesNothingBehind) {
  const std::vector<std::pair<uint32_t, int>> failing = {
      {DRM_IOCTL_MODE_CREATE_DUMB, 0},    {DRM_IOCTL_MODE_CREATE_DUMB, 1},
      {DRM_IOCTL_MODE_ADDFB2, 1},         {DRM_IOCTL_MODE_MAP_DUMB, 0},
      {DRM_IOCTL_MODE_CREATEPROPBLOB, 0}, {DRM_IOCTL_MODE_ATOMIC, 0},
      {DRM_IOCTL_MODE_ATOMIC, 1},         {DRM_IOCTL_MODE_RMFB, 0},
      {DRM_IOCTL_GEM_CLOSE, 0},           {DRM_IOCTL_MODE_GETRESOURCES, 0},
  };
  CardPhone p(card({connector(16, 20, 10)}));
  p.phone.start();
  for (const auto& [request, skip] : failing) {
    SCOPED_TRACE(request);
    p.device.fail(request, EIO, skip);
    p.phone.command("AT+EDFT=0,5");
    p.phone.command("AT+EDFT=0,0");
    EXPECT_EQ(p.phone.open_devices("drm-card"), 0U);
    EXPECT_EQ(p.device.objects(), DisplayCard::Objects{});
  }
}

TEST(Display, SaysWhatACardLacksAndLeavesNothingBehind) {
  DisplayCard::Card unmappable = card({connector(16, 20, 10)});
  unmappable.mappable = false;
  const auto without = [](const std::string& property) {
    DisplayCard::Card made = card({connector(16, 20, 10)});
    made.lacks = property;
    return made;
  };
  DisplayCard::Connector nowhere = connector(16, 20, 10);
  nowhere.crtc = -1;
  nowhere.possible_crtcs = 1U << card({}).crtcs;  // the first that the card does not have
  DisplayCard::Card one_plane = card({connector(16, 20, 10)});  // two layer mixers
  one_plane.planes = {DisplayCard::PlaneType::kPrimary};
  struct Case {
    DisplayCard::Card card;
    std::string message;  // on standard output or, by perror, in the log
  };
  const std::vector<Case> cases = {
      {unmappable, "mmap() failed: Invalid argument\n"},
      {without("CRTC_X"), "Could not find obj_id = 400\nError populating plane_id = 400\n"},
      {without("FB_ID"), "Could not find obj_id = 400\nError populating plane_id = 400\n"},
      {without("MODE_ID"), "Could not find obj_id = 100\n"},
      {card({nowhere}), "main_monitor_crtc not found\n"},
      {one_plane, ""},  // in silence
      {card({}), "cannot find/open a drm device"},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.message);
    CardPhone p(c.card);
    p.phone.start();
    p.phone.command("AT+EDFT=0,5");
    EXPECT_TRUE(all(p.device.picture(), 0));
    p.phone.command("AT+EDFT=0,0");
    EXPECT_NE((p.phone.output() + p.phone.log()).find(c.message), std::string::npos);
    EXPECT_EQ(p.phone.open_devices("drm-card"), 0U);
    EXPECT_EQ(p.device.objects(), DisplayCard::Objects{});
  }
}

TEST(Display, AThousandOpensLeaveNothingBehind) {
  CardPhone p(card({connector(16, 20, 10)}));
  p.phone.start();
  p.phone.command("AT+EDFT=0,0");
  const size_t descriptors = p.phone.open_descriptors();
  for (int i = 0; i < 1000; ++i) {
    p.phone.command("AT+EDFT=0,5");
    p.phone.command("AT+EDFT=0,0");
  }
  EXPECT_EQ(p.phone.open_descriptors(), descriptors);
  EXPECT_EQ(p.phone.open_devices("drm-card"), 0U);
  EXPECT_EQ(p.device.objects(), DisplayCard::Objects{});
  std::ifstream maps("/proc/" + std::to_string(p.phone.pid()) + "/maps");
  const std::string mapped{std::istreambuf_iterator<char>(maps), {}};
  EXPECT_EQ(times(mapped, "drm-card"), 0U);
}
