// The library on the phone and its order; see ordered_allocations.h.

#include "tests/faults/ordered_allocations.h"

#include <fcntl.h>
#include <sys/mman.h>
#include <unistd.h>

#include <filesystem>
#include <stdexcept>

using namespace handset;

static const char kLibrary[] = "/dev/fail_allocation.so";

void UnmapOrder::operator()(AllocationOrder* order) const {
  munmap(order, sizeof(*order));
}

OrderedAllocations order_allocations(Handset* phone, Handset::StartOptions* options) {
  std::filesystem::copy_file(FTM_FAIL_ALLOCATION, phone->path(kLibrary));
  options->preload = kLibrary;
  phone->write_file(kAllocationOrder, std::string(sizeof(AllocationOrder), '\0'));
  const int file = open(phone->path(kAllocationOrder).c_str(), O_RDWR | O_CLOEXEC);
  void* mapped =
      mmap(nullptr, sizeof(AllocationOrder), PROT_READ | PROT_WRITE, MAP_SHARED, file, 0);
  close(file);
  if (mapped == MAP_FAILED) {
    throw std::runtime_error("cannot map the order of the allocations");
  }
  return OrderedAllocations(static_cast<AllocationOrder*>(mapped));
}
