// The handset's device models without a process: the caller is the test itself, whose addresses are
// its own pointers.

#include <drm.h>
#include <drm_mode.h>
#include <errno.h>
#include <gtest/gtest.h>
#include <linux/media.h>
#include <sound/asound.h>
#include <string.h>
#include <sys/mman.h>
#include <unistd.h>

#include <functional>
#include <stdexcept>

#include "handset/models/cameras.h"
#include "handset/models/display_card.h"
#include "handset/models/sound_card.h"

using namespace handset;

static uint64_t address(const void* memory) {
  return reinterpret_cast<uint64_t>(memory);
}

class FakeCaller : public Caller {
 public:
  bool read(uint64_t address, void* data, size_t size) const override {
    return address != 0 && memcpy(data, reinterpret_cast<const void*>(address), size) == data;
  }
  bool write(uint64_t address, const void* data, size_t size) const override {
    return address != 0 && memcpy(reinterpret_cast<void*>(address), data, size) != nullptr;
  }
  void note(const std::string& entry) const override {
    notes.push_back(entry);
  }

  mutable std::vector<std::string> notes;
};

// One open of a device; the descriptor is closed with it.
struct Open {
  Open(Device* device, const FakeCaller& caller)
      : caller(caller), opened(device->open(caller, 0)) {}
  ~Open() {
    close(opened.fd);
  }
  template <typename Record>
  int64_t operator()(uint64_t request, Record* record) {
    return opened.file->ioctl(caller, static_cast<uint32_t>(request), address(record));
  }
  const FakeCaller& caller;
  OpenedDevice opened;
};

// ---- The display card

static constexpr uint32_t kCrtc = DisplayCard::kCrtcs;
static constexpr uint32_t kPanel = DisplayCard::kConnectors;
static constexpr uint32_t kPlane = DisplayCard::kPlanes;
static constexpr uint16_t kWidth = 40;
static constexpr uint16_t kHeight = 20;

static DisplayCard::Card small_card() {
  DisplayCard::Connector panel;
  panel.modes = {{.width = kWidth, .height = kHeight}};
  DisplayCard::Card card;
  card.connectors = {panel};
  return card;
}

struct Value {
  uint32_t object;
  std::string property;
  uint64_t value;
};

// A client that has asked for atomic mode setting, with a mode's blob and a framebuffer of one
// colour as large as the panel.
struct Client {
  explicit Client(DisplayCard* card) : open(card, caller) {
    drm_set_client_cap atomic = {DRM_CLIENT_CAP_ATOMIC, 1};
    EXPECT_EQ(open(DRM_IOCTL_SET_CLIENT_CAP, &atomic), 0);
    drm_mode_modeinfo info = {};
    info.hdisplay = kWidth;
    info.vdisplay = kHeight;
    mode = blob(&info, sizeof(info));
    framebuffer = make_framebuffer();
  }

  uint32_t blob(const void* data, uint32_t size) {
    drm_mode_create_blob record = {address(data), size, 0};
    EXPECT_EQ(open(DRM_IOCTL_MODE_CREATEPROPBLOB, &record), 0);
    return record.blob_id;
  }

  // Red, 0xff0000, but for a blue pixel in the last row's last place.
  uint32_t make_framebuffer() {
    drm_mode_create_dumb dumb = {};
    dumb.width = kWidth;
    dumb.height = kHeight;
    dumb.bpp = 32;
    EXPECT_EQ(open(DRM_IOCTL_MODE_CREATE_DUMB, &dumb), 0);
    drm_mode_map_dumb map = {};
    map.handle = dumb.handle;
    EXPECT_EQ(open(DRM_IOCTL_MODE_MAP_DUMB, &map), 0);
    void* mapped = mmap(nullptr, dumb.size, PROT_WRITE, MAP_SHARED, open.opened.fd,
                        static_cast<off_t>(map.offset));
    auto* pixels = static_cast<uint32_t*>(mapped);
    for (uint32_t y = 0; y < kHeight; ++y) {
      for (uint32_t x = 0; x < kWidth; ++x) {
        pixels[y * dumb.pitch / 4 + x] = y == kHeight - 1 && x == kWidth - 1 ? 0xff0000 : 0xff;
      }
    }
    munmap(mapped, dumb.size);
    drm_mode_fb_cmd2 add = {};
    add.width = kWidth;
    add.height = kHeight;
    add.pixel_format = 'X' | 'B' << 8 | '2' << 16 | static_cast<uint32_t>('4') << 24;
    add.handles[0] = dumb.handle;
    add.pitches[0] = dumb.pitch;
    EXPECT_EQ(open(DRM_IOCTL_MODE_ADDFB2, &add), 0);
    return add.fb_id;
  }

