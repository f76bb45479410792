// Catches the log lines that the code under test writes.

#pragma once

#include <android/log.h>

#include <mutex>
#include <string>
#include <vector>

class LogCapture {
 public:
  struct Line {
    int priority;
    std::string tag;  // empty for the program's own
    std::string text;
    bool operator==(const Line&) const = default;
  };

  LogCapture() {
    current() = this;
    __android_log_set_default_tag("");
    __android_log_set_logger([](const __android_logger_data* data, const char* text) {
      const std::lock_guard lock(current()->mutex_);
      current()->lines_.push_back({data->priority, data->tag, text});
    });
  }
  ~LogCapture() {
    __android_log_set_logger(__android_log_stderr_logger);
  }

  // The lines since the last call.
  std::vector<Line> take() {
    const std::lock_guard lock(mutex_);
    return std::exchange(lines_, {});
  }

 private:
  static LogCapture*& current() {
    static LogCapture* capture = nullptr;
    return capture;
  }

  std::mutex mutex_;
  std::vector<Line> lines_;
};

inline LogCapture::Line debug_line(const std::string& text) {
  return {ANDROID_LOG_DEBUG, "", text};
}
