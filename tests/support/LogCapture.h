#pragma once

#include <sstream>
#include <string>
#include <string_view>
#include <vector>

#include <gtest/gtest.h>

#include "dbg/Debug.h"

namespace propertyservice::test {

/// Collects what is logged while it lives, with every level on; puts the mask back at its end. One at a time.
class LogCapture {
 public:
  LogCapture() {
    dbg::DebugStreamBuf::setMask(~0U);
    testing::internal::CaptureStderr();
  }
  LogCapture(const LogCapture&) = delete;
  LogCapture& operator=(const LogCapture&) = delete;
  ~LogCapture() {
    if (capturing_) {
      text();
    }
    dbg::DebugStreamBuf::setMask(maskBefore_);
  }

  /// Ends the capture; all entries, a line each.
  const std::string& text() {
    if (capturing_) {
      capturing_ = false;
      text_ = testing::internal::GetCapturedStderr();
    }
    return text_;
  }

  /// Ends the capture; the entries that contain `part`.
  std::vector<std::string> linesWith(std::string_view part) {
    std::vector<std::string> lines;
    std::istringstream all(text());
    for (std::string line; std::getline(all, line);) {
      if (line.find(part) != std::string::npos) {
        lines.push_back(line);
      }
    }
    return lines;
  }

 private:
  const unsigned maskBefore_ = dbg::DebugStreamBuf::mask();
  bool capturing_ = true;
  std::string text_;
};

}  // namespace propertyservice::test
