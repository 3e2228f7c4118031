#include "support/process.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <stdexcept>

namespace corvelstow::testing {

ChildProcess::ChildProcess(const std::vector<std::string>& arguments,
                           const Environment& environment, const std::string& input) {
  const fs::path in = scratch_ / "stdin", out = scratch_ / "stdout", err = scratch_ / "stderr";
  writeFile(in, input);

  pid_ = ::fork();
  if (pid_ < 0) throw std::runtime_error("fork failed");
  if (pid_ == 0) {
    ::dup2(::open(in.c_str(), O_RDONLY), 0);
    ::dup2(::open(out.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0644), 1);
    ::dup2(::open(err.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0644), 2);
    for (const auto& [name, value] : environment) {
      if (value.empty()) {
        ::unsetenv(name.c_str());
      } else {
        ::setenv(name.c_str(), value.c_str(), 1);
      }
    }
    std::vector<char*> argv;
    for (const auto& argument : arguments) argv.push_back(const_cast<char*>(argument.c_str()));
    argv.push_back(nullptr);
    ::execvp(argv[0], argv.data());
    ::_exit(127);
  }
}

ChildProcess::~ChildProcess() {
  if (pid_ > 0) {
    kill();
    wait();
  }
}

void ChildProcess::kill() {
  if (pid_ > 0) ::kill(pid_, SIGKILL);
}

ProcessResult ChildProcess::wait() {
  int status = 0;
  while (::waitpid(pid_, &status, 0) < 0) {
  }
  pid_ = -1;
  ProcessResult result;
  result.exitCode = WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
  result.out = readFile(scratch_ / "stdout");
  result.err = readFile(scratch_ / "stderr");
  return result;
}

ProcessResult runProcess(const std::vector<std::string>& arguments, const Environment& environment,
                         const std::string& input) {
  return ChildProcess(arguments, environment, input).wait();
}

ProcessResult runCommand(const std::vector<std::string>& arguments,
                         const Environment& environment) {
  std::vector<std::string> full{CORVELSTOW_COMMAND};
  full.insert(full.end(), arguments.begin(), arguments.end());
  return runProcess(full, environment);
}

int killAtEach(const std::string& kind, const std::function<ProcessResult(const Environment&)>& run,
               const std::function<void(int)>& check) {
  for (int n = 1;; ++n) {
    const ProcessResult killed = run({{"LD_PRELOAD", CORVELSTOW_FAULT_SEAM},
                                      {"CORVELSTOW_KILL", kind + "#" + std::to_string(n)}});
    if (killed.exitCode != 128 + SIGKILL) {
      EXPECT_EQ(killed.exitCode, 0) << "not killed at " << kind << " #" << n << ": " << killed.err;
      return n - 1;
    }
    check(n);
  }
}

}  // namespace corvelstow::testing
