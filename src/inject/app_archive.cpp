#include "inject/app_archive.h"

#include <fcntl.h>
#include <sys/stat.h>

#include <cerrno>
#include <set>

#include "archive/zip_error.h"
#include "archive/zip_reader.h"
#include "archive/zip_writer.h"
#include "base/file_error.h"
#include "base/files.h"
#include "base/unique_fd.h"

namespace corvelstow::inject {
namespace {

constexpr std::string_view kPayload = "Payload/";

// The bundle folder an entry lies in, "Payload/{name}.app", or nothing.
std::string bundleOf(std::string_view path) {
  if (!path.starts_with(kPayload)) return {};
  const std::size_t end = path.find('/', kPayload.size());
  if (end == std::string_view::npos) return {};
  std::string_view bundle = path.substr(0, end);
  return bundle.ends_with(".app") ? std::string(bundle) : std::string();
}

void unpackFile(StowZipReader& reader, const StowZipItem& item, const fs::path& destination) {
  if (!files::createFolders(destination.parent_path())) {
    throwFileError("create the folder", destination.parent_path());
  }
  const mode_t permissions = (item.mode & 07777) != 0 ? item.mode & 07777 : 0644;
  UniqueFd file(
      ::open(destination.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_NOFOLLOW | O_CLOEXEC, 0600));
  if (!file) throwFileError("create", destination);
  reader.extract(item, file.get());
  if (::fchmod(file.get(), permissions) != 0 || !file.close()) throwFileError("write", destination);
}

}  // namespace

UnpackedApp unpackApp(const fs::path& ipa, const fs::path& folder) {
  StowZipReader reader(ipa);
  UnpackedApp unpacked;
  std::set<std::string> seen, bundles;
  for (const StowZipItem& item : reader.items()) {
    // Every entry lands inside the folder, and once: a repeated name keeps its last contents.
    if (!isSafeEntryPath(item.path, item.backslashSeparates())) {
      throw StowZipError::unsafePath(item.path);
    }
    if (S_ISLNK(item.mode)) {
      throwFileError(EINVAL, ipa.filename().string() + " holds a symbolic link, " + item.path +
                                 ", which inject does not carry over.");
    }
    if (seen.insert(item.path).second) unpacked.entries.push_back(item.path);
    if (auto bundle = bundleOf(item.path); !bundle.empty()) bundles.insert(bundle);
    if (item.path.back() == '/') {
      if (!files::createFolders(folder / item.path)) throwFileError("create the folder", item.path);
    } else {
      unpackFile(reader, item, folder / item.path);
    }
  }
  if (bundles.size() != 1) {
    throwFileError(ENOENT, ipa.filename().string() + " holds " +
                               (bundles.empty() ? "no app" : "more than one app") +
                               " in Payload/.");
  }
  unpacked.app = *bundles.begin();
  return unpacked;
}

void packApp(const fs::path& folder, const std::vector<std::string>& entries,
             const fs::path& destination) {
  StowZipWriter writer(destination);
  for (const std::string& entry : entries) {
    if (entry.back() == '/') {
      writer.addDirectory(entry, currentDate());
      continue;
    }
    struct stat info {};
    if (::stat((folder / entry).c_str(), &info) != 0) throwFileError("read", folder / entry);
    writer.addFile(folder / entry, entry, static_cast<std::uint16_t>(info.st_mode & 07777));
  }
  writer.finish();
}

}  // namespace corvelstow::inject
