// The process whose request a model answers, as the model sees it. The supervisor has one for each
// trapped call; a unit test can bring its own.

#pragma once

#include <cstddef>
#include <cstdint>
#include <string>

namespace handset {

class Caller {
 public:
  virtual ~Caller() = default;

  // Copies from (to) the caller's memory; false when it is not there.
  virtual bool read(uint64_t address, void* data, size_t size) const = 0;
  virtual bool write(uint64_t address, const void* data, size_t size) const = 0;

  // Adds an entry to the phone's journal: what this call has done to the model.
  virtual void note(const std::string& entry) const = 0;
};

}  // namespace handset
