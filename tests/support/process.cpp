#include "support/process.h"

#include <fcntl.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdlib>
#include <stdexcept>

#include "support/temp_folder.h"

namespace corvelstow::testing {

ProcessResult runProcess(const std::vector<std::string>& arguments,
                         const std::map<std::string, std::string>& environment,
                         const std::string& input) {
  TempFolder scratch;
  const fs::path in = scratch / "stdin", out = scratch / "stdout", err = scratch / "stderr";
  writeFile(in, input);

  pid_t child = ::fork();
  if (child < 0) throw std::runtime_error("fork failed");
  if (child == 0) {
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
  int status = 0;
  while (::waitpid(child, &status, 0) < 0) {
  }
  ProcessResult result;
  result.exitCode = WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
  result.out = readFile(out);
  result.err = readFile(err);
  return result;
}

ProcessResult runCommand(const std::vector<std::string>& arguments,
                         const std::map<std::string, std::string>& environment) {
  std::vector<std::string> full{CORVELSTOW_COMMAND};
  full.insert(full.end(), arguments.begin(), arguments.end());
  return runProcess(full, environment);
}

}  // namespace corvelstow::testing
