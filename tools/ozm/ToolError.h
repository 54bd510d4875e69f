// The failure of a command on bad input or a failing library call: the message says what went wrong
// and with what, and becomes the one line the tool prints before exiting with a non-zero status.
#pragma once

#include <stdexcept>
#include <string>

namespace OzmTool {

class ToolError : public std::runtime_error {
 public:
  explicit ToolError(const std::string& message) : std::runtime_error(message) {}
};

}  // namespace OzmTool
