#pragma once

#include <functional>
#include <map>
#include <string>
#include <vector>

#include "support/temp_folder.h"

namespace corvelstow::testing {

using Environment = std::map<std::string, std::string>;

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
  ChildProcess(const std::vector<std::string>& arguments, const Environment& environment = {},
               const std::string& input = {});
  ~ChildProcess();
  ChildProcess(const ChildProcess&) = delete;
  ChildProcess& operator=(const ChildProcess&) = delete;

  /// Waits for the process to end and gives what it left; call it once.
  ProcessResult wait();
  /// Ends the process with SIGKILL (it is waited for by wait()).
  void kill();

 private:
  TempFolder scratch_;  // for its standard streams
  int pid_ = -1;
};

/// Runs `arguments` (the program first, looked up on PATH) with extra environment variables
/// (an empty value removes the variable) and waits for it.
ProcessResult runProcess(const std::vector<std::string>& arguments,
                         const Environment& environment = {}, const std::string& input = {});

/// Runs the built corvelstow command with these arguments.
ProcessResult runCommand(const std::vector<std::string>& arguments,
                         const Environment& environment = {});

/// Runs `run` with the fault seam (support/fault_seam.c) killing it at its first call of `kind`
/// ("rename", "change"...), then at its second, and so on until a run ends on its own;
/// `check(n)` looks at what the run killed at its nth call left. Gives how many were killed.
int killAtEach(const std::string& kind, const std::function<ProcessResult(const Environment&)>& run,
               const std::function<void(int)>& check);

}  // namespace corvelstow::testing
