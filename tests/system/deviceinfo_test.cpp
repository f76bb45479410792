// Identity, storage and records: what the station reads from a phone, healthy or not.

#include <errno.h>
#include <signal.h>
#include <sys/syscall.h>
#include <sys/wait.h>

#include <filesystem>

#include "handset/models/partitions.h"
#include "tests/system/station.h"

using namespace handset;

using Replies = std::vector<std::string>;

static const char kNorva[] = "/dev/block/bootdevice/by-name/norvareserve1";
static const char kTarn[] = "/dev/block/bootdevice/by-name/tarnreserve1";
static const char kReserve4[] = "/dev/block/bootdevice/by-name/reserve4";
static const char kItem[] = "/data/tarnnvitems/6855";

// One node's values and the replies that each brings about.
struct NodeCase {
  std::optional<std::string> value;
  Replies replies;
};

static void expect_node_cases(const std::string& node, const std::string& command,
                              const std::vector<NodeCase>& cases) {
  Handset phone;
  phone.start();
  for (const NodeCase& c : cases) {
    SCOPED_TRACE(c.value.value_or("no node"));
    c.value.has_value() ? phone.nodes.set(node, *c.value) : phone.nodes.remove(node);
    expect_exchange(phone, {command, c.replies});
  }
}

// ---- Identity

TEST(Identity, ReportsTheBuildLineByLine) {
  Handset phone;
  phone.start();
  expect_exchange(phone, {"AT^FM_SW_VERSION",
                          {"Model: NV-A1\nAndroid Version: 11\nKernel: 5.10.43-perf\n"
                           "Version: NVA1_11_A.12\nBranch: NV-A1\nBranch Version: v00a120\n"
                           "PCB Number: 40\n\nBuild Time: 202401170000\n"
                           "OTA version: NVA1_11.A.12_0120_202401170000\n",
                           "OK\r\n"}});
  std::filesystem::remove_all(phone.path("/dev/__properties__"));
  phone.nodes.remove("/sys/devices/system/soc/soc0/hw_pcb_version");
  expect_exchange(phone, {"AT^FM_SW_VERSION",
                          {"Model: NULL\nAndroid Version: NULL\nKernel: NULL\nVersion: NULL\n"
                           "Branch: NULL\nBranch Version: NULL\nPCB Number: \nBuild Time: NULL\n"
                           "OTA version: NULL\n",
                           "OK\r\n"}});
}

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

