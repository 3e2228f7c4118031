#include "archive/zip_reader.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <exception>
#include <limits>

#include "archive/crc32.h"
#include "archive/zip_error.h"
#include "archive/zip_format.h"
#include "base/file_error.h"

namespace corvelstow {
namespace {

namespace fs = std::filesystem;

constexpr std::size_t kPieceSize = 1 << 20;
// The end record and the longest comment it can announce: the end record lies in these last bytes.
constexpr std::size_t kTailSize = zip::EndOfCentralDirectory::kFixedSize + zip::kMaxCommentLength;

void writeAll(int fd, std::string_view bytes, const std::string& entryPath) {
  while (!bytes.empty()) {
    ssize_t count = ::write(fd, bytes.data(), bytes.size());
    if (count < 0 && errno == EINTR) continue;
    if (count <= 0) {
      if (count == 0) errno = EIO;
      throwFileError("write", entryPath);
    }
    bytes.remove_prefix(static_cast<std::size_t>(count));
  }
}

}  // namespace

bool isSafeEntryPath(std::string_view path) {
  if (path.empty() || path.front() == '/' || path.find('\\') != std::string_view::npos) {
    return false;
  }
  for (std::size_t start = 0; start <= path.size();) {
    const std::size_t end = std::min(path.find('/', start), path.size());
    if (path.substr(start, end - start) == "..") return false;
    start = end + 1;
  }
  return true;
}

StowZipReader::StowZipReader(const fs::path& location) : location_(location) {
  fd_.reset(::open(location.c_str(), O_RDONLY | O_CLOEXEC));
  if (!fd_) throwFileError("open", location);
  struct stat info {};
  if (::fstat(fd_.get(), &info) != 0) throwFileError("read", location);
  if (S_ISDIR(info.st_mode)) {
    errno = EISDIR;
    throwFileError("read", location);
  }
  length_ = static_cast<std::uint64_t>(std::max<off_t>(info.st_size, 0));
  bufferSize_ = static_cast<std::size_t>(std::min<std::uint64_t>(kPieceSize, length_ + 1));
  readDirectory();
}

StowZipReader::~StowZipReader() = default;
StowZipReader::StowZipReader(StowZipReader&&) noexcept = default;
StowZipReader& StowZipReader::operator=(StowZipReader&&) noexcept = default;

std::string StowZipReader::data(const StowZipItem& item) {
  std::string bytes;
  // The declared size is only a hint, and never trusted past the size of the archive itself.
  bytes.reserve(static_cast<std::size_t>(std::min(item.size, length_)));
  extract(item, [&bytes](std::string_view piece) { bytes += piece; });
  return bytes;
}

void StowZipReader::extract(const StowZipItem& item, int destinationFd) {
  extract(item, [&](std::string_view piece) { writeAll(destinationFd, piece, item.path); });
}

void StowZipReader::extract(const StowZipItem& item, const ByteSink& sink) {
  const std::uint64_t start = dataStart(item);
  if (item.method == zip::kMethodStored) {
    unpackStored(item, start, sink);
  } else if (item.method == zip::kMethodDeflated) {
    unpackDeflated(item, start, sink);
  } else {
    throw StowZipError::unsupportedMethod(item.method, item.path);
  }
}

// The directory: find the end record in the tail of the file, follow it to the Zip64 end record
// when it says so, then read the central directory in one piece and walk it.
void StowZipReader::readDirectory() {
  // End record
  const std::size_t tailSize =
      static_cast<std::size_t>(std::min<std::uint64_t>(length_, kTailSize));
  std::string tail(tailSize, '\0');
  tail.resize(readAt(length_ - tailSize, tail.data(), tailSize));
  if (tail.size() < zip::EndOfCentralDirectory::kFixedSize) throw StowZipError::notAZip();
  std::optional<zip::EndOfCentralDirectory> end;
  std::size_t position = tail.size() - zip::EndOfCentralDirectory::kFixedSize + 1;
  while (!end && position-- > 0) {  // the record nearest the end of the file wins
    zip::ByteCursor cursor(tail, position);
    end = zip::readEndOfCentralDirectory(cursor);
  }
  if (!end) throw StowZipError::notAZip();
  std::uint64_t count = end->totalEntries;
  std::uint64_t size = end->directorySize;
  std::uint64_t offset = end->directoryOffset;

  // Zip64 end record, when the end record points at it and it is there; otherwise the 32-bit
  // values stand.
  if ((offset == zip::kZip64Marker32 || count == zip::kZip64Marker16) &&
      position >= zip::Zip64EndLocator::kFixedSize) {
    zip::ByteCursor cursor(tail, position - zip::Zip64EndLocator::kFixedSize);
    if (auto locator = zip::readZip64EndLocator(cursor)) {
      char bytes[zip::Zip64EndOfCentralDirectory::kFixedSize];
      std::size_t got = readAt(locator->zip64EndOffset, bytes, sizeof bytes);
      zip::ByteCursor record(std::string_view(bytes, got));
      if (auto end64 = zip::readZip64EndOfCentralDirectory(record)) {
        count = end64->totalEntries;
        size = end64->directorySize;
        offset = end64->directoryOffset;
      }
    }
  }
  if (count == 0) return;

  // Central directory: never more bytes than the file holds after its offset.
  const std::uint64_t available = offset < length_ ? length_ - offset : 0;
  std::string directory(static_cast<std::size_t>(std::min(size, available)), '\0');
  directory.resize(readAt(offset, directory.data(), directory.size()));
  items_.reserve(static_cast<std::size_t>(
      std::min<std::uint64_t>(count, directory.size() / zip::CentralDirectoryHeader::kFixedSize)));
  zip::ByteCursor cursor(directory);
  while (items_.size() < count) {
    // A record that is short, lacks its signature or runs past the directory: not an archive.
    auto header = zip::readCentralDirectoryHeader(cursor);
    if (!header) throw StowZipError::notAZip();
    zip::EntryExtent extent = zip::entryExtent(*header);
    StowZipItem item;
    item.path = zip::decodeName(header->name);
    item.method = header->method;
    item.crc = header->crc;
    item.compressedSize = extent.compressedSize;
    item.size = extent.size;
    item.headerOffset = extent.localHeaderOffset;
    if (zip::madeOnUnix(header->versionMadeBy)) item.mode = header->externalAttributes >> 16;
    items_.push_back(std::move(item));
  }
}

// Reads until `count` bytes or the end of the file; fewer bytes only at the end.
std::size_t StowZipReader::readAt(std::uint64_t offset, char* buffer, std::size_t count) {
  constexpr auto kLastOffset = static_cast<std::uint64_t>(std::numeric_limits<off_t>::max());
  if (offset >= kLastOffset) return 0;  // past any file, and no wrap-around in the sums below
  count = static_cast<std::size_t>(std::min<std::uint64_t>(count, kLastOffset - offset));
  std::size_t done = 0;
  while (done < count) {
    ssize_t got =
        ::pread(fd_.get(), buffer + done, count - done, static_cast<off_t>(offset + done));
    if (got < 0 && errno == EINTR) continue;
    if (got < 0) throwFileError("read", location_);
    if (got == 0) break;
    done += static_cast<std::size_t>(got);
  }
  return done;
}

// Where the entry's data begins: after its local header, name and extra field, as the local
// header gives their lengths (they may differ from the central record's).
std::uint64_t StowZipReader::dataStart(const StowZipItem& item) {
  char bytes[zip::LocalFileHeader::kFixedSize];
  std::size_t got = readAt(item.headerOffset, bytes, sizeof bytes);
  zip::ByteCursor cursor(std::string_view(bytes, got));
  auto header = zip::readLocalFileHeader(cursor);
  if (!header) throw StowZipError::notAZip();
  return item.headerOffset + zip::LocalFileHeader::kFixedSize + header->nameLength +
         header->extraLength;
}

// Stored: the bytes as they are. A sink that throws stops the unpacking at once.
void StowZipReader::unpackStored(const StowZipItem& item, std::uint64_t start,
                                 const ByteSink& sink) {
  StowCRC32 crc;
  std::uint64_t remaining = item.compressedSize;
  std::uint64_t position = start;
  while (remaining > 0) {
    std::size_t want = static_cast<std::size_t>(std::min<std::uint64_t>(remaining, bufferSize_));
    std::size_t got = readAt(position, buffer(), want);
    if (got == 0) break;  // a truncated entry: the checksum below tells
    position += got;
    remaining -= got;
    std::string_view piece(buffer(), got);
    crc.update(piece);
    sink(piece);
  }
  if (crc.checksum() != item.crc) throw StowZipError::damaged(item.path);
}

// Deflated: the compressed bytes through the decompressor. A sink that throws is remembered and
// no further pieces reach it; the exception is passed on when reading has stopped.
void StowZipReader::unpackDeflated(const StowZipItem& item, std::uint64_t start,
                                   const ByteSink& sink) {
  if (inflate_) {
    inflate_->reset();
  } else {
    inflate_ = std::make_unique<InflateStream>();
  }
  StowCRC32 crc;
  std::exception_ptr failure;
  const ByteSink deliver = [&](std::string_view piece) {
    if (failure) return;
    try {
      sink(piece);
      crc.update(piece);
    } catch (...) {
      failure = std::current_exception();
    }
  };
  InflateStream::Status status = InflateStream::Status::needsInput;
  std::uint64_t remaining = item.compressedSize;
  std::uint64_t position = start;
  while (remaining > 0 && !failure && status == InflateStream::Status::needsInput) {
    std::size_t want = static_cast<std::size_t>(std::min<std::uint64_t>(remaining, bufferSize_));
    std::size_t got = readAt(position, buffer(), want);
    if (got == 0) break;
    position += got;
    remaining -= got;
    status = inflate_->write({buffer(), got}, deliver);
  }
  if (failure) std::rethrow_exception(failure);
  if (status == InflateStream::Status::corrupt || crc.checksum() != item.crc) {
    throw StowZipError::damaged(item.path);
  }
}

char* StowZipReader::buffer() {
  if (!buffer_) buffer_.reset(new char[bufferSize_]);
  return buffer_.get();
}

}  // namespace corvelstow