  uint32_t property(uint32_t object, const std::string& name) {
    uint32_t ids[16] = {};
    uint64_t values[16] = {};
    drm_mode_obj_get_properties all = {address(ids), address(values), 16, object, 0};
    EXPECT_EQ(open(DRM_IOCTL_MODE_OBJ_GETPROPERTIES, &all), 0);
    for (uint32_t i = 0; i < all.count_props; ++i) {
      drm_mode_get_property record = {};
      record.prop_id = ids[i];
      EXPECT_EQ(open(DRM_IOCTL_MODE_GETPROPERTY, &record), 0);
      if (record.name == name) {
        return ids[i];
      }
    }
    return 0;
  }

  // What lights the panel.
  std::vector<Value> lighting() const {
    const uint64_t width = uint64_t{kWidth} << 16;
    const uint64_t height = uint64_t{kHeight} << 16;
    return {
        {kPanel, "CRTC_ID", kCrtc}, {kCrtc, "MODE_ID", mode},       {kCrtc, "ACTIVE", 1},
        {kPlane, "CRTC_ID", kCrtc}, {kPlane, "FB_ID", framebuffer}, {kPlane, "SRC_W", width},
        {kPlane, "SRC_H", height},  {kPlane, "CRTC_W", kWidth},     {kPlane, "CRTC_H", kHeight}};
  }

  int64_t commit(const std::vector<Value>& values, uint32_t flags = DRM_MODE_ATOMIC_ALLOW_MODESET) {
    std::vector<uint32_t> objects;
    std::vector<uint32_t> properties;
    std::vector<uint64_t> numbers;
    for (const Value& v : values) {
      objects.push_back(v.object);
      properties.push_back(property(v.object < 1000 ? v.object : kCrtc, v.property));
      numbers.push_back(v.value);
    }
    const std::vector<uint32_t> counts(values.size(), 1);
    drm_mode_atomic request = {};
    request.flags = flags;
    request.count_objs = static_cast<uint32_t>(values.size());
    request.objs_ptr = address(objects.data());
    request.count_props_ptr = address(counts.data());
    request.props_ptr = address(properties.data());
    request.prop_values_ptr = address(numbers.data());
    return open(DRM_IOCTL_MODE_ATOMIC, &request);
  }

  FakeCaller caller;
  Open open;
  uint32_t mode = 0;
  uint32_t framebuffer = 0;
};

