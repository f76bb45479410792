// The modules of one or two rows: debug, touch, GPS, fingerprint, secure boot, RF cable.

#include <errno.h>

#include <atomic>
#include <filesystem>

#include "tests/system/station.h"

TEST(Debug, AnswersBeforeItWrites) {
  Handset phone;
  phone.start();
  expect_exchanges(phone, {{"AT+PRINTK=0,1", {"OK\r\n"}, {{"/proc/sys/kernel/printk", "8\n"}}},
                           {"AT+PRINTK=0,0", {"OK\r\n"}, {{"/proc/sys/kernel/printk", "0\n"}}},
                           {"AT+TRIGGER_DUMP=1", {"OK\r\n"}, {{"/proc/sysrq-trigger", "c"}}}});
  // The phone does not come back from a dump: what the station has by then is the reply.
  std::atomic<size_t> replies_at_crash = 0;
  phone.nodes.on_write("/proc/sysrq-trigger", [&](const std::string&) {
    replies_at_crash = phone.serial.replies().size();
    return 0;
  });
  phone.command("AT+TRIGGER_DUMP=1");
  EXPECT_EQ(replies_at_crash, 1U);
  phone.nodes.remove("/proc/sys/kernel/printk");
  expect_exchange(phone, {"AT+PRINTK=0,1", {"OK\r\n"}});
}

TEST(Touch, SuspendsThePanelAtStartAndPassesTheBusTestOn) {
  Handset phone;
  phone.start();
  const std::string suspend = "/sys/class/input/input0/suspend";
  const std::vector<Nodes::Write> writes = phone.nodes.take_writes();
  ASSERT_FALSE(writes.empty());
  EXPECT_EQ(writes.back(), (Nodes::Write{suspend, "1\n"}));
  EXPECT_EQ(phone.nodes.mode(suspend), 0600U);

  const std::string node = "/proc/touchpanel/i2c_device_test";
  expect_exchange(phone, {"AT+TP", {"PASS\n", "OK\r\n"}});
  phone.nodes.set(node, "FAIL");
  expect_exchange(phone, {"AT+TPX", {"FAIL", "OK\r\n"}});
  phone.nodes.set(node, std::string(300, 't'));
  expect_exchange(phone, {"AT+TP", {std::string(128, 't'), "OK\r\n"}});
  phone.nodes.set(node, "");
  expect_exchange(phone, {"AT+TP", {"", "ERROR\n"}});
  phone.nodes.remove(node);
  expect_exchange(phone, {"AT+TP", {"", "ERROR\n"}});
}

TEST(Gps, IsAcknowledged) {
  Handset phone;
  phone.start();
  expect_exchanges(phone, {{"AT^OPEN_GPS", {"OK\r\n"}}, {"AT^CLOSE_GPS", {"OK\r\n"}}});
}

TEST(Fingerprint, SendsThePropertyOrNull) {
  Handset phone;
  phone.start();
  const std::string name = "norva.fingerprint.qrcode.value";
  expect_exchange(phone,
                  {"AT^FINGER_QR_CODE_GET", {"FINGER_QR_CODE: FP20240117A00042\n", "OK\r\n"}});
  const std::string longest(91, 'q');
  phone.set_property(name, longest);
  expect_exchange(phone,
                  {"AT^FINGER_QR_CODE_GET", {"FINGER_QR_CODE: " + longest + "\n", "OK\r\n"}});
  std::filesystem::remove(phone.path("/dev/__properties__/" + name));
  expect_exchange(phone, {"AT^FINGER_QR_CODE_GET",
                          {"FINGER_QR_CODE: NULL\n", "OK\r\n"},
                          {},
                          {},
                          {"[FTM-FP]at_test_fp qrcode=NULL \n"}});
}

