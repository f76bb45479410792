// The battery report and the reverse-charging switch.

#include <errno.h>

#include <atomic>

#include "tests/system/station.h"

static const std::string kBattery = "/sys/class/power_supply/battery/";
static const char kTransmitter[] = "/proc/wireless/enable_tx";

TEST(Battery, ReportsTheNodesInVoltsDegreesAmperesAndAmpereHours) {
  Handset phone;
  phone.start();
  struct Step {
    std::vector<std::pair<std::string, std::string>> nodes;
    std::string report;
  };
  // Each step changes what the one before left: a node that cannot be read keeps its last value.
  const std::vector<Step> steps = {
      {{}, "+EADC: 3.85,25.30,0.00,-512.000,2.10"},
      {{{"voltage_now", "4199999\n"}, {"temp", "-5\n"}}, "+EADC: 4.20,-0.50,0.00,-512.000,2.10"},
      {{{"charge_now", "-999\n"}, {"current_now", "1\n"}}, "+EADC: 4.20,-0.50,0.00,0.001,0.00"},
      {{{"voltage_now", ""}, {"temp", ""}}, "+EADC: 4.20,-0.50,0.00,0.001,0.00"},
      {{{"present", "0\n"}, {"current_now", "7000\n"}}, "+EADC: 4.20,-0.50,0.00,0.001,0.00"},
      {{{"present", "1\n"}}, "+EADC: 4.20,-0.50,0.00,7.000,0.00"},
      {{{"current_now", "none\n"}}, "+EADC: 4.20,-0.50,0.00,0.000,0.00"},
      {{{"current_now", "-99999999999999999999\n"}}, "+EADC: 4.20,-0.50,0.00,-2147483.648,0.00"},
      {{{"current_now", std::string(300, '1')}}, "+EADC: 4.20,-0.50,0.00,2147483.647,0.00"},
  };
  for (const Step& step : steps) {
    for (const auto& [node, value] : step.nodes) {
      phone.nodes.set(kBattery + node, value);
    }
    expect_exchange(phone,
                    {"AT+EADC=1", {"OK\r\n", step.report}, {}, {}, {"BATTERY STATUS INFO:\n"}});
  }
}

TEST(Battery, WithoutABatteryEveryFieldIsZero) {
  Handset phone;
  phone.nodes.remove(kBattery + "present");
  phone.start();
  expect_exchange(phone, {"AT+EADC=1",
                          {"OK\r\n", "+EADC: 0.00,0.00,0.00,0.000,0.00"},
                          {},
                          {},
                          {"[FTM-Battery&Charging]battery is not available\n"}});
}

TEST(Battery, AsksTheUsbSupplyOnlyWhenTheMainsSupplyIsOff) {
  Handset phone;
  std::atomic<int> usb_reads = 0;
  phone.nodes.on_read("/sys/class/power_supply/usb/online", [&] {
    ++usb_reads;
    return "1\n";
  });
  phone.start();
  phone.nodes.set("/sys/class/power_supply/ac/online", "1\n");
  phone.command("AT+EADC=1");
  EXPECT_EQ(usb_reads, 0);
  phone.nodes.set("/sys/class/power_supply/ac/online", "0\n");
  phone.command("AT+EADC=1");
  EXPECT_EQ(usb_reads, 1);
  phone.nodes.remove("/sys/class/power_supply/ac/online");
  phone.command("AT+EADC=1");
  EXPECT_EQ(usb_reads, 2);
}

TEST(Battery, SwitchesTheReverseChargingTransmitter) {
  Handset phone;
  phone.start();
  expect_exchanges(
      phone, {{"AT+OPEN_REVERSE_CHARGE",
               {"OK\r\n"},
               {{kTransmitter, "1"}},
               {},
               {"[FTM-Battery&Charging]target mode: 1\n", "[FTM-Battery&Charging]write success"}},
              {"AT+CLOSE_REVERSE_CHARGE",
               {"OK\r\n"},
               {{kTransmitter, "0"}},
               {},
               {"[FTM-Battery&Charging]target mode: 0\n"}}});
  phone.nodes.fail(kTransmitter, Nodes::Operation::kWrite, EBUSY);
  expect_exchange(phone, {"AT+OPEN_REVERSE_CHARGE", {"ERROR\n"}, {}, {}, {"target mode: 1\n"}});
  phone.nodes.fail(kTransmitter, Nodes::Operation::kOpen, EBUSY);
  expect_exchange(phone, {"AT+OPEN_REVERSE_CHARGE", {"ERROR\n"}, {}, {}, {"target mode: 1\n"}});
  phone.nodes.remove(kTransmitter);
  expect_exchange(phone, {"AT+CLOSE_REVERSE_CHARGE",
                          {"ERROR\n"},
                          {},
                          {},
                          {"[FTM-Battery&Charging]open reverse charge file failed"}});
}
