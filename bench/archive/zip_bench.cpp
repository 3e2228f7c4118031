// The archive writer and reader as a user would run them, and two measurements of their inner
// loops. Driven by bench/archive/run.py, which compares it with zip, bsdtar and unzip.
//
//   zip_bench pack FOLDER ARCHIVE [THREADS]
//                                     every folder and file below FOLDER, files deflated by
//                                     THREADS threads (1 unless told)
//   zip_bench unpack ARCHIVE FOLDER   every entry, CRC-checked, into FOLDER
//   zip_bench crc MIB                 CRC-32 throughput: zlib's, whole and in joined blocks,
//   against
//                                     a byte at a time
//   zip_bench streams ENTRIES         a new zlib stream per small entry against one reset stream

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>
#include <zlib.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstring>
#include <filesystem>
#include <iostream>
#include <string>
#include <vector>

#include "archive/crc32.h"
#include "archive/deflate_stream.h"
#include "archive/zip_reader.h"
#include "archive/zip_writer.h"
#include "base/unique_fd.h"

using namespace corvelstow;
namespace fs = std::filesystem;

namespace {

double secondsSince(std::chrono::steady_clock::time_point start) {
  return std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
}

int pack(const fs::path& folder, const fs::path& archive, unsigned threads) {
  std::vector<fs::directory_entry> entries(fs::recursive_directory_iterator(folder), {});
  std::sort(entries.begin(), entries.end(),
            [](const auto& a, const auto& b) { return a.path() < b.path(); });
  StowZipWriter writer(archive, threads);
  std::uint64_t bytes = 0;
  for (const fs::directory_entry& entry : entries) {
    const std::string name = fs::relative(entry.path(), folder).generic_string();
    if (entry.is_directory()) {
      writer.addDirectory(name, std::chrono::time_point_cast<std::chrono::seconds>(
                                    std::chrono::system_clock::now()));
    } else if (entry.is_regular_file()) {
      writer.addFile(entry.path(), name);
      bytes += entry.file_size();
    }
  }
  writer.finish();
  std::cout << writer.written().size() << " entries, " << bytes << " bytes in, " << writer.offset()
            << " bytes out\n";
  return 0;
}

int unpack(const fs::path& archive, const fs::path& folder) {
  StowZipReader reader(archive);
  std::uint64_t bytes = 0;
  for (const StowZipItem& item : reader.items()) {
    const fs::path target = folder / item.path;
    if (!item.path.empty() && item.path.back() == '/') {
      fs::create_directories(target);
      continue;
    }
    fs::create_directories(target.parent_path());
    UniqueFd out(::open(target.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0644));
    if (!out) throw std::runtime_error("cannot create " + target.string());
    reader.extract(item, out.get());
    bytes += item.size;
  }
  std::cout << reader.items().size() << " entries, " << bytes << " bytes out\n";
  return 0;
}

// The CRC-32 of the format computed one byte per table lookup, as the textbook loop does.
std::uint32_t crcByteAtATime(const unsigned char* p, std::size_t n) {
  static const auto table = [] {
    std::vector<std::uint32_t> t(256);
    for (std::uint32_t i = 0; i < 256; ++i) {
      std::uint32_t c = i;
      for (int k = 0; k < 8; ++k) c = (c & 1) ? (c >> 1) ^ 0xEDB88320u : c >> 1;
      t[i] = c;
    }
    return t;
  }();
  std::uint32_t c = 0xFFFFFFFF;
  while (n--) c = table[(c ^ *p++) & 0xFF] ^ (c >> 8);
  return c ^ 0xFFFFFFFF;
}

int crc(std::size_t mib) {
  std::vector<unsigned char> bytes(mib << 20);
  for (std::size_t i = 0; i < bytes.size(); ++i)
    bytes[i] = static_cast<unsigned char>(i * 131 + (i >> 9));
  const double megabytes = static_cast<double>(bytes.size()) / 1e6;

  auto start = std::chrono::steady_clock::now();
  StowCRC32 pieces;
  for (std::size_t at = 0; at < bytes.size(); at += 1 << 20) pieces.update(&bytes[at], 1 << 20);
  const double piecesSeconds = secondsSince(start);

  // As the writer does for a large file: each block checksummed apart, then joined in order.
  constexpr std::size_t kBlock = 128 << 10;
  start = std::chrono::steady_clock::now();
  StowCRC32 joined;
  for (std::size_t at = 0; at < bytes.size(); at += kBlock) {
    StowCRC32 block;
    block.update(&bytes[at], kBlock);
    joined.append(block.checksum(), kBlock);
  }
  const double joinedSeconds = secondsSince(start);

  start = std::chrono::steady_clock::now();
  const std::uint32_t simple = crcByteAtATime(bytes.data(), bytes.size());
  const double simpleSeconds = secondsSince(start);

  const bool same = pieces.checksum() == simple && joined.checksum() == simple;
  std::printf(
      "crc32 over %zu MiB: 1 MiB pieces %.0f MB/s, 128 KiB blocks joined %.0f MB/s, "
      "byte at a time %.0f MB/s%s\n",
      mib, megabytes / piecesSeconds, megabytes / joinedSeconds, megabytes / simpleSeconds,
      same ? "" : "  (RESULTS DIFFER)");
  return same ? 0 : 1;
}

int streams(int entries) {
  std::string entry;
  for (int i = 0; entry.size() < 4096; ++i) entry += "{\"id\": " + std::to_string(i) + "}\n";
  std::size_t sink = 0;
  const ByteSink count = [&sink](std::string_view piece) { sink += piece.size(); };

  auto start = std::chrono::steady_clock::now();
  for (int i = 0; i < entries; ++i) {
    DeflateStream fresh;  // deflateInit2 and deflateEnd for every entry
    fresh.write(entry, count);
    fresh.finish(count);
  }
  const double freshSeconds = secondsSince(start);

  start = std::chrono::steady_clock::now();
  DeflateStream reused;
  for (int i = 0; i < entries; ++i) {
    reused.reset();
    reused.write(entry, count);
    reused.finish(count);
  }
  const double reusedSeconds = secondsSince(start);

  std::printf(
      "%d entries of %zu bytes: new stream %.1f us/entry, reset stream %.1f us/entry "
      "(%.1f us saved per entry)\n",
      entries, entry.size(), freshSeconds / entries * 1e6, reusedSeconds / entries * 1e6,
      (freshSeconds - reusedSeconds) / entries * 1e6);
  return 0;
}

}  // namespace

int main(int argc, char** argv) {
  const std::vector<std::string> args(argv + 1, argv + argc);
  try {
    if ((args.size() == 3 || args.size() == 4) && args[0] == "pack") {
      return pack(args[1], args[2], args.size() == 4 ? std::stoul(args[3]) : 1);
    }
    if (args.size() == 3 && args[0] == "unpack") return unpack(args[1], args[2]);
    if (args.size() == 2 && args[0] == "crc") return crc(std::stoul(args[1]));
    if (args.size() == 2 && args[0] == "streams") return streams(std::stoi(args[1]));
  } catch (const std::exception& error) {
    std::cerr << error.what() << '\n';
    return 1;
  }
  std::cerr << "usage: zip_bench pack FOLDER ARCHIVE [THREADS] | unpack ARCHIVE FOLDER | crc MIB | "
               "streams ENTRIES\n";
  return 2;
}