TEST(DisplayCardModel, ShowsWhatIsCommittedUntilTheClientLeaves) {
  DisplayCard card(small_card());
  {
    Client client(&card);
    EXPECT_EQ(
        client.commit(client.lighting(), DRM_MODE_ATOMIC_ALLOW_MODESET | DRM_MODE_ATOMIC_TEST_ONLY),
        0);
    EXPECT_EQ(card.commits(), 0);
    EXPECT_EQ(card.picture().at(0, 0), 0U);
    EXPECT_TRUE(client.caller.notes.empty());

    EXPECT_EQ(client.commit(client.lighting()), 0);
    EXPECT_EQ(card.picture().at(0, 0), 0xff0000U);
    EXPECT_EQ(card.picture().at(kWidth - 1, kHeight - 1), 0x0000ffU);

    // A smaller piece of it, further in, and the rest is black.
    EXPECT_EQ(client.commit({{kPlane, "SRC_X", uint64_t{kWidth - 8} << 16},
                             {kPlane, "SRC_W", uint64_t{8} << 16},
                             {kPlane, "CRTC_W", 8}},
                            0),
              0);
    EXPECT_EQ(card.picture().at(7, kHeight - 1), 0x0000ffU);
    EXPECT_EQ(card.picture().at(8, 0), 0U);
    EXPECT_EQ(client.caller.notes,
              (std::vector<std::string>{"panel 40x20 0xff0000", "panel 40x20 0xff0000"}));
    EXPECT_EQ(card.objects(), (DisplayCard::Objects{1, 1, 1}));
  }
  EXPECT_EQ(card.objects(), DisplayCard::Objects{});
  EXPECT_EQ(card.lit(), "off");
}

TEST(DisplayCardModel, RefusesWhatAKernelRefuses) {
  const uint64_t wide = uint64_t{kWidth + 1} << 16;
  const struct {
    const char* what;
    Value changed;  // instead of what lights the panel, or besides it
    uint32_t flags;
    int error;
  } cases[] = {
      {"nothing changed", {kCrtc, "ACTIVE", 1}, DRM_MODE_ATOMIC_ALLOW_MODESET, 0},
      {"no leave to set a mode", {kCrtc, "ACTIVE", 1}, 0, EINVAL},
      {"active without a mode", {kCrtc, "MODE_ID", 0}, DRM_MODE_ATOMIC_ALLOW_MODESET, EINVAL},
      {"no such mode", {kCrtc, "MODE_ID", 77777}, DRM_MODE_ATOMIC_ALLOW_MODESET, EINVAL},
      {"a mode, but no connector", {kPanel, "CRTC_ID", 0}, DRM_MODE_ATOMIC_ALLOW_MODESET, EINVAL},
      {"no such CRTC", {kPanel, "CRTC_ID", kCrtc + 7}, DRM_MODE_ATOMIC_ALLOW_MODESET, EINVAL},
      {"no framebuffer", {kPlane, "FB_ID", 0}, DRM_MODE_ATOMIC_ALLOW_MODESET, EINVAL},
      {"no such framebuffer", {kPlane, "FB_ID", 77777}, DRM_MODE_ATOMIC_ALLOW_MODESET, EINVAL},
      {"beyond it", {kPlane, "SRC_W", wide}, DRM_MODE_ATOMIC_ALLOW_MODESET, ENOSPC},
      {"begins too far in", {kPlane, "SRC_X", 1 << 16}, DRM_MODE_ATOMIC_ALLOW_MODESET, ENOSPC},
      {"scaled", {kPlane, "CRTC_W", 8}, DRM_MODE_ATOMIC_ALLOW_MODESET, ERANGE},
      {"no such property", {kPlane, "no such", 1}, DRM_MODE_ATOMIC_ALLOW_MODESET, ENOENT},
      {"no such object", {99999, "ACTIVE", 1}, DRM_MODE_ATOMIC_ALLOW_MODESET, ENOENT},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.what);
    DisplayCard card(small_card());
    Client client(&card);
    std::vector<Value> values = client.lighting();
    values.push_back(c.changed);
    EXPECT_EQ(client.commit(values, c.flags), -c.error);
    EXPECT_EQ(card.lit() == "off", c.error != 0);
    EXPECT_EQ(card.commits(), c.error == 0 ? 1 : 0);
  }
}

