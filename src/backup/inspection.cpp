#include "backup/inspection.h"

#include <algorithm>

#include "archive/zip_error.h"
#include "base/file_error.h"
#include "platform/platform.h"

namespace corvelstow {
namespace {

// A manifest is a few hundred bytes; one that would inflate past this is not one, and must not
// be allowed to exhaust the app's memory.
constexpr std::size_t kManifestLimit = 16 << 20;

struct ManifestTooLarge {};

}  // namespace

StowManifest readManifest(StowZipReader& reader) {
  const auto& items = reader.items();
  auto item = std::find_if(items.begin(), items.end(),
                           [](const StowZipItem& i) { return i.path == "manifest.json"; });
  if (item == items.end() || item->size > kManifestLimit) throw StowRestoreError::noManifest();

  // A damaged or foreign manifest counts as none: the underlying error is dropped on purpose.
  std::string bytes;
  try {
    reader.extract(*item, [&](std::string_view piece) {
      if (bytes.size() + piece.size() > kManifestLimit) throw ManifestTooLarge{};
      bytes.append(piece);
    });
  } catch (const ManifestTooLarge&) {
    throw StowRestoreError::noManifest();
  } catch (const StowZipError&) {
    throw StowRestoreError::noManifest();
  } catch (const StowFileError&) {
    throw StowRestoreError::noManifest();
  }
  auto manifest = decodeRecord<StowManifest>(bytes);
  if (!manifest) throw StowRestoreError::noManifest();
  return *manifest;
}

StowManifest readManifest(const std::filesystem::path& archive) {
  // The archive may lie outside the app's folders, where the document picker found it.
  platform::ScopedFileAccess access(archive);
  StowZipReader reader(archive);
  return readManifest(reader);
}

}  // namespace corvelstow
