// A thousand serial numbers, and the records of the older layout.

#include <sys/syscall.h>

#include <filesystem>

#include "handset/models/partitions.h"
#include "tests/system/station.h"

using namespace handset;

using Replies = std::vector<std::string>;

static const char kReserve4[] = "/dev/block/bootdevice/by-name/reserve4";
static const char kItem[] = "/data/tarnnvitems/6855";

TEST(Identity, AThousandSerialNumbersKeepOneStreamOpen) {
  Handset phone;
  phone.start();
  const size_t before = phone.open_descriptors();
  for (int i = 0; i < 1000; ++i) {
    phone.command("AT^SN");
  }
  EXPECT_EQ(phone.open_descriptors(), before + 1);
}

static Replies pcba(const std::string& number) {
  return {"OK\r\n", " PCBA:", number};
}

TEST(Records, OfTheOlderLayoutCountFromThePartitionsEnd) {
  Handset phone({.daemon = FTM_RESERVE4_PROBE});
  phone.start({.faults = true});
  std::filesystem::remove(phone.path(kItem));
  const std::string no_reserve4 = std::string("[FTM-DEVICEINFO]Unable to open ") + kReserve4 + "\n";
  expect_exchange(
      phone, "AT+EGMR=0,5", pcba(""),
      {"Can't getprop ro.sys.reserve.integrate\n", "useTarnReserve = 0\n", no_reserve4});
  make_partition(phone.path(kReserve4));
  const uint64_t end = std::filesystem::file_size(phone.path(kReserve4));
  write_partition(phone.path(kReserve4), end - 3584, pcba_record("R4-0001"));
  write_partition(phone.path(kReserve4), end - 1024, "download start");
  expect_exchange(phone, "AT+EGMR=0,5", pcba("R4-0001"));
  expect_exchange(phone, "AT+DOWNLOAD_STATUS", {" DOWNLOAD:start\n"});
  write_partition(phone.path(kReserve4), end - 512, "download over");
  expect_exchange(phone, "AT+DOWNLOAD_STATUS", {" DOWNLOAD:over\n"});
  // What a short read leaves of the last text is cleared first, in this layout.
  phone.shorten(kReserve4, SYS_read, 5, {.first = 1, .last = 1});
  expect_exchange(phone, "AT+DOWNLOAD_STATUS", {" DOWNLOAD:start\n"});
  std::filesystem::resize_file(phone.path(kReserve4),
                               100);  // the records would lie before its start
  expect_exchange(phone, "AT+EGMR=0,5", pcba(""),
                  {"[FTM-DEVICEINFO]lseek to PCBAENDOFFSET error  \n"});
  expect_exchange(phone, "AT+DOWNLOAD_STATUS", {" DOWNLOAD:NULL\n"},
                  {"lseek to DOWNLOAD_STATUS_END_OFFSET error  \n",
                   "lseek to DOWNLOAD_STATUS_START_OFFSET error  \n"});
}
