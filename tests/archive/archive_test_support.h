#pragma once

// Small helpers shared by the archive tests: reading and patching little-endian fields of an
// archive's bytes, dates in local time, and test data.

#include <zlib.h>

#include <cstdint>
#include <ctime>
#include <random>
#include <string>
#include <string_view>

#include "base/dates.h"

namespace corvelstow::testing {

inline std::uint32_t le(std::string_view bytes, std::size_t at, int width) {
  std::uint32_t value = 0;
  for (int i = width - 1; i >= 0; --i)
    value = value << 8 | static_cast<unsigned char>(bytes.at(at + i));
  return value;
}
inline std::uint16_t le16(std::string_view bytes, std::size_t at) {
  return static_cast<std::uint16_t>(le(bytes, at, 2));
}
inline std::uint32_t le32(std::string_view bytes, std::size_t at) { return le(bytes, at, 4); }

inline void setLe(std::string& bytes, std::size_t at, std::uint64_t value, int width) {
  for (int i = 0; i < width; ++i) bytes.at(at + i) = static_cast<char>(value >> (8 * i) & 0xFF);
}

/// Little-endian bytes of `value`, `width` bytes long.
inline std::string leBytes(std::uint64_t value, int width) {
  std::string bytes(static_cast<std::size_t>(width), '\0');
  setLe(bytes, 0, value, width);
  return bytes;
}

/// Where the central directory of an archive without a comment starts.
inline std::size_t centralOffset(std::string_view archive) {
  return le32(archive, archive.size() - 22 + 16);
}

/// The moment with these fields in the process's local time zone.
inline StowDate localDate(int year, int month, int day, int hour, int minute, int second) {
  std::tm fields{};
  fields.tm_year = year - 1900;
  fields.tm_mon = month - 1;
  fields.tm_mday = day;
  fields.tm_hour = hour;
  fields.tm_min = minute;
  fields.tm_sec = second;
  fields.tm_isdst = -1;
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

/// The bytes of a raw DEFLATE stream, unpacked with zlib's own calls: an oracle independent of
/// InflateStream. Empty when the stream is invalid or incomplete.
inline std::string zlibInflateRaw(std::string_view compressed) {
  z_stream stream{};
  if (inflateInit2(&stream, -15) != Z_OK) return {};
  std::string buffer(1 << 16, '\0'), result;
  stream.next_in = reinterpret_cast<Bytef*>(const_cast<char*>(compressed.data()));
  stream.avail_in = static_cast<uInt>(compressed.size());
  int status = Z_OK;
  do {
    stream.next_out = reinterpret_cast<Bytef*>(buffer.data());
    stream.avail_out = static_cast<uInt>(buffer.size());
    status = inflate(&stream, Z_NO_FLUSH);
    result.append(buffer.data(), buffer.size() - stream.avail_out);
  } while (status == Z_OK);
  inflateEnd(&stream);
  return status == Z_STREAM_END ? result : std::string();
}

}  // namespace corvelstow::testing
