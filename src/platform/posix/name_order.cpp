#include <unicode/bytestream.h>
#include <unicode/normalizer2.h>
#include <unicode/ustring.h>

#include "platform/platform.h"

namespace corvelstow::platform {
namespace {

bool isUtf8(std::string_view name) {
  UErrorCode status = U_ZERO_ERROR;
  std::int32_t length = 0;
  ::u_strFromUTF8(nullptr, 0, &length, name.data(), static_cast<std::int32_t>(name.size()),
                  &status);
  return status != U_INVALID_CHAR_FOUND;
}

// What a name is ordered by: its canonical decomposition in UTF-8, whose bytes compare as its
// code points do; the bytes of a name that is not UTF-8, or that ICU cannot decompose.
std::string orderKey(std::string_view name) {
  if (!isUtf8(name)) return std::string(name);
  UErrorCode status = U_ZERO_ERROR;
  const icu::Normalizer2* nfd = icu::Normalizer2::getNFDInstance(status);
  std::string key;
  icu::StringByteSink<std::string> sink(&key, static_cast<std::int32_t>(name.size()));
  if (U_SUCCESS(status)) {
    nfd->normalizeUTF8(0, icu::StringPiece(name.data(), static_cast<std::int32_t>(name.size())),
                       sink, nullptr, status);
  }
  return U_SUCCESS(status) ? key : std::string(name);
}

}  // namespace

int compareNames(std::string_view a, std::string_view b) {
  return orderKey(a).compare(orderKey(b));
}

}  // namespace corvelstow::platform
