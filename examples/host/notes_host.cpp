// notes-host: a stand-in for an app that carries CorvelStow. `corvelstow run -- notes-host`
// starts it with the library preloaded, as opening the app does on a device; by the time its
// main runs, any waiting restore or undo has been applied. It then shows what it finds in its
// container: every file under Documents and Library, with its size.

#include <cstdlib>
#include <filesystem>
#include <iostream>
#include <set>

namespace fs = std::filesystem;

int main() {
  const char* home = std::getenv("CORVELSTOW_HOME");
  if (home == nullptr) {
    std::cerr << "notes-host: no container: start me with corvelstow run.\n";
    return 1;
  }
  const char* preload = std::getenv("LD_PRELOAD");
  std::cout << "notes-host in " << home << " (LD_PRELOAD " << (preload ? preload : "unset")
            << ")\n";
  std::set<std::string> lines;  // sorted, so that two runs compare line by line
  for (const char* top : {"Documents", "Library"}) {
    std::error_code error;
    fs::path root = fs::path(home) / top;
    for (fs::recursive_directory_iterator it(root, error), end; !error && it != end;
         it.increment(error)) {
      if (it->is_regular_file(error)) {
        lines.insert(fs::relative(it->path(), home).string() + " " +
                     std::to_string(it->file_size(error)));
      }
    }
  }
  for (const auto& line : lines) std::cout << line << '\n';
  return 0;
}
