// The core's small helpers on ordinary files.

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
#include "tests/unit/log_capture.h"

using Lines = std::vector<LogCapture::Line>;

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
  LogCapture log_;
};

TEST_F(FileHelpers, WriteNumbersSignedWithALineFeed) {
  EXPECT_EQ(file_write_int(path_.c_str(), 0), 2);
  EXPECT_EQ(content(), "0\n");
  EXPECT_EQ(file_write_int(path_.c_str(), 4294967295U), 3);
  EXPECT_EQ(content(), "-1\n");
  EXPECT_EQ(file_write_int(path_.c_str(), 0x80000000U), 12);
  EXPECT_EQ(content(), "-2147483648\n");
  EXPECT_EQ(log_.take(), Lines{});
  EXPECT_EQ(file_write_int(nullptr, 1), -4);
  EXPECT_EQ(file_write_int("/nowhere/node", 1), -1);
  EXPECT_EQ(log_.take(), Lines{error_line("[FTM-UTILS]fail to open file /nowhere/node\n")});
  EXPECT_EQ(file_write_int("/dev/full", 1), -3);
  EXPECT_EQ(log_.take(), Lines{error_line("[FTM-UTILS]fail to write file /dev/full\n")});
}

TEST_F(FileHelpers, WriteTextsAsTheyStand) {
  const std::string named = "[FTM-UTILS] file_write_string backlight value is ";
  EXPECT_EQ(file_write_string(path_.c_str(), "c"), 1);
  EXPECT_EQ(content(), "c");
  EXPECT_EQ(log_.take(), Lines{error_line(named + "c\n")});
  EXPECT_EQ(file_write_string(path_.c_str(), ""), -3);
  EXPECT_EQ(log_.take(), (Lines{error_line(named + "\n"),
                                error_line("[FTM-UTILS]fail to write file " + path_ + "\n")}));
  EXPECT_EQ(file_write_string(nullptr, "1"), -4);
  EXPECT_EQ(file_write_string(path_.c_str(), nullptr), -4);
  EXPECT_EQ(file_write_string("/nowhere/node", "1"), -1);
  EXPECT_EQ(log_.take(), Lines{error_line("[FTM-UTILS]fail to open file /nowhere/node\n")});
}

TEST_F(FileHelpers, ReadsAreNotTerminated) {
  char buffer[8] = {'.', '.', '.', '.', '.', '.', '.', '\0'};
  std::ofstream(path_) << "1234567890\n";
  EXPECT_EQ(file_read_string(path_.c_str(), buffer, 5), 5);
  EXPECT_STREQ(buffer, "12345..");
  EXPECT_EQ(file_read_string("/nowhere/node", buffer, 5), -1);
  EXPECT_EQ(file_read_string(nullptr, buffer, 5), -4);
  EXPECT_EQ(log_.take(), Lines{});  // a missing node is not worth a line
  std::ofstream(path_) << "";
  EXPECT_EQ(file_read_string(path_.c_str(), buffer, 5), 0);
  EXPECT_EQ(log_.take(), Lines{error_line("[FTM-UTILS]fail to read file " + path_ + "\n")});
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

TEST(Strupr, ChangesOnlyTheSmallLettersOfTheAlphabet) {
  char text[] = "az`{AZ09\xe4\xfc\x80~";
  EXPECT_EQ(strupr(text), text);
  EXPECT_STREQ(text, "AZ`{AZ09\xe4\xfc\x80~");
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
