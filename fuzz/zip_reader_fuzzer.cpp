// Feeds arbitrary bytes to the archive reader as a file: open it, list it, and unpack every item,
// checking that none gives more than its declared size, nor, when it unpacks, less, and that
// unpacking it on two threads comes to the same. Only the archive errors may come out; anything
// else, a crash, a leak or an allocation past the limit is a finding.

#include <sys/mman.h>
#include <unistd.h>

#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <optional>
#include <string>

#include "archive/zip_error.h"
#include "archive/zip_reader.h"

namespace {

// What one input may unpack in all before the rest is skipped: a megabyte of DEFLATE can stand
// for a gigabyte, and each input should take milliseconds.
constexpr std::uint64_t kOutputBudget = 64 << 20;
// Entries up to this size are also unpacked into memory.
constexpr std::uint64_t kSmallEntry = 1 << 20;

struct BudgetSpent {};

// One in-memory file, rewritten for every input and opened through /proc like any other path.
int inputFile() {
  static const int fd = [] {
    int created = ::memfd_create("zip-reader-input", 0);
    if (created < 0) std::abort();
    return created;
  }();
  return fd;
}

using Failure = std::optional<corvelstow::StowZipError::Kind>;

// Unpacks `item` on two threads: the same bytes as on one (`produced` of them) or the same
// failure, and never past the declared size.
void unpackBeside(corvelstow::StowZipReader::Unpacker& unpacker,
                  const corvelstow::StowZipItem& item, std::uint64_t produced, Failure failure) {
  std::uint64_t beside = 0;
  Failure besideFailure;
  try {
    unpacker.extractBeside(item, [&](std::string_view piece) {
      beside += piece.size();
      if (beside > item.size) std::abort();
    });
  } catch (const corvelstow::StowZipError& error) {
    besideFailure = error.kind();
  }
  if (besideFailure != failure || (!failure && beside != produced)) std::abort();
}

// Unpacks `item`, holding it to its declared size (a folder unpacks to nothing, whatever it
// declares); false once the budget is spent.
bool unpack(corvelstow::StowZipReader& reader, corvelstow::StowZipReader::Unpacker& unpacker,
            const corvelstow::StowZipItem& item, std::uint64_t& budget) {
  std::uint64_t produced = 0;
  Failure failure;
  try {
    reader.extract(item, [&](std::string_view piece) {
      produced += piece.size();
      if (produced > item.size) std::abort();  // past the declared size
      if (piece.size() > budget) throw BudgetSpent{};
      budget -= piece.size();
    });
    const std::uint64_t size = item.isFolder() ? 0 : item.size;
    if (produced != size) std::abort();  // unpacked, yet short of it
    if (size <= kSmallEntry && reader.data(item).size() != size) std::abort();
  } catch (const corvelstow::StowZipError& error) {
    failure = error.kind();
  } catch (const BudgetSpent&) {
    return false;
  }
  unpackBeside(unpacker, item, produced, failure);
  return true;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  const int fd = inputFile();
  if (::ftruncate(fd, 0) != 0 || ::pwrite(fd, data, size, 0) != static_cast<ssize_t>(size)) {
    std::abort();
  }
  try {
    corvelstow::StowZipReader reader("/proc/self/fd/" + std::to_string(fd));
    corvelstow::StowZipReader::Unpacker unpacker = reader.unpacker();
    std::uint64_t budget = kOutputBudget;
    for (const corvelstow::StowZipItem& item : reader.items()) {
      if (!unpack(reader, unpacker, item, budget)) break;
    }
  } catch (const corvelstow::StowZipError&) {
  }
  return 0;
}
