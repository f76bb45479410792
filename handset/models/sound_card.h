// A sound card's mixer: the control device that alsa-lib opens, with controls described in a plain
// text, and what the daemon has written to them. Callable from any thread.
//
// The text has a line for each control, in the card's order; '#' begins a comment line:
//
//   TYPE COUNT; NAME; RANGE; VALUES
//   BOOL 1; Speaker Switch; ; 0
//   INT 2; Speaker Volume; 0 124; 84 84
//   ENUM 1; DIE_CRK_DET_EN; 0x00, 0x80, 0xC0; 0x00
//   BYTE 4; Equalizer; ; 0a 0b 0c 0d
//   IEC958 1; Playback Default; ; 0
//   INT64 1; Counter; ; 0
//
// Values that are left out are 0, or the first item.

#pragma once

#include <atomic>
#include <cstdint>
#include <functional>
#include <map>
#include <mutex>
#include <string>
#include <vector>

#include "handset/links/device.h"

namespace handset {

class SoundCard : public Device {
 public:
  // Takes the controls of a description instead of those it has. Throws std::runtime_error on a
  // line that it cannot read or whose values are out of the range.
  void describe(const std::string& text);

  // "NAME = VALUE VALUE...": numbers, an ENUM's items, a BYTE's two hexadecimal digits. Empty when
  // there is no such control.
  std::string show(const std::string& name) const;

  // Every write that the card took, in order, as show gives it; take_writes also forgets them.
  std::vector<std::string> writes() const;
  std::vector<std::string> take_writes();

  // Makes reads or writes of the control fail with an errno; 0 makes them work again.
  enum class Access { kRead, kWrite };
  void fail(const std::string& name, Access access, int error);
  // Calls the function after each write of the control.
  void on_write(const std::string& name, std::function<void()> function);
  // Sets a control's first value: a number, or the item's text. A number out of its range becomes
  // the nearest in it. False when there is no such control or item.
  bool set(const std::string& name, const std::string& value);

  // How often the mixer is open. (Seen as with every device, at the next open of one.)
  size_t handles() const {
    return handles_;
  }

  OpenedDevice open(const Caller& caller, int flags) override;

 private:
  friend class SoundCardFile;

  struct Control {
    std::string name;
    int type;  // SNDRV_CTL_ELEM_TYPE_...
    int64_t minimum;
    int64_t maximum;
    std::vector<std::string> items;
    std::vector<int64_t> values;
    int read_error = 0;
    int write_error = 0;
    std::function<void()> written = nullptr;
  };

  static Control parse(const std::string& line);
  static std::string show(const Control& control);
  Control* find(const std::string& name);
  const Control* find(const std::string& name) const;

  mutable std::mutex mutex_;
  std::vector<Control> controls_;
  std::vector<std::string> writes_;
  std::atomic<size_t> handles_ = 0;
};

}  // namespace handset
