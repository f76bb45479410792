// A display card: what the kernel's mode setting shows of it to libdrm, and what an operator would
// see on its panel. Atomic requests are checked as a kernel checks them. Callable from any thread.

#pragma once

#include <cstdint>
#include <map>
#include <mutex>
#include <optional>
#include <string>
#include <vector>

#include "handset/links/device.h"

namespace handset {

// Pixels as 0xRRGGBB, row by row.
struct Picture {
  int width = 0;
  int height = 0;
  std::vector<uint32_t> pixels;

  uint32_t at(int x, int y) const {
    return pixels[static_cast<size_t>(y) * static_cast<size_t>(width) + static_cast<size_t>(x)];
  }
  // A picture of every so many pixels of each row and column.
  Picture smaller(int divisor) const;
  // The bytes of a PNG file.
  std::string png() const;
  // False when the file cannot be written.
  bool write_png(const std::string& file) const;
};

class DisplayCard : public Device {
 public:
  struct Mode {
    uint16_t width;
    uint16_t height;
    bool preferred = false;
  };
  struct Connector {
    uint32_t type = 16;  // DRM_MODE_CONNECTOR_DSI
    bool connected = true;
    std::vector<Mode> modes = {};
    int crtc = 0;                 // the CRTC that drives it until the first commit; -1 for none
    uint32_t possible_crtcs = 3;  // mask of those it can drive
    std::string mode_properties = {};  // text of that blob; no such property when empty
  };
  enum class PlaneType { kOverlay, kPrimary, kCursor };  // with the kernel's values
  struct Card {
    bool dumb_buffers = true;
    int crtcs = 2;
    std::vector<PlaneType> planes = {PlaneType::kPrimary, PlaneType::kPrimary, PlaneType::kOverlay,
                                     PlaneType::kOverlay};
    uint32_t plane_crtcs = ~0U;     // mask of the CRTCs that they can be shown on
    uint32_t pitch_alignment = 32;  // bytes
    bool mappable = true;           // false: its buffers cannot be mapped
    std::string lacks = {};         // a property that none of its objects has
    std::vector<Connector> connectors = {};
  };

  // A healthy phone's panel: 1080 x 2340, DSI, two pipes.
  static Card phone_card();

  explicit DisplayCard(const Card& card);
  ~DisplayCard() override;

  // What the lit panel shows; the first connected one, black, when none is lit.
  Picture picture() const;

  bool is_lit() const;

  // Everything the daemon has made on the card and not released.
  struct Objects {
    size_t buffers = 0;
    size_t framebuffers = 0;
    size_t blobs = 0;
    bool operator==(const Objects&) const = default;
  };
  Objects objects() const;
  // How many requests were committed.
  int commits() const;

  // Makes one ioctl fail with an errno: the next one of this request, or the one after skip more.
  void fail(uint32_t request, int error, int skip = 0);

  OpenedDevice open(const Caller& caller, int flags) override;

  // ---- The card for the requests on it (display_card_ioctl.cpp)

  // Object ids: the first of each kind. What is made at run time counts from 1000.
  static constexpr uint32_t kCrtcs = 100;
  static constexpr uint32_t kEncoders = 200;  // one for each connector
  static constexpr uint32_t kConnectors = 300;
  static constexpr uint32_t kPlanes = 400;
  static constexpr uint32_t kProperties = 500;

  static constexpr uint32_t kLargest = 8192;  // pixels, either way

  struct Property {
    std::string name;
    uint32_t flags;  // DRM_MODE_PROP_...; one that is not atomic is never written
  };
  struct Buffer {
    uint32_t width;
    uint32_t height;
    uint32_t pitch;
    uint64_t offset;  // in the file's memory
  };
  struct Framebuffer {
    uint32_t width;
    uint32_t height;
    Buffer buffer;
    int memory;  // descriptor of the memory that the buffer lies in
  };
  using PropertyValues = std::map<uint32_t, uint64_t>;
  // New values of some of an object's properties, in a request's order.
  struct Change {
    uint32_t object;
    std::vector<std::pair<uint32_t, uint64_t>> values;
  };

  const Card& hardware() const {
    return card_;
  }

  // The error that fail() has in store for this call of the request: a negative errno, or 0.
  int take_failure(uint32_t request);

  // The master is the one client that may commit: the first to come, until it leaves. A client is
  // told apart by any pointer of its own.
  void enter(const void* client);
  void leave(const void* client);
  bool is_master(const void* client) const;

  // Nothing when there is no such property, object or blob.
  std::optional<Property> property(uint32_t id) const;
  std::optional<PropertyValues> values(uint32_t object) const;
  std::optional<std::string> blob(uint32_t id) const;

  // Its id. A blob that a CRTC uses outlives its dismissal.
  uint32_t add_blob(const std::string& content);
  void dismiss_blob(uint32_t id);
  // Its id. The memory must last until it is removed. Planes that show it then go dark, and their
  // CRTC with them.
  uint32_t add_framebuffer(const Framebuffer& framebuffer);
  void remove_framebuffer(uint32_t id);
  // The card only counts buffers; they are their clients'.
  void count_buffers(int added);

  // Takes all changes or none; flags as in an atomic request (DRM_MODE_ATOMIC_...). 0, or the
  // negative errno that a kernel gives.
  int commit(const std::vector<Change>& changes, uint32_t flags);

  // The CRTC that drives a connector, by the connector's index; 0 for none.
  uint32_t driving_crtc(uint32_t index) const;
  // What a CRTC shows: the blob of its mode and the framebuffer of its first plane, 0 for none.
  struct Shown {
    uint32_t mode;
    uint32_t framebuffer;
  };
  Shown shown(uint32_t crtc) const;

  // What is lit: "1080x2340 0xffffff" with the first pixel's colour, or "off".
  std::string lit() const;

 private:
  using Values = std::map<uint32_t, PropertyValues>;  // by object

  uint32_t property_id(const std::string& name) const;
  uint64_t value(const Values& values, uint32_t object, const char* property) const;
  bool is_crtc(uint64_t id) const;
  bool is_mode(uint64_t blob) const;
  int change(const std::vector<Change>& changes, Values* values, bool* mode_set) const;
  int check(const Values& values) const;
  int check_crtc(const Values& values, uint32_t crtc) const;
  int check_connector(const Values& values, uint32_t index) const;
  int check_plane(const Values& values, uint32_t plane) const;
  uint32_t lit_crtc() const;
  Picture blank_picture(uint32_t crtc) const;
  void draw_plane(uint32_t plane, Picture* picture) const;
  uint32_t first_pixel() const;
  void reset(uint32_t object, const char* property);
  void turn_off(uint32_t crtc);

  mutable std::mutex mutex_;
  const Card card_;
  std::map<uint32_t, Property> properties_;
  std::map<uint32_t, std::string> blobs_;
  std::map<uint32_t, Framebuffer> framebuffers_;
  size_t buffers_ = 0;
  size_t made_blobs_ = 0;
  const void* master_ = nullptr;
  Values values_;
  std::vector<uint32_t> driving_crtcs_;  // by connector
  uint32_t next_id_ = 1000;
  int commits_ = 0;
  std::map<uint32_t, std::pair<int, int>> failures_;  // request to errno and calls to skip
};

}  // namespace handset
