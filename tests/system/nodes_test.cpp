// The phone's nodes as a process of it meets them.

#include <errno.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <atomic>
#include <fstream>
#include <iterator>

#include "tests/system/station.h"

// What a write of the text gives: 0 or a negative errno.
static int store(const std::string& path, const std::string& text) {
  const int fd = open(path.c_str(), O_WRONLY | O_CLOEXEC);
  const ssize_t written = fd < 0 ? -1 : write(fd, text.data(), text.size());
  const int result = written < 0 ? -errno : 0;
  close(fd);
  return result;
}

TEST(Nodes, AreAsTheKernelHasThem) {
  Handset phone;
  phone.start();
  const std::string root = "/proc/" + std::to_string(phone.pid()) + "/root";
  const std::string led = "/sys/class/leds/blue/brightness";
  const std::string backlight = "/sys/class/backlight/panel0-backlight/brightness";
  const struct {
    std::string path, text;
    int result;
    std::string value;
  } cases[] = {{led, "7\n", 0, "7\n"},
               {led, "256", 0, "255\n"},
               {led, "on", -EINVAL, "255\n"},
               {led, "1 2", -EINVAL, "255\n"},
               {led, "-1", -EINVAL, "255\n"},
               {backlight, "2047", 0, "2047\n"},
               {backlight, "2048", -EINVAL, "2047\n"},
               {"/sys/class/leds/vibrator/duration", "", 0, "0\n"},
               {"/sys/class/leds/vibrator/duration", "90000", 0, "90000\n"}};
  phone.nodes.set("/sys/class/leds/vibrator/duration", "0\n");
  for (const auto& c : cases) {
    SCOPED_TRACE(c.path + " " + c.text);
    EXPECT_EQ(store(root + c.path, c.text), c.result);
    EXPECT_EQ(phone.nodes.value(c.path), c.value);
  }
  struct stat status;
  EXPECT_TRUE(stat((root + led).c_str(), &status) == 0 && status.st_size == 4096);
  EXPECT_TRUE(stat((root + "/proc/gpio/gpio").c_str(), &status) == 0 && status.st_size == 0);

  std::atomic<int> asked = 0;
  phone.nodes.on_read("/proc/gpio/gpio", [&] {
    ++asked;
    return std::string("text\n");
  });
  std::ifstream stream(root + "/proc/gpio/gpio");
  EXPECT_EQ(std::string(std::istreambuf_iterator<char>(stream), {}), "text\n");
  EXPECT_EQ(asked, 1);
}
