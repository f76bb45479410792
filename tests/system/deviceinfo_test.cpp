// The build report at its longest, a thousand serial numbers, and the records of the older layout.

#include <filesystem>

#include "handset/models/partitions.h"
#include "tests/system/station.h"

using namespace handset;

using Replies = std::vector<std::string>;

static const char kReserve4[] = "/dev/block/bootdevice/by-name/reserve4";
static const char kItem[] = "/data/tarnnvitems/6855";

TEST(Identity, ReportHoldsFieldsOfTheLargestSize) {
  Handset phone;
  const std::string longest(91, 'p');
  for (const char* name :
       {"ro.product.model", "ro.build.version.release", "ro.build.kernel.id", "ro.build.display.id",
        "ro.xxversion", "ro.build.date.YmdHM", "ro.build.version.ota"}) {
    phone.set_property(name, longest);
  }
  phone.nodes.set("/sys/devices/system/soc/soc0/hw_pcb_version", std::string(300, 'n'));
  phone.start();
  const Replies replies = phone.command("AT^FM_SW_VERSION");
  ASSERT_EQ(replies.size(), 2U);
  EXPECT_NE(replies[0].find("PCB Number: " + std::string(92, 'n') + "\n"), std::string::npos);
  EXPECT_NE(replies[0].find("OTA version: " + longest + "\n"), std::string::npos);
}

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
  phone.start();
  std::filesystem::remove(phone.path(kItem));
  const std::string no_reserve4 = std::string("[FTM-DEVICEINFO]Unable to open ") + kReserve4 + "\n";
  expect_exchange(
      phone, {"AT+EGMR=0,5",
              pcba(""),
              {},
              {},
              {"Can't getprop ro.sys.reserve.integrate\n", "useTarnReserve = 0\n", no_reserve4}});
  make_partition(phone.path(kReserve4));
  const uint64_t end = std::filesystem::file_size(phone.path(kReserve4));
  write_partition(phone.path(kReserve4), end - 3584, pcba_record("R4-0001"));
  write_partition(phone.path(kReserve4), end - 1024, "download start");
  expect_exchange(phone, {"AT+EGMR=0,5", pcba("R4-0001")});
  expect_exchange(phone, {"AT+DOWNLOAD_STATUS", {" DOWNLOAD:start\n"}});
  write_partition(phone.path(kReserve4), end - 512, "download over");
  expect_exchange(phone, {"AT+DOWNLOAD_STATUS", {" DOWNLOAD:over\n"}});
  std::filesystem::resize_file(phone.path(kReserve4),
                               100);  // the records would lie before its start
  expect_exchange(
      phone,
      {"AT+EGMR=0,5", pcba(""), {}, {}, {"[FTM-DEVICEINFO]lseek to PCBAENDOFFSET error  \n"}});
  expect_exchange(phone, {"AT+DOWNLOAD_STATUS",
                          {" DOWNLOAD:NULL\n"},
                          {},
                          {},
                          {"lseek to DOWNLOAD_STATUS_END_OFFSET error  \n",
                           "lseek to DOWNLOAD_STATUS_START_OFFSET error  \n"}});
}
