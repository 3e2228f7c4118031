#include "archive/zip_writer.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>
#include <zlib.h>

#include <algorithm>
#include <cerrno>
#include <exception>
#include <stdexcept>

#include "archive/crc32.h"
#include "archive/zip_error.h"
#include "archive/zip_format.h"
#include "base/file_error.h"

namespace corvelstow {
namespace {

namespace fs = std::filesystem;

constexpr std::uint64_t kLastOffset = 0xFFFFFFFE;  // 0xFFFFFFFF would mean "see Zip64"
constexpr std::size_t kMaxEntries = 65534;         // 0xFFFF would mean "see Zip64"
constexpr std::size_t kMaxNameLength = 0xFFFF;
constexpr std::size_t kReadPieceSize = 1 << 20;

std::string lastComponent(const fs::path& location) {
  fs::path name = location.filename();
  if (name.empty()) name = location.parent_path().filename();
  return name.string();
}

// An entry with its name and DOS time set and everything else still zero.
StowZipWriter::Written newEntry(std::string_view name, StowDate date) {
  if (name.size() > kMaxNameLength) {
    throw std::length_error("An archive entry name is limited to 65,535 bytes.");
  }
  StowZipWriter::Written entry;
  entry.name = std::string(name);
  // A name that is not UTF-8 (a Linux file name in another encoding) keeps its bytes, unflagged.
  entry.flags = zip::isUtf8(name) ? zip::kFlagUtf8 : 0;
  zip::DosDateTime dos = zip::dosDateTime(date);
  entry.time = dos.time;
  entry.date = dos.date;
  return entry;
}

}  // namespace

StowZipWriter::StowZipWriter(const fs::path& location) : location_(location) {
  fd_.reset(::open(location.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0644));
  if (!fd_) throw StowZipError::cannotCreate(lastComponent(location));
}

StowZipWriter::~StowZipWriter() = default;
StowZipWriter::StowZipWriter(StowZipWriter&&) noexcept = default;
StowZipWriter& StowZipWriter::operator=(StowZipWriter&&) noexcept = default;

void StowZipWriter::add(std::string_view data, std::string_view name, StowDate date) {
  if (data.size() > 0xFFFFFFFF) {
    throw std::length_error("An in-memory archive entry is limited to 4 GiB.");
  }
  StowCRC32 crc;
  crc.update(data);
  Written entry = newEntry(name, date);
  checkStart(name);
  entry.method = zip::kMethodStored;
  entry.crc = crc.checksum();
  entry.compressed = entry.size = static_cast<std::uint32_t>(data.size());
  entry.offset = static_cast<std::uint32_t>(offset_);
  writeLocalHeader(entry);
  writeBytes(data);
  written_.push_back(std::move(entry));
}

void StowZipWriter::addDirectory(std::string_view name, StowDate date) {
  std::string folder(name);
  if (folder.empty() || folder.back() != '/') folder += '/';
  Written entry = newEntry(folder, date);
  checkStart(name);
  entry.method = zip::kMethodStored;
  entry.offset = static_cast<std::uint32_t>(offset_);
  entry.isDirectory = true;
  writeLocalHeader(entry);
  written_.push_back(std::move(entry));
}

void StowZipWriter::addFile(const fs::path& file, std::string_view name,
                            std::uint16_t permissions) {
  UniqueFd source(::open(file.c_str(), O_RDONLY | O_CLOEXEC | O_NOFOLLOW));
  if (!source) throwFileError("open", file);
  addFile(source.get(), file, name, permissions);
}

void StowZipWriter::addFile(int source, const fs::path& file, std::string_view name,
                            std::uint16_t permissions) {
  struct stat info {};
  if (::fstat(source, &info) != 0) throwFileError("read the attributes of", file);
  const auto size = static_cast<std::uint64_t>(info.st_size);
  if (size > kLastOffset) throw StowZipError::tooLarge(std::string(name));
  const StowDate date{std::chrono::seconds(info.st_mtime)};
  if (size == 0) {
    add({}, name, date);
    written_.back().permissions = permissions;
    return;
  }

  Written entry = newEntry(name, date);
  entry.permissions = permissions;
  checkStart(name);
  entry.method = zip::kMethodDeflated;
  entry.flags |= zip::kFlagDataDescriptor;
  entry.offset = static_cast<std::uint32_t>(offset_);
  writeLocalHeader(entry);

  // Compressed data: each piece of output goes straight to the archive. A failed write is kept
  // and ends the loop; the compressor is still finished before it is raised.
  if (deflate_) {
    deflate_->reset();
  } else {
    deflate_ = std::make_unique<DeflateStream>();
    probe_ = std::make_unique<CompressionProbe>();
  }
  if (!readBuffer_) readBuffer_.reset(new char[kReadPieceSize]);
  StowCRC32 crc;
  std::uint64_t uncompressed = 0, compressed = 0;
  std::exception_ptr failure;
  const ByteSink sink = [&](std::string_view piece) {
    if (failure) return;
    try {
      writeBytes(piece);
      compressed += piece.size();
    } catch (...) {
      failure = std::current_exception();
    }
  };
  while (!failure) {
    ssize_t count = ::read(source, readBuffer_.get(), kReadPieceSize);
    if (count < 0 && errno == EINTR) continue;
    if (count < 0) throwFileError("read", file);
    if (count == 0) break;
    std::string_view piece(readBuffer_.get(), static_cast<std::size_t>(count));
    crc.update(piece);
    uncompressed += piece.size();
    // DEFLATE spends most of its time failing to shrink data that is already dense; such
    // pieces go into stored blocks of the same stream, some fifty times faster.
    deflate_->setLevel(probe_->worthCompressing(piece) ? Z_DEFAULT_COMPRESSION : 0, sink);
    deflate_->write(piece, sink);
  }
  deflate_->finish(sink);
  if (failure) std::rethrow_exception(failure);
  // The file may have grown since its size was checked.
  if (compressed > kLastOffset || uncompressed > kLastOffset) {
    throw StowZipError::tooLarge(std::string(name));
  }

  // Data descriptor
  entry.crc = crc.checksum();
  entry.compressed = static_cast<std::uint32_t>(compressed);
  entry.size = static_cast<std::uint32_t>(uncompressed);
  std::string descriptor;
  zip::write(descriptor, zip::DataDescriptor{entry.crc, entry.compressed, entry.size});
  writeBytes(descriptor);
  written_.push_back(std::move(entry));
}

void StowZipWriter::finish() {
  if (offset_ > kLastOffset) throw StowZipError::tooLarge("the archive");
  const std::uint64_t directoryOffset = offset_;

  // Central directory, in one buffer and one write
  std::string directory;
  std::size_t length = 0;
  for (const Written& entry : written_) {
    length += zip::CentralDirectoryHeader::kFixedSize + entry.name.size();
  }
  directory.reserve(length);
  for (const Written& entry : written_) {
    zip::CentralDirectoryHeader header;
    header.flags = entry.flags;
    header.method = entry.method;
    header.time = entry.time;
    header.date = entry.date;
    header.crc = entry.crc;
    header.compressedSize = entry.compressed;
    header.size = entry.size;
    header.externalAttributes =
        entry.isDirectory ? zip::kAttributesFolder : zip::fileAttributes(entry.permissions);
    header.localHeaderOffset = entry.offset;
    header.name = entry.name;
    zip::write(directory, header);
  }
  writeBytes(directory);
  // Checked only now, after the directory: the count is the one limit the end record sets.
  if (written_.size() > kMaxEntries) throw StowZipError::tooLarge("the file list");

  // End record
  zip::EndOfCentralDirectory end;
  end.entriesOnDisk = end.totalEntries = static_cast<std::uint16_t>(written_.size());
  end.directorySize = static_cast<std::uint32_t>(directory.size());
  end.directoryOffset = static_cast<std::uint32_t>(directoryOffset);
  std::string record;
  zip::write(record, end);
  writeBytes(record);

  if (::fsync(fd_.get()) != 0) throwFileError("flush", location_);
}

void StowZipWriter::skipForTesting(std::uint64_t bytes) {
  if (::lseek(fd_.get(), static_cast<off_t>(bytes), SEEK_CUR) < 0) {
    throwFileError("seek in", location_);
  }
  offset_ += bytes;
}

void StowZipWriter::checkStart(std::string_view name) const {
  if (offset_ > kLastOffset) throw StowZipError::tooLarge(std::string(name));
}

// The local header and the name. An entry whose sizes follow in a data descriptor has zeros here.
void StowZipWriter::writeLocalHeader(const Written& entry) {
  const bool sizesFollow = (entry.flags & zip::kFlagDataDescriptor) != 0;
  zip::LocalFileHeader header;
  header.flags = entry.flags;
  header.method = entry.method;
  header.time = entry.time;
  header.date = entry.date;
  header.crc = sizesFollow ? 0 : entry.crc;
  header.compressedSize = sizesFollow ? 0 : entry.compressed;
  header.size = sizesFollow ? 0 : entry.size;
  header.nameLength = static_cast<std::uint16_t>(entry.name.size());
  std::string bytes;
  bytes.reserve(zip::LocalFileHeader::kFixedSize + entry.name.size());
  zip::write(bytes, header);
  bytes += entry.name;
  writeBytes(bytes);
}

void StowZipWriter::writeBytes(std::string_view bytes) {
  while (!bytes.empty()) {
    ssize_t count = ::write(fd_.get(), bytes.data(), std::min<std::size_t>(bytes.size(), 1 << 30));
    if (count < 0 && errno == EINTR) continue;
    if (count <= 0) {
      if (count == 0) errno = EIO;
      throwFileError("write to", location_);
    }
    bytes.remove_prefix(static_cast<std::size_t>(count));
    offset_ += static_cast<std::uint64_t>(count);
  }
}

}  // namespace corvelstow
