#pragma once

#include <map>
#include <string>
#include <vector>

namespace corvelstow::testing {

/// What a finished child process left behind.
struct ProcessResult {
  int exitCode = -1;  ///< the exit status, or 128 + signal when a signal ended it
  std::string out;
  std::string err;
};

/// Runs `arguments` (the program first, looked up on PATH) with extra environment variables
/// (an empty value removes the variable) and waits for it.
ProcessResult runProcess(const std::vector<std::string>& arguments,
                         const std::map<std::string, std::string>& environment = {},
                         const std::string& input = {});

/// Runs the built corvelstow command with these arguments.
ProcessResult runCommand(const std::vector<std::string>& arguments,
                         const std::map<std::string, std::string>& environment = {});

}  // namespace corvelstow::testing
