#pragma once

// Small helpers shared by the archive tests: little-endian fields of an archive's bytes, bytes
// written as hexadecimal, dates in local time, test data and the sentence of a failure.

#include <cstdint>
#include <ctime>
#include <random>
#include <string>
#include <string_view>

#include "archive/zip_error.h"
#include "base/dates.h"
#include "base/file_error.h"

namespace corvelstow::testing {

inline std::uint32_t le32(std::string_view bytes, std::size_t at) {
  std::uint32_t value = 0;
  for (int i = 3; i >= 0; --i) value = value << 8 | static_cast<unsigned char>(bytes.at(at + i));
  return value;
}

inline void setLe(std::string& bytes, std::size_t at, std::uint64_t value, int width) {
  for (int i = 0; i < width; ++i) bytes.at(at + i) = static_cast<char>(value >> (8 * i) & 0xFF);
}

/// Little-endian bytes of `value`, `width` bytes long.
inline std::string leBytes(std::uint64_t value, int width) {
  std::string bytes(static_cast<std::size_t>(width), '\0');
  setLe(bytes, 0, value, width);
  return bytes;
}

/// The bytes that pairs of hexadecimal digits spell; spaces between them are ignored.
inline std::string hexBytes(std::string_view digits) {
  std::string bytes;
  for (std::size_t i = 0; i < digits.size(); ++i) {
    if (digits[i] == ' ') continue;
    bytes += static_cast<char>(std::stoi(std::string(digits.substr(i++, 2)), nullptr, 16));
  }
  return bytes;
}

/// Where the central directory of an archive without a comment starts.
inline std::size_t centralOffset(std::string_view archive) {
  return le32(archive, archive.size() - 22 + 16);
}

/// 2024-05-01 09:30:10 in the process's local time zone: DOS time 0x4BC5 and date 0x58A1 in any.
inline StowDate sampleDate() {
  std::tm fields{};
  ::strptime("2024-05-01 09:30:10", "%Y-%m-%d %H:%M:%S", &fields);
  fields.tm_isdst = -1;  // mktime finds out whether summer time applies
  return StowDate(std::chrono::seconds(std::mktime(&fields)));
}

/// Bytes that do not compress.
inline std::string randomBytes(std::size_t count, unsigned seed = 1) {
  std::mt19937 engine(seed);
  std::string bytes(count, '\0');
  for (char& byte : bytes) byte = static_cast<char>(engine() & 0xFF);
  return bytes;
}

/// Text that compresses well but not trivially.
inline std::string sampleText(std::size_t count) {
  std::string text;
  for (unsigned line = 0; text.size() < count; ++line) {
    text += "{\"id\": " + std::to_string(line * 7919 % 10007) + ", \"title\": \"note " +
            std::to_string(line) + "\"}\n";
  }
  text.resize(count);
  return text;
}

/// The sentence of the archive or file error that `operation` throws, a file error marked as
/// such, or "(no error)".
template <typename Operation>
std::string failure(Operation operation) {
  try {
    operation();
  } catch (const StowZipError& error) {
    return error.what();
  } catch (const StowFileError& error) {
    return std::string("file error: ") + error.what();
  }
  return "(no error)";
}

}  // namespace corvelstow::testing