TEST(Identity, SendsTheSerialNumberInHexadecimalBehindTheOk) {
  expect_node_cases("/sys/devices/soc0/serial_number_dummy", "AT^SN",
                    {{"255", {"OK\r\n", "SN: ff\n"}},
                     {"4294967295\n", {"OK\r\n", "SN: ffffffff\n"}},
                     {"9999999999999999999", {"OK\r\n", "SN: 6fc0ffff\n"}},  // sixteen are read
                     {"-1\n", {"OK\r\n", "SN: ffffffff\n"}},
                     {"abc", {"OK\r\n", "SN: 0\n"}},
                     {"", {"OK\r\n", "SN: 0\n"}},
                     {std::nullopt, {"OK\r\n", "SN: 1a2b3c4d\n"}}});
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

TEST(Identity, ComparesTheTreesWithTheReferenceArchive) {
  Handset phone;
  phone.start();
  const auto expect_result = [&](const std::string& result) {
    expect_exchange(phone, {"AT^SYS_VEN_MD5", {result}});
    EXPECT_FALSE(std::filesystem::exists(phone.path("/persist/ftm_admin/tmp")));
  };
  expect_result("OK\r\n");
  expect_result("OK\r\n");
  const std::string manifest = phone.read_file("/vendor/etc/manifest.xml").value();
  phone.write_file("/vendor/etc/manifest.xml", "changed");
  expect_result("VENDOR FAIL");
  phone.write_file("/system/etc/new_file", "");
  expect_result("SYSTEM FAIL");
  std::filesystem::remove(phone.path("/system/etc/new_file"));
  phone.write_file("/vendor/etc/manifest.xml", manifest);
  expect_result("OK\r\n");
  // Names that the lists leave out, a name that the shell's word splitting takes apart.
  phone.write_file("/system/etc/recovery-from-boot.p", "left out");
  expect_result("OK\r\n");
  phone.write_file("/system/etc/a blank and a 'quote", "");
  expect_result("SYSTEM FAIL");
  std::filesystem::remove(phone.path("/system/etc/a blank and a 'quote"));
  // Only what the comparison prints decides: without an archive it prints nothing but an error.
  std::filesystem::remove(phone.path("/system/sysmd5.zip"));
  expect_result("OK\r\n");
  // Without a working folder there is no difference file either.
  std::filesystem::remove_all(phone.path("/persist/ftm_admin"));
  expect_result("SYSTEM FAIL");
}

TEST(Identity, DecodesThePanelsProductionTime) {
  const Replies error = {"ERROR\n"};
  const auto time = [](const std::string& digits) {
    return Replies{"OK\r\n", " LCD SN CHECK:", digits};
  };
  expect_node_cases("/sys/kernel/norva_display/panel_serial_number", "AT+LCDSN",
                    {{"sn:0c0b16102a1e0000\n", time("20231122164230")},
                     {":0100000000000000", time("20120000000000")},
                     {"a:b:1", time("20110000000000")},
                     {":fffffffffffffffff", time("20261531316363")},  // 17 digits
                     {"0c0b16102a1e0000", error},
                     {"sn:", error},
                     {"sn:xyz", error},
                     {"sn:0", error},
                     {"", error},
                     {std::nullopt, error}});
}

TEST(Identity, OpensThePanelOnlyWhereNobodyHas) {
  Handset phone;
  phone.start();
  size_t lit_while_read = 0;
  for (const char* row : {"AT+LCDSN", "AT+IRIS=1"}) {
    phone.command(row);
    EXPECT_EQ(phone.open_devices("drm-card"), 0U) << row;
    const std::vector<uint32_t> pixels = phone.display.first_pixels();
    EXPECT_GT(pixels.size(), lit_while_read);
    lit_while_read = pixels.size();
  }
  phone.command("AT+EDFT=0,5");
  const size_t commits = phone.display.first_pixels().size();
  phone.command("AT+LCDSN");
  phone.command("AT+IRIS=1");
  EXPECT_EQ(phone.display.first_pixels().size(), commits);
  EXPECT_EQ(phone.open_devices("drm-card"), 1U);
}

TEST(Identity, TakesTheBridgesRecoveryModeForAnError) {
  expect_node_cases("/sys/kernel/tarn_display/iris_rm_check", "AT+IRIS=1",
                    {{"0\n", {"OK\r\n"}},
                     {"1\n", {"ERROR\n"}},
                     {"-1", {"ERROR\n"}},
                     {"00001", {"OK\r\n"}},  // four bytes are read
                     {"", {"OK\r\n"}},
                     {std::nullopt, {"OK\r\n"}}});
}

// ---- Storage, memory, CPU

TEST(Storage, AddsUpWholeUnitsOnly) {
  const std::string header = "major minor  #blocks  name\n\n";
  const auto size = [](const std::string& kib) { return Replies{"OK\r\n", " EMMCSIZE:", kib}; };
  expect_node_cases(
      "/proc/partitions", "AT+GEMMC=1",
      {{header + " 8 0 124999680 sda\n 8 1 77 sda1\n 8 16 8192 sdb\n", size("125007872")},
       {header + " 8 0 5 sdf\n 8 0 6 sdg\n 8 0 7 sdaa\n 8 0 8 sd\n", size("5")},
       {header + " 8 0 5 sda\n\nnonsense\n 8 x y sda\n 8 0\n", size("5")},
       {header + " 8 0 9 " + std::string(200, 's') + "\n 8 0 5 sda", size("5")},
       {header + " 8 0 4294967296 sda\n 8 0 1 sdb\n", size("4294967297")},
       {"", size("0")},
       {std::nullopt, size("0")}});
  expect_node_cases("/proc/partitions", "AT+EMMC",
                    {{" 8 0 250609664 sda\n", {"OK\r\n", "capacity: 239.00 GB"}},
                     {" 8 0 1048575 sda\n", {"OK\r\n", "capacity: 0.00 GB"}},
                     {std::nullopt, {"OK\r\n", "capacity: 0.00 GB"}}});
}

TEST(Storage, NamesWhatIsNotEnabled) {
  const auto error = [](const std::string& reason) { return Replies{"ERROR\n", reason}; };
  expect_node_cases("/proc/devinfo/ufsplus_status", "AT+UFSPLUS",
                    {{"HPB status: 1\nTW status: 1\n", {"OK\r\n"}},
                     {"other\nHPB status: 0\nTW status: 1\n", error("HPB is not enable")},
                     {"HPB status: 1\nTW status: 0\n", error("TW is not enable")},
                     {"HPB status: 1\n", error("TW is not enable")},
                     {"TW status: 1\nHPB status: 1\n", error("HPB is not enable")},
                     {"HPB status: 0\nHPB status: 1\nTW status: 1\n", {"OK\r\n"}},
                     {"HPB status: -1\nTW status: 1\n", error("Undefined ufsplus status")},
                     {"HPB status: 99999999999\nTW status: 1\n", error("Undefined ufsplus status")},
                     {"HPB status: x\nTW status:\n", error("TW And HPB are not enable")},
                     {"", error("TW And HPB are not enable")},
                     {std::nullopt, error("Can't Open UFSPLUS node")}});
}

TEST(Storage, ReportsMemoryAndCpu) {
  expect_node_cases("/proc/meminfo", "AT+GMEM=1",
                    {{"MemTotal:  7654321 kB\n", {"OK\r\n", " MEMSIZE:", "7654321"}},
                     {"MemFree: 5 kB\nMemTotal:       12 kB\n", {"OK\r\n", " MEMSIZE:", "12"}},
                     {"MemFree: 5 kB\n", {"OK\r\n", " MEMSIZE:", "0"}},
                     {std::nullopt, {"OK\r\n", " MEMSIZE:", "1"}}});
  expect_node_cases("/sys/devices/system/cpu/cpu0/cpufreq/cpuinfo_max_freq", "AT+GCPU=1",
                    {{"2841600\n", {"OK\r\n", " CPUINFO:", "2841600"}},
                     {"", {"OK\r\n", " CPUINFO:", "0"}},
                     {std::nullopt, {"OK\r\n", " CPUINFO:", "0"}}});
}

TEST(Storage, MeasuresTheMemoryCard) {
  Handset phone;
  phone.start();
  struct Case {
    std::optional<MemoryCard::Size> card;
    Replies replies;
  };
  const std::vector<Case> cases = {
      {MemoryCard::Size{32768, 1941504, 1931264},
       {"OK\r\n", "SDcard total=59.25GB, free=58.94GB\n"}},
      {MemoryCard::Size{4096, 262144, 0}, {"OK\r\n", "SDcard total=1.00GB, free=0.00GB\n"}},
      {MemoryCard::Size{131072, 25165824, 16777216},
       {"OK\r\n", "SDcard total=3072.00GB, free=2048.00GB\n"}},
      {MemoryCard::Size{512, 2047, 2047}, {"OK\r\n", "SDcard total=0.00GB, free=0.00GB\n"}},
      {std::nullopt, {"ERROR\n", "/mnt/sdcard not exit\n"}},
  };
  for (const Case& c : cases) {
    phone.card.insert(c.card);
    expect_exchange(phone, {"AT+MEMCARD", c.replies});
  }
}

// ---- Records

static Replies pcba(const std::string& number) {
  return {"OK\r\n", " PCBA:", number};
}

TEST(Records, ReadThePcbaNumberOrElseTheItemFile) {
  Handset phone;
  phone.start();
  const auto put = [&](const std::string& record) {
    write_partition(phone.path(kNorva), 0x428000, record);
  };
  for (const size_t length : {1, 23, 24}) {
    const std::string number = std::string(length, 'P');
    put(pcba_record(number));
    expect_exchange(phone, {"AT+EGMR=0,5", pcba(number)});
  }
  // Beyond the scrambled area the number's bytes are taken as they stand.
  put(pcba_record(std::string(30, 'Q')));
  expect_exchange(phone, {"AT+EGMR=0,5", pcba(std::string(30, 'Q'))});
  // A length byte of 0, or a partition that gives nothing: the item file's turn.
  struct Case {
    std::string item;
    std::string number;
  };
  const std::vector<Case> cases = {
      {std::string("\x0c", 1) + "NV2401170042", "NV2401170042"},
      {std::string("\0abc", 4), ""},
      {"\x01"
       "abc",
       "a"},
      {"\x1f" + std::string(40, 'n'), std::string(31, 'n')},
      {"\x1f"
       "abc",
       "abc"},  // shorter than its length byte
      {"", ""},
  };
  put(pcba_record("unused", 0));
  for (const Case& c : cases) {
    phone.write_file(kItem, c.item);
    expect_exchange(phone, {"AT+EGMR=0,5", pcba(c.number)});
  }
  std::filesystem::remove(phone.path(kItem));
  expect_exchange(phone, {"AT+EGMR=0,5",
                          pcba(""),
                          {},
                          {},
                          {"[FTM-DEVICEINFO]Unable to open /data/tarnnvitems/6855\n"}});
}

TEST(Records, APcbaNumberWithoutRoomForItsEndIsFatal) {
  struct Case {
    std::string record;  // empty: the item file's turn
    std::string item;
  };
  const std::vector<Case> cases = {{pcba_record(std::string(32, 'P')), ""},
                                   {pcba_record(std::string(33, 'P')), ""},
                                   {pcba_record("P", 255), ""},
                                   {"", "\x7d" + std::string(125, 'n')}};
  for (const Case& c : cases) {
    Handset phone;
    phone.start();
    write_partition(phone.path(kNorva), 0x428000, c.record.empty() ? pcba_record("") : c.record);
    phone.write_file(kItem, c.item);
    phone.serial.send("AT+EGMR=0,5");
    const std::optional<int> status = phone.wait_exit();
    ASSERT_TRUE(status.has_value());
    EXPECT_TRUE(WIFSIGNALED(*status) && WTERMSIG(*status) == SIGABRT);
    EXPECT_EQ(phone.serial.take_replies(), (Replies{"OK\r\n", " PCBA:"}));
  }
}

TEST(Records, PreferTheEndMarkToTheStartMark) {
  Handset phone;
  phone.start();
  struct Case {
    std::string start;
    std::string end;
    std::string reply;
  };
  const std::vector<Case> cases = {
      {"download start", "download over", " DOWNLOAD:over\n"},
      {"", "download over", " DOWNLOAD:over\n"},
      {"download start", "", " DOWNLOAD:start\n"},
      {"download start", "download oveX", " DOWNLOAD:start\n"},
      {"Download start", "xdownload ove", " DOWNLOAD:NULL\n"},
      {"", "", " DOWNLOAD:NULL\n"},
  };
  for (const Case& c : cases) {
    put_download_marks(phone.path(kNorva), c.start, c.end);
    expect_exchange(phone, {"AT+DOWNLOAD_STATUS", {c.reply}});
  }
  // The search ends with the field.
  write_partition(phone.path(kNorva), 0x427000, "xdownload over");
  expect_exchange(phone, {"AT+DOWNLOAD_STATUS", {" DOWNLOAD:NULL\n"}});
}

TEST(Records, TryBothPartitionNamesAndGiveUpWithTheEmptyResult) {
  Handset phone;
  phone.start({.faults = true});
  std::filesystem::remove(phone.path(kItem));
  std::filesystem::rename(phone.path(kNorva), phone.path(kTarn));
  const std::string no_norva = std::string("READ:Unable to open ") + kNorva + "\n";
  expect_exchange(
      phone, {"AT+EGMR=0,5",
              pcba("NV2401170042"),
              {},
              {},
              {"getprop ro.sys.reserve.integrate = true\n", "useTarnReserve = 1\n", no_norva}});
  expect_exchange(phone, {"AT+DOWNLOAD_STATUS", {" DOWNLOAD:over\n"}});

  phone.fail(kTarn, SYS_lseek, EIO);
  expect_exchange(phone, {"AT+EGMR=0,5",
                          pcba(""),
                          {},
                          {},
                          {"[FTM-DEVICEINFO]lseek to TARN_PARTITION_PCBA_OFFSET error  \n"}});
  expect_exchange(phone, {"AT+DOWNLOAD_STATUS",
                          {" DOWNLOAD:NULL\n"},
                          {},
                          {},
                          {"lseek to TARN_PARTITION_DOWNLOAD_STATUS_END_OFFSET error  \n",
                           "lseek to TARN_PARTITION_DOWNLOAD_STATUS_START_OFFSET error  \n"}});
  phone.fail(kTarn, SYS_lseek, 0);
  phone.fail(kTarn, SYS_read, EIO);
  expect_exchange(phone,
                  {"AT+EGMR=0,5", pcba(""), {}, {}, {"[FTM-DEVICEINFO]read none from reserve4\n"}});
  expect_exchange(phone, {"AT+DOWNLOAD_STATUS",
                          {" DOWNLOAD:NULL\n"},
                          {},
                          {},
                          {"[FTM-DEVICEINFO]read none from reserve4\n"}});
  phone.fail(kTarn, SYS_read, 0);
  std::filesystem::resize_file(phone.path(kTarn), 0x426000);  // ends where the records begin
  expect_exchange(phone, {"AT+EGMR=0,5", pcba("")});
  std::filesystem::remove(phone.path(kTarn));
  expect_exchange(phone, {"AT+EGMR=0,5",
                          pcba(""),
                          {},
                          {},
                          {no_norva, std::string("READ:Unable to open ") + kTarn + "\n"}});
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

TEST(Records, ReportTheChargersFirmwareCheck) {
  expect_node_cases("/proc/zeph_fw_check", "AT+CHARGE_MCU",
                    {{"1\n", {"OK\r\n", " ZEPH FW CHECK:", "1"}},
                     {"-12", {"OK\r\n", " ZEPH FW CHECK:", "-12"}},
                     {"", {"OK\r\n", " ZEPH FW CHECK:", "0"}},
                     {std::nullopt, {"OK\r\n", " ZEPH FW CHECK:", "0"}}});
}
