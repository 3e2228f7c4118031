#include "platform/platform.h"

// Linux has no security-scoped locations: a picked file is read with plain file access.
namespace corvelstow::platform {

ScopedFileAccess::ScopedFileAccess(const fs::path&) noexcept {}

ScopedFileAccess::~ScopedFileAccess() = default;

}  // namespace corvelstow::platform