TEST(SecureBoot, JudgesTheStageByTheBoard) {
  struct Case {
    const char* board;  // null: no node
    const char* stage;
    std::vector<std::string> replies;
    std::string logged;
  };
  const std::string dvt =
      "[FTM-SEC]ftm_sec_check_secureboot secureboot is not open for dvt board\n";
  const std::string pvt =
      "[FTM-SEC]ftm_sec_check_secureboot secureboot is not stage two for pvt board\n";
  const std::vector<std::string> no_board = {"UNKNOWN PCB VERSION\n", "ERROR\n"};
  const std::vector<std::string> no_stage = {"UNKNOWN SECURE BOOT STATUS\n", "ERROR\n"};
  const std::vector<Case> cases = {
      {"0\n", "0\n", {"SECURE BOOT OFF\n", "OK\r\n"}, ""},
      {"31", "1", {"SECURE BOOT ON\n", "OK\r\n"}, ""},
      {"32", "1", {"SECURE BOOT ON\n", "ERROR\n"}, dvt},
      {"32", "2", {"SECURE BOOT STAGE1\n", "OK\r\n"}, ""},
      {"39", "3", {"SECURE BOOT STAGE2\n", "OK\r\n"}, ""},
      {"40", "2", {"SECURE BOOT STAGE1\n", "ERROR\n"}, pvt},
      {"40", "3", {"SECURE BOOT STAGE2\n", "OK\r\n"}, ""},
      {"-1", "4", {"SECURE BOOT \n", "OK\r\n"}, ""},
      {"1234567890123", "-1", {"SECURE BOOT \n", "ERROR\n"}, pvt},  // ten bytes of it are read
      {nullptr, "3", no_board,
       "[FTM-SEC]ftm_sec_read_proc: failed to open /proc/norvaVersion/pcbVersion\n"},
      {"", "3", no_board,
       "[FTM-SEC]ftm_sec_read_proc: read /proc/norvaVersion/pcbVersion with error size: 0\n"},
      {"v40", "3", no_board,
       "[FTM-SEC]ftm_sec_get_pcb_version: failed to read /proc/norvaVersion/pcbVersion\n"},
      {"40", nullptr, no_stage,
       "[FTM-SEC]ftm_sec_get_secureboot_stage: failed to read "
       "/proc/norva_secure_common/secureType\n"},
  };
  Handset phone;
  phone.start();
  for (const Case& c : cases) {
    const std::string board = "/proc/norvaVersion/pcbVersion";
    const std::string stage = "/proc/norva_secure_common/secureType";
    c.board == nullptr ? phone.nodes.remove(board) : phone.nodes.set(board, c.board);
    c.stage == nullptr ? phone.nodes.remove(stage) : phone.nodes.set(stage, c.stage);
    SCOPED_TRACE(c.board == nullptr ? "no board" : c.board);
    expect_exchange(phone, {"AT^SECUREBOOT_STATUS_CHECK", c.replies, {}, {}, {c.logged}});
  }
}

TEST(RfCable, ShowsThePortsOfTheProject) {
  struct Case {
    std::string project;
    std::string node;
    std::vector<std::string> replies;
    std::string logged;
  };
  const std::vector<Case> cases = {
      {"12", "0\n", {"RFCABLE:OK ", "0"}, "cable_buffer= proj=12\n"},
      {"12", "101\n", {"RFCABLE:ERROR ", "00101"}, "cable_buffer= ANT2 ANT7 proj=12\n"},
      {"12",
       "11111\n",
       {"RFCABLE:ERROR ", "11111"},
       "cable_buffer= ANT0 ANT1 ANT2 ANT3 ANT7 proj=12\n"},
      {"12",
       "1111111\n",
       {"RFCABLE:ERROR ", "1111111"},
       "cable_buffer= ANT0 ANT1 ANT2 ANT3 ANT7 proj=12\n"},
      {"11", "101\n", {"RFCABLE:ERROR ", "101"}, "cable_buffer= ANT0 ANT0 proj=11\n"},
      {"x", "-1\n", {"RFCABLE:ERROR ", "-1"}, "cable_buffer= ANT0 proj=0\n"},
      {"12", "", {"RFCABLE:OK ", "0"}, "[FTM-RF]at_test_rf_cable cable=0\n"},
      {"12", std::string(200, '9'), {"RFCABLE:ERROR ", "2147483647"}, "cable=2147483647\n"},
  };
  Handset phone;
  phone.start();
  for (const Case& c : cases) {
    phone.set_property("ro.boot.prj_version", c.project);
    phone.nodes.set("/proc/tarn_rf/rf_cable", c.node);
    SCOPED_TRACE(c.node);
    expect_exchange(phone, {"AT_RF_CABLE", c.replies, {}, {}, {c.logged}});
  }
  phone.nodes.remove("/proc/tarn_rf/rf_cable");
  expect_exchange(phone, {"AT_RF_CABLE", {"RFCABLE:OK ", "0"}});
}