// The encoder's CRTC and the mode and framebuffer of that CRTC.
static std::vector<uint64_t> pipeline(Open& open) {
  drm_mode_get_connector connector = {};
  connector.connector_id = kPanel;
  EXPECT_EQ(open(DRM_IOCTL_MODE_GETCONNECTOR, &connector), 0);
  drm_mode_get_encoder encoder = {};
  encoder.encoder_id = DisplayCard::kEncoders;
  EXPECT_EQ(open(DRM_IOCTL_MODE_GETENCODER, &encoder), 0);
  drm_mode_crtc crtc = {};
  crtc.crtc_id = kCrtc;
  EXPECT_EQ(open(DRM_IOCTL_MODE_GETCRTC, &crtc), 0);
  return {connector.encoder_id, encoder.crtc_id, crtc.mode_valid, crtc.mode.hdisplay, crtc.fb_id};
}

TEST(DisplayCardModel, TellsThePipelineThatWasCommitted) {
  DisplayCard card(small_card());
  Client client(&card);
  const std::vector<uint64_t> off = {0, 0, 0, 0, 0};
  EXPECT_EQ(pipeline(client.open),
            (std::vector<uint64_t>{DisplayCard::kEncoders, kCrtc, 0, 0, 0}));  // the first logo
  EXPECT_EQ(client.commit(client.lighting()), 0);
  EXPECT_EQ(pipeline(client.open),
            (std::vector<uint64_t>{DisplayCard::kEncoders, kCrtc, 1, kWidth, client.framebuffer}));
  EXPECT_EQ(client.commit({{kPanel, "CRTC_ID", 0},
                           {kCrtc, "MODE_ID", 0},
                           {kCrtc, "ACTIVE", 0},
                           {kPlane, "CRTC_ID", 0},
                           {kPlane, "FB_ID", 0}}),
            0);
  EXPECT_EQ(pipeline(client.open), off);
  // A framebuffer that goes takes the pipeline with it.
  EXPECT_EQ(client.commit(client.lighting()), 0);
  uint32_t framebuffer = client.framebuffer;
  EXPECT_EQ(client.open(DRM_IOCTL_MODE_RMFB, &framebuffer), 0);
  EXPECT_EQ(pipeline(client.open), off);
}

TEST(DisplayCardModel, LooksAtTypesFlagsAndPlanes) {
  DisplayCard::Card hardware = small_card();
  hardware.plane_crtcs = 2;  // the other CRTC
  using Type = DisplayCard::PlaneType;
  hardware.planes = {Type::kPrimary, Type::kOverlay, Type::kCursor, Type::kOverlay};
  DisplayCard card(hardware);
  Client client(&card);
  EXPECT_EQ(client.commit(client.lighting()), -EINVAL);
  EXPECT_EQ(client.commit({{kPlane, "type", 2}}), -EINVAL);
  EXPECT_EQ(client.commit({}, 1U << 31), -EINVAL);
  EXPECT_EQ(client.commit({}, DRM_MODE_ATOMIC_TEST_ONLY | DRM_MODE_PAGE_FLIP_EVENT), -EINVAL);
  drm_mode_atomic request = {};
  request.reserved = 1;
  EXPECT_EQ(client.open(DRM_IOCTL_MODE_ATOMIC, &request), -EINVAL);

  drm_mode_obj_get_properties properties = {};
  properties.obj_id = kPlane;
  properties.obj_type = DRM_MODE_OBJECT_CRTC;
  EXPECT_EQ(client.open(DRM_IOCTL_MODE_OBJ_GETPROPERTIES, &properties), -ENOENT);
  properties.obj_type = DRM_MODE_OBJECT_PLANE;
  EXPECT_EQ(client.open(DRM_IOCTL_MODE_OBJ_GETPROPERTIES, &properties), 0);

  // A client that asks for nothing sees the overlays alone.
  FakeCaller caller;
  Open plain(&card, caller);
  drm_mode_get_plane_res planes = {};
  EXPECT_EQ(plain(DRM_IOCTL_MODE_GETPLANERESOURCES, &planes), 0);
  EXPECT_EQ(planes.count_planes, 2U);
  uint32_t overlays[2] = {};
  planes.plane_id_ptr = address(overlays);
  EXPECT_EQ(plain(DRM_IOCTL_MODE_GETPLANERESOURCES, &planes), 0);
  EXPECT_EQ(overlays[0], kPlane + 1);
  EXPECT_EQ(overlays[1], kPlane + 3);
  drm_set_client_cap universal = {DRM_CLIENT_CAP_UNIVERSAL_PLANES, 1};
  EXPECT_EQ(plain(DRM_IOCTL_SET_CLIENT_CAP, &universal), 0);
  EXPECT_EQ(plain(DRM_IOCTL_MODE_GETPLANERESOURCES, &planes), 0);
  EXPECT_EQ(planes.count_planes, 4U);
}

