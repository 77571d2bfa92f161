// Console messages collected in the message buffer while a test runs,
// instead of going to standard output; and what a call printed there.
#pragma once

#include <gtest/gtest.h>

#include <string>

#include "common/mrv_msg.h"

// What `call` printed on standard output.
template <class Call>
std::string stdout_of(Call&& call) {
  testing::internal::CaptureStdout();
  call();
  return testing::internal::GetCapturedStdout();
}

class ConsoleCapture {
 public:
  ConsoleCapture() {
    msg_output_fd = 1;
    clear();
  }
  ~ConsoleCapture() { msg_output_fd = -1; }
  ConsoleCapture(const ConsoleCapture&) = delete;
  ConsoleCapture& operator=(const ConsoleCapture&) = delete;

  std::string text() const { return std::string(msg_buffer, msg_buffer_fill); }
  void clear() {
    msg_buffer_fill = 0;
    msg_buffer[0] = '\0';
  }
};
