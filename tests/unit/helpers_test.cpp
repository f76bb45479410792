// The core's small helpers on ordinary files, and replies into a pipe.

#include <fcntl.h>
#include <gtest/gtest.h>
#include <stdlib.h>
#include <unistd.h>

#include <filesystem>
#include <fstream>

#include "core/at.h"
#include "core/bounded.h"
#include "core/file_utils.h"
#include "core/properties.h"
#include "core/serial.h"
#include "tests/unit/log_capture.h"

class FileHelpers : public testing::Test {
 protected:
  FileHelpers() {
    char name[] = "/tmp/ftm_helpers.XXXXXX";
    close(mkstemp(name));
    path_ = name;
  }
  ~FileHelpers() override {
    std::filesystem::remove(path_);
  }
  std::string content() const {
    std::ifstream stream(path_);
    return {std::istreambuf_iterator<char>(stream), {}};
  }

  std::string path_;
};

TEST_F(FileHelpers, WriteNumbersSignedWithALineFeed) {
  EXPECT_EQ(file_write_int(path_.c_str(), 0), 2);
  EXPECT_EQ(content(), "0\n");
  EXPECT_EQ(file_write_int(path_.c_str(), 4294967295U), 3);
  EXPECT_EQ(content(), "-1\n");
  EXPECT_EQ(file_write_int(path_.c_str(), 0x80000000U), 12);
  EXPECT_EQ(content(), "-2147483648\n");
  EXPECT_EQ(file_write_int(path_.c_str(), 7), 2);
  EXPECT_EQ(content(), "7\n147483648\n");  // nothing is cut
  EXPECT_EQ(file_write_int(nullptr, 1), -4);
  EXPECT_EQ(file_write_int("/nowhere/node", 1), -1);
  EXPECT_EQ(file_write_int("/dev/full", 1), -3);
}

TEST_F(FileHelpers, WriteTextsAsTheyStand) {
  EXPECT_EQ(file_write_string(path_.c_str(), "c"), 1);
  EXPECT_EQ(content(), "c");
  EXPECT_EQ(file_write_string(path_.c_str(), ""), -3);
  EXPECT_EQ(file_write_string(nullptr, "1"), -4);
  EXPECT_EQ(file_write_string(path_.c_str(), nullptr), -4);
  EXPECT_EQ(file_write_string("/nowhere/node", "1"), -1);
}

TEST_F(FileHelpers, ReadsAreNotTerminated) {
  char buffer[8] = {'.', '.', '.', '.', '.', '.', '.', '\0'};
  std::ofstream(path_) << "1234567890\n";
  EXPECT_EQ(file_read_string(path_.c_str(), buffer, 5), 5);
  EXPECT_STREQ(buffer, "12345..");
  EXPECT_EQ(file_read_string("/nowhere/node", buffer, 5), -1);
  EXPECT_EQ(file_read_string(nullptr, buffer, 5), -4);
  std::ofstream(path_) << "";
  EXPECT_EQ(file_read_string(path_.c_str(), buffer, 5), 0);
  EXPECT_LT(file_read_string("/", buffer, 5), 0);
}

TEST(Bounded, FillsTheBufferToTheLastByteAndNoFurther) {
  char buffer[4];
  EXPECT_EQ(bounded_format(buffer, sizeof(buffer), "%d", 123), 3);
  EXPECT_STREQ(buffer, "123");
  EXPECT_DEATH(bounded_format(buffer, sizeof(buffer), "%d", 1234), "does not fit");
  bounded_copy(buffer, sizeof(buffer), "abcd", 4);
  EXPECT_EQ(std::string(buffer, 4), "abcd");
  EXPECT_DEATH(bounded_copy(buffer, sizeof(buffer), "abcde", 5), "does not fit");
}

TEST(Replies, OfUpTo8191BytesPassWhole) {
  int ends[2];
  ASSERT_EQ(pipe(ends), 0);
  reply_set_port(ends[1]);
  const std::string longest(8191, 'r');
  EXPECT_EQ(at_send_result(nullptr), 0);
  EXPECT_EQ(at_send_result(""), 1);  // written, but nothing reaches the line
  EXPECT_EQ(at_send_result(longest.c_str()), 1);
  EXPECT_DEATH(at_send_result((longest + "r").c_str()), "does not fit");
  at_parse("AT^OPEN_GPS");  // no command is registered
  reply_set_port(-1);
  std::string received(16384, '\0');
  received.resize(static_cast<size_t>(read(ends[0], received.data(), received.size())));
  EXPECT_TRUE(received == longest + "UNDEFINED COMMAND\n") << received.size();
  close(ends[0]);
  close(ends[1]);
}

TEST(Replies, ThatAreNotWrittenCountAsZero) {
  LogCapture log;
  const int full = open("/dev/full", O_WRONLY | O_CLOEXEC);
  reply_set_port(full);
  EXPECT_EQ(at_send_result(nullptr), 0);
  EXPECT_EQ(log.take(), std::vector<LogCapture::Line>{});
  EXPECT_EQ(at_send_result("text"), 0);
  EXPECT_EQ(log.take(), (std::vector<LogCapture::Line>{
                            debug_line("[FTM-AT]at_send_result : result is : text\n"),
                            debug_line("[FTM-AT]at_send_result : serial_port_fd is : " +
                                       std::to_string(full) + "\n")}));
  reply_set_port(-1);
  close(full);
}

TEST(Properties, GiveTheDefaultWhenUnset) {
  char value[PROP_VALUE_MAX];
  EXPECT_EQ(property_get("no.such.property", value, "NULL"), 4);
  EXPECT_STREQ(value, "NULL");
  EXPECT_EQ(property_get("no.such.property", value, nullptr), 0);
  EXPECT_STREQ(value, "");
  EXPECT_EQ(property_get("../no.such.property", value, std::string(200, 'x').c_str()), 91);
  EXPECT_EQ(std::string(value), std::string(91, 'x'));
}