TEST(DisplayCardModel, HasOneMasterAndFailsWhatItIsTold) {
  DisplayCard card(small_card());
  {
    Client first(&card);
    Client second(&card);
    EXPECT_EQ(second.commit(second.lighting()), -EACCES);
    card.fail(DRM_IOCTL_MODE_ATOMIC, EIO, 1);
    EXPECT_EQ(first.commit(first.lighting()), 0);
    EXPECT_EQ(first.commit(first.lighting()), -EIO);
    EXPECT_EQ(first.commit(first.lighting()), 0);

    drm_mode_destroy_blob others = {second.mode};
    EXPECT_EQ(first.open(DRM_IOCTL_MODE_DESTROYPROPBLOB, &others), -ENOENT);
    uint32_t framebuffer = first.framebuffer;
    EXPECT_EQ(first.open(DRM_IOCTL_MODE_RMFB, &framebuffer), 0);
    EXPECT_EQ(card.lit(), "off");
  }
  DisplayCard other(small_card());
  Client elsewhere[2] = {Client(&other), Client(&other)};  // where the first two were in memory
  Client third(&card);
  EXPECT_EQ(third.commit(third.lighting()), 0);
}

// ---- The sound card

static snd_ctl_elem_value element(const char* name) {
  snd_ctl_elem_value record = {};
  strcpy(reinterpret_cast<char*>(record.id.name), name);
  return record;
}

TEST(SoundCardModel, TakesWhatIsInTheRange) {
  SoundCard card;
  card.describe("INT 2; Volume; 5 9; 6 7\nENUM 1; Path; off, near, far; near\n");
  const struct {
    const char* name;
    long value;
    int failure;
    int64_t result;
    const char* shown;
  } cases[] = {
      {"Volume", 9, 0, 1, "Volume = 9 7"},        {"Volume", 9, 0, 0, "Volume = 9 7"},
      {"Volume", 10, 0, -EINVAL, "Volume = 9 7"}, {"Volume", 4, 0, -EINVAL, "Volume = 9 7"},
      {"Volume", 5, EIO, -EIO, "Volume = 9 7"},   {"Nothing", 1, 0, -ENOENT, ""},
  };
  FakeCaller caller;
  Open open(&card, caller);
  EXPECT_EQ(card.handles(), 1U);
  for (const auto& c : cases) {
    SCOPED_TRACE(c.name + std::to_string(c.value));
    card.fail(c.name, SoundCard::Access::kWrite, c.failure);
    snd_ctl_elem_value record = element(c.name);
    record.value.integer.value[0] = c.value;
    record.value.integer.value[1] = 7;
    EXPECT_EQ(open(SNDRV_CTL_IOCTL_ELEM_WRITE, &record), c.result);
    EXPECT_EQ(card.show(c.name), c.shown);
  }
  EXPECT_EQ(card.writes().size(), 2U);
  EXPECT_EQ(caller.notes.back(), "mixer Volume = 9 7 = EIO");

  snd_ctl_elem_value read = element("Volume");
  EXPECT_EQ(open(SNDRV_CTL_IOCTL_ELEM_READ, &read), 0);
  EXPECT_EQ(read.value.integer.value[0], 9);
  EXPECT_EQ(read.id.numid, 1U);
  card.fail("Volume", SoundCard::Access::kRead, EBUSY);
  EXPECT_EQ(open(SNDRV_CTL_IOCTL_ELEM_READ, &read), -EBUSY);
  EXPECT_EQ(open(SNDRV_CTL_IOCTL_ELEM_READ, static_cast<snd_ctl_elem_value*>(nullptr)), -EFAULT);
}

