// A display card: what the kernel's mode setting shows of it to libdrm, and what an operator would
// see on its panel. Atomic requests are checked as a kernel checks them. Callable from any thread.

#pragma once

#include <cstdint>
#include <map>
#include <mutex>
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
  // False when the file cannot be written.
  bool write_png(const std::string& file) const;
};

class DrmDevice : public Device {
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
    int crtc = 0;                 // the CRTC that its encoder drives from the start; -1 for none
    uint32_t possible_crtcs = 3;  // mask of those it can drive
    std::string mode_properties = {};  // text of that blob; no such property when empty
  };
  struct Card {
    bool dumb_buffers = true;
    int crtcs = 2;
    int planes = 4;
    uint32_t pitch_alignment = 32;  // bytes
    bool mappable = true;           // false: its buffers cannot be mapped
    std::string lacks = {};         // a property that none of its objects has
    std::vector<Connector> connectors = {};
  };

  // A healthy phone's panel: 1080 x 2340, DSI, two pipes.
  static Card phone_card();

  explicit DrmDevice(const Card& card);
  ~DrmDevice() override;

  // What the lit panel shows; the first connected one, black, when none is lit.
  Picture picture() const;

  // Everything the daemon has made on the card and not released.
  struct Objects {
    size_t buffers = 0;
    size_t framebuffers = 0;
    size_t blobs = 0;
    bool operator==(const Objects&) const = default;
  };
  Objects objects() const;
  // Requests that were committed with at least one property, and what the panel's first pixel
  // became by each (0xRRGGBB).
  int commits() const;
  std::vector<uint32_t> first_pixels() const;

  // Makes one ioctl fail with an errno: the next one of this request, or the one after skip more.
  void fail(uint32_t request, int error, int skip = 0);

  OpenedDevice open(const Caller& caller, int flags) override;

 private:
  friend class DrmFile;

  struct Property {
    std::string name;
    bool atomic;  // seen only by clients that asked for atomic mode setting
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
  using Values = std::map<uint32_t, std::map<uint32_t, uint64_t>>;  // object, property

  uint32_t property_id(const std::string& name) const;
  uint64_t value(const Values& values, uint32_t object, const char* property) const;
  int check(const Values& values) const;
  int check_plane(const Values& values, uint32_t plane) const;
  void dismiss_blob(uint32_t id);
  void reset(uint32_t object, const char* property);
  void turn_off(uint32_t crtc);
  uint32_t first_pixel() const;
  std::string lit() const;

  mutable std::mutex mutex_;
  const Card card_;
  std::map<uint32_t, Property> properties_;
  std::map<uint32_t, std::string> blobs_;  // one that a CRTC uses outlives its maker
  std::map<uint32_t, Framebuffer> framebuffers_;
  size_t buffers_ = 0;
  size_t made_blobs_ = 0;
  const void* master_ = nullptr;  // the one open that may change what is shown
  Values values_;
  uint32_t next_id_ = 1000;
  std::vector<uint32_t> first_pixels_;                // one for each commit
  std::map<uint32_t, std::pair<int, int>> failures_;  // request to errno and calls to skip
};

}  // namespace handset
