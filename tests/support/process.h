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

/// A child process that runs while this object lives: started by the constructor, waited for by
/// wait(), killed and waited for by the destructor if it still runs then.
class ChildProcess {
 public:
  /// Starts `arguments` (the program first, looked up on PATH) with extra environment
  /// variables (an empty value removes the variable) and `input` as its standard input.
  ChildProcess(const std::vector<std::string>& arguments,
               const std::map<std::string, std::string>& environment = {},
               const std::string& input = {});
  ~ChildProcess();
  ChildProcess(const ChildProcess&) = delete;
  ChildProcess& operator=(const ChildProcess&) = delete;

  /// Waits for the process to end and gives what it left; call it once.
  ProcessResult wait();
  /// Ends the process with SIGKILL (it is waited for by wait()).
  void kill();

 private:
  std::string scratch_;  // a folder for its standard streams
  int pid_ = -1;
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