TEST(SoundCardModel, SetsTheNearestInTheRange) {
  SoundCard card;
  card.describe("INT 1; Volume; 5 9; 6\nENUM 1; Path; off, near; near\nINT64 64; Wide; ;\n");
  const struct {
    const char *name, *value, *shown;
  } cases[] = {{"Volume", "3", "Volume = 5"},
               {"Volume", "77", "Volume = 9"},
               {"Path", "off", "Path = off"},
               {"Path", "nowhere", ""},
               {"Nothing", "1", ""}};
  for (const auto& c : cases) {
    EXPECT_EQ(card.set(c.name, c.value), *c.shown != '\0');
    EXPECT_EQ(card.show(c.name), *c.shown == '\0' && *c.name == 'P' ? "Path = off" : c.shown);
  }
  for (const char* text : {"ENUM 1; E; a, b; c", "ENUM 1; E; ;", "INT 1; I; 5 9; 77",
                           "INT 1; I; 9 5; 7", "INT64 65; I; ;", "WORD 1; W; ;", "INT 0; I; ;"}) {
    EXPECT_THROW(card.describe(text), std::runtime_error) << text;
  }
  EXPECT_EQ(card.show("Path"), "Path = off");  // as before
}

// ---- Cameras

TEST(CameraModel, TellsItsIdAndItsPower) {
  struct Control {
    uint32_t op_code = 0x8006;
    uint32_t size = sizeof(Control);
    uint32_t handle_type = 1;
    uint32_t reserved = 0;
    uint64_t handle = 0;
  };
  FakeCaller caller;
  CameraSensor sensor(4);
  Open open(&sensor, caller);
  int32_t id = -1;
  Control right;
  right.handle = address(&id);
  EXPECT_EQ(open(CameraSensor::kControl, &right), 0);
  EXPECT_EQ(id, 4);
  const struct {
    std::function<void(Control*)> spoil;
    int error;
  } cases[] = {{[](Control* c) { c->op_code = 1; }, EINVAL},
               {[](Control* c) { c->size = 8; }, EINVAL},
               {[](Control* c) { c->handle_type = 2; }, EINVAL},
               {[](Control* c) { c->handle = 0; }, EFAULT}};
  for (const auto& c : cases) {
    Control wrong = right;
    c.spoil(&wrong);
    EXPECT_EQ(open(CameraSensor::kControl, &wrong), -c.error);
  }
  EXPECT_EQ(open(CameraSensor::kPowerUp, &right), 0);
  sensor.fail(CameraSensor::kPowerDown, EIO);
  EXPECT_EQ(open(CameraSensor::kPowerDown, &right), -EIO);
  EXPECT_TRUE(sensor.powered());
  EXPECT_EQ(caller.notes,
            (std::vector<std::string>{"camera 4 power up", "camera 4 power down = EIO"}));
}

TEST(CameraModel, ListsTheRequestManagersEntities) {
  FakeCaller caller;
  Cameras cameras;
  Open open(&cameras.request_manager, caller);
  std::vector<std::string> names;
  media_entity_desc entity = {};
  entity.id = MEDIA_ENT_ID_FLAG_NEXT;
  while (open(MEDIA_IOC_ENUM_ENTITIES, &entity) == 0) {
    names.push_back(entity.name);
    entity.id |= MEDIA_ENT_ID_FLAG_NEXT;
  }
  EXPECT_EQ(names,
            (std::vector<std::string>{"cam-req-mgr", "v4l-subdev0", "v4l-subdev1", "v4l-subdev2",
                                      "v4l-subdev3", "v4l-subdev4", "v4l-subdev5", "v4l-subdev6"}));
}
