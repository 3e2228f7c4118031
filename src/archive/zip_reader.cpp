#include "archive/zip_reader.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <limits>
#include <system_error>

#include "archive/crc32.h"
#include "archive/piece_pipeline.h"
#include "archive/zip_error.h"
#include "archive/zip_format.h"
#include "base/file_error.h"
#include "base/files.h"

namespace corvelstow {
namespace {

namespace fs = std::filesystem;

constexpr std::size_t kPieceSize = 1 << 20;
// The end record and the longest comment it can announce: the end record lies in these last bytes.
constexpr std::size_t kTailSize = zip::EndOfCentralDirectory::kFixedSize + zip::kMaxCommentLength;
// The end records tried, nearest the end of the file first: enough for an archive whose comment
// holds a copy of its own, few enough that many signatures in a comment cost little.
constexpr std::size_t kEndRecordsTried = 4;
// The central directory is read a window at a time, so that a large archive's is never held
// whole beside the entries made from it. A window is refilled while it may end inside a record:
// one is at most its fixed part and three 16-bit lengths of name, extra field and comment.
constexpr std::size_t kDirectoryWindow = 1 << 20;
constexpr std::size_t kLargestDirectoryRecord =
    zip::CentralDirectoryHeader::kFixedSize + 3 * 0xFFFF;
// The most bytes DEFLATE gives for one: a match of 258 bytes in two bits.
constexpr std::uint64_t kMostInflation = 1032;

// The entry's path from its central record: the text of its name (see StowZipItem), ending in
// "/" when it is a folder and only then. The entry's own marks decide that, not the name of a
// Unicode Path field, which may end a folder's name in a backslash (from Windows) or in nothing;
// a file's field that ends in "/" is passed over.
void nameItem(StowZipItem& item, const zip::CentralDirectoryHeader& header) {
  const bool folder =
      header.name.ends_with('/') || (zip::madeOnDos(header.versionMadeBy) &&
                                     (header.externalAttributes & zip::kDosAttributeFolder) != 0);
  auto unicode = zip::unicodePath(header);
  if (unicode && (folder || !unicode->ends_with('/'))) {
    item.path = std::string(*unicode);
    item.nameEncoding = StowZipItem::NameEncoding::unicodePathField;
  } else if ((header.flags & zip::kFlagUtf8) || zip::isUtf8(header.name)) {
    item.path = zip::decodeName(header.name);
  } else {
    item.path = zip::decodeCp437(header.name);
    item.nameEncoding = StowZipItem::NameEncoding::cp437;
  }
  if (!folder) return;
  if (item.path.ends_with('/') || (item.path.ends_with('\\') && item.backslashSeparates())) {
    item.path.pop_back();
  }
  item.path += '/';
}

}  // namespace

bool isSafeEntryPath(std::string_view path, bool backslashSeparates) {
  if (path.empty() || path.front() == '/' || path.find('\0') != std::string_view::npos ||
      (backslashSeparates && path.find('\\') != std::string_view::npos)) {
    return false;
  }
  for (std::size_t start = 0; start <= path.size();) {
    const std::size_t end = std::min(path.find('/', start), path.size());
    if (path.substr(start, end - start) == "..") return false;
    start = end + 1;
  }
  return true;
}

bool declaresPossibleSize(const StowZipItem& item) {
  if (item.method == zip::kMethodStored) return item.size == item.compressedSize;
  if (item.method != zip::kMethodDeflated) return true;
  return item.compressedSize >= UINT64_MAX / kMostInflation ||
         item.size <= item.compressedSize * kMostInflation;
}

// The open archive, shared by the reader and its unpackers. Every read names its offset, so
// that unpackers on several threads read at once.
struct StowZipReader::Source {
  fs::path location;
  UniqueFd fd;
  std::uint64_t length = 0;
  std::size_t pieceSize = 0;          // the most read at once: 1 MiB, less for a smaller archive
  std::vector<std::uint64_t> starts;  // every local header's offset and the directory's, sorted

  std::size_t readAt(std::uint64_t offset, char* buffer, std::size_t count) const;
  std::uint64_t dataStart(const StowZipItem& item) const;
  std::uint64_t nextStart(std::uint64_t headerOffset) const;
};

StowZipReader::StowZipReader(const fs::path& location) : source_(std::make_shared<Source>()) {
  Source& source = *source_;
  source.location = location;
  source.fd.reset(::open(location.c_str(), O_RDONLY | O_CLOEXEC));
  if (!source.fd) throwFileError("open", location);
  struct stat info {};
  if (::fstat(source.fd.get(), &info) != 0) throwFileError("read", location);
  if (S_ISDIR(info.st_mode)) {
    errno = EISDIR;
    throwFileError("read", location);
  }
  source.length = static_cast<std::uint64_t>(std::max<off_t>(info.st_size, 0));
  source.pieceSize =
      static_cast<std::size_t>(std::min<std::uint64_t>(kPieceSize, source.length + 1));
  readDirectory();
}

StowZipReader::~StowZipReader() = default;
StowZipReader::StowZipReader(StowZipReader&&) noexcept = default;
StowZipReader& StowZipReader::operator=(StowZipReader&&) noexcept = default;

std::string StowZipReader::data(const StowZipItem& item) {
  std::string bytes;
  // The declared size is only a hint, and never trusted past the size of the archive itself.
  bytes.reserve(static_cast<std::size_t>(std::min(item.size, source_->length)));
  extract(item, [&bytes](std::string_view piece) { bytes += piece; });
  return bytes;
}

void StowZipReader::extract(const StowZipItem& item, int destinationFd) {
  extract(item, [&](std::string_view piece) {
    if (!files::writeAll(destinationFd, piece)) throwFileError("write", item.path);
  });
}

void StowZipReader::extract(const StowZipItem& item, const ByteSink& sink) {
  ownUnpacker().extract(item, sink);
}

StowZipReader::Unpacker StowZipReader::unpacker() const { return Unpacker(source_); }

StowZipReader::Unpacker& StowZipReader::ownUnpacker() {
  if (!unpacker_) unpacker_.reset(new Unpacker(source_));
  return *unpacker_;
}

// Unpacker

StowZipReader::Unpacker::Unpacker(std::shared_ptr<const Source> source)
    : source_(std::move(source)) {}
StowZipReader::Unpacker::~Unpacker() = default;
StowZipReader::Unpacker::Unpacker(Unpacker&&) noexcept = default;
StowZipReader::Unpacker& StowZipReader::Unpacker::operator=(Unpacker&&) noexcept = default;

void StowZipReader::Unpacker::extract(const StowZipItem& item, const ByteSink& sink) {
  if (item.isFolder()) return;
  StowCRC32 crc;
  unpack(item, [&](std::string_view piece) {
    sink(piece);
    crc.update(piece);
  });
  if (crc.checksum() != item.crc) throw StowZipError::damaged(item.path);
}

void StowZipReader::Unpacker::extractBeside(const StowZipItem& item, const ByteSink& sink) {
  if (item.isFolder()) return;
  StowCRC32 crc;
  std::optional<StowPiecePipeline> pipeline;
  try {
    pipeline.emplace([&](std::string_view piece) {
      sink(piece);
      crc.update(piece);
    });
  } catch (const std::system_error&) {
    return extract(item, sink);  // no second thread to be had: all on this one
  }
  try {
    unpack(item, [&](std::string_view piece) { pipeline->put(piece); });
  } catch (...) {
    pipeline->finish();  // a failure of the sink on what came before is the one that counts
    throw;
  }
  pipeline->finish();
  if (crc.checksum() != item.crc) throw StowZipError::damaged(item.path);
}

// The entry's bytes, held to its declared sizes; the checksum is the caller's.
void StowZipReader::Unpacker::unpack(const StowZipItem& item, const ByteSink& sink) {
  const Source& source = *source_;
  const std::uint64_t start = source.dataStart(item);
  if (item.flags & zip::kFlagEncrypted) throw StowZipError::encrypted(item.path);
  if (item.method != zip::kMethodStored && item.method != zip::kMethodDeflated) {
    throw StowZipError::unsupportedMethod(item.method, item.path);
  }
  if (!declaresPossibleSize(item)) throw StowZipError::wrongSize(item.path);
  // The data must end before the next entry (or the directory) begins.
  const std::uint64_t limit = source.nextStart(item.headerOffset);
  if (start > limit || item.compressedSize > limit - start) {
    throw StowZipError::wrongSize(item.path);
  }
  if (item.method == zip::kMethodStored) {
    unpackStored(item, start, sink);
  } else {
    unpackDeflated(item, start, sink);
  }
}

// An end record, where it stands, and the Zip64 locator right before it when there is one.
struct StowZipReader::EndRecord {
  zip::EndOfCentralDirectory record;
  std::uint64_t at = 0;
  std::optional<zip::Zip64EndLocator> locator;
};

// Where the central directory lies, as the end records place it.
struct StowZipReader::DirectoryPlace {
  std::uint64_t count = 0;   // of entries
  std::uint64_t offset = 0;  // as the end record gives it
  std::uint64_t size = 0;
  std::uint64_t shift = 0;  // the length of what stands in front of the archive
  std::uint64_t start() const { return offset + shift; }
};

// The end records in the last bytes of the file, nearest the end first, kEndRecordsTried at most.
std::vector<StowZipReader::EndRecord> StowZipReader::findEndRecords() {
  const std::size_t tailSize =
      static_cast<std::size_t>(std::min<std::uint64_t>(source_->length, kTailSize));
  std::string tail(tailSize, '\0');
  tail.resize(source_->readAt(source_->length - tailSize, tail.data(), tailSize));
  if (tail.size() < zip::EndOfCentralDirectory::kFixedSize) throw StowZipError::notAZip();
  std::vector<EndRecord> found;
  std::size_t position = tail.size() - zip::EndOfCentralDirectory::kFixedSize + 1;
  while (found.size() < kEndRecordsTried && position-- > 0) {
    zip::ByteCursor cursor(tail, position);
    auto end = zip::readEndOfCentralDirectory(cursor);
    if (!end) continue;
    EndRecord& record = found.emplace_back();
    record.record = *end;
    record.at = source_->length - tail.size() + position;
    if (position >= zip::Zip64EndLocator::kFixedSize) {
      zip::ByteCursor before(tail, position - zip::Zip64EndLocator::kFixedSize);
      record.locator = zip::readZip64EndLocator(before);
    }
  }
  if (found.empty()) throw StowZipError::notAZip();
  return found;
}

// The Zip64 end record and where it stands: where the locator says, or else right before the
// locator, where it is when data in front of the archive has moved it. Either way the record
// (its size counts what follows its first 12 bytes) ends where the locator begins.
std::optional<std::pair<zip::Zip64EndOfCentralDirectory, std::uint64_t>>
StowZipReader::findZip64End(const zip::Zip64EndLocator& locator, std::uint64_t locatorAt) {
  if (locatorAt < zip::Zip64EndOfCentralDirectory::kFixedSize) return {};
  const std::uint64_t latest = locatorAt - zip::Zip64EndOfCentralDirectory::kFixedSize;
  for (std::uint64_t at : {locator.zip64EndOffset, latest}) {
    if (at > latest) continue;
    char bytes[zip::Zip64EndOfCentralDirectory::kFixedSize];
    zip::ByteCursor record(std::string_view(bytes, source_->readAt(at, bytes, sizeof bytes)));
    auto end = zip::readZip64EndOfCentralDirectory(record);
    if (end && end->recordSize == locatorAt - at - 12) return std::make_pair(*end, at);
  }
  return {};
}

// The directory ends where the record after it begins (the Zip64 end record when there is one,
// else the end record), so whatever stands in front of the archive, such as a self-extracting
// stub, shows as a shift of every offset, which is then allowed for.
StowZipReader::DirectoryPlace StowZipReader::locateDirectory(const EndRecord& end) {
  DirectoryPlace place{end.record.totalEntries, end.record.directoryOffset,
                       end.record.directorySize};
  std::uint64_t directoryEnd = end.at;
  auto zip64 = end.locator ? findZip64End(*end.locator, end.at - zip::Zip64EndLocator::kFixedSize)
                           : std::nullopt;
  if (zip64) {
    directoryEnd = zip64->second;
    // Its numbers count only where the end record's are marked as too large for it.
    if (place.offset == zip::kZip64Marker32 || place.count == zip::kZip64Marker16) {
      place = {zip64->first.totalEntries, zip64->first.directoryOffset, zip64->first.directorySize};
    }
  }
  // A directory that would run past the record after it is no directory.
  if (place.size > directoryEnd || place.offset > directoryEnd - place.size) {
    throw StowZipError::notAZip();
  }
  place.shift = directoryEnd - place.size - place.offset;
  // Without entries only the end record tells an archive from other bytes: it must stand where
  // its directory offset says, with its comment ending the file.
  const std::uint64_t commentEnd =
      end.at + zip::EndOfCentralDirectory::kFixedSize + end.record.commentLength;
  if (place.count == 0 && (place.size != 0 || place.shift != 0 || commentEnd != source_->length)) {
    throw StowZipError::notAZip();
  }
  return place;
}

// The central directory of the first end record whose directory holds together. The nearest the
// end of the file wins, as it should; an earlier one is tried when it does not, as unzip does:
// the one nearest may be a copy in the comment.
void StowZipReader::readDirectory() {
  const std::vector<EndRecord> ends = findEndRecords();
  for (std::size_t tried = 1;; ++tried) {
    try {
      return readDirectory(ends[tried - 1]);
    } catch (const StowZipError&) {
      if (tried == ends.size()) throw;
      items_.clear();
      source_->starts.clear();
    }
  }
}

// The central directory that `end` places, walked record by record.
void StowZipReader::readDirectory(const EndRecord& end) {
  const DirectoryPlace place = locateDirectory(end);
  if (place.count == 0) return;
  items_.reserve(static_cast<std::size_t>(
      std::min<std::uint64_t>(place.count, place.size / zip::CentralDirectoryHeader::kFixedSize)));
  std::string window;
  std::size_t used = 0;    // of the window
  std::uint64_t read = 0;  // of the directory
  while (items_.size() < place.count) {
    if (window.size() - used < kLargestDirectoryRecord && read < place.size) {
      window.erase(0, used);
      used = 0;
      const auto more =
          static_cast<std::size_t>(std::min<std::uint64_t>(kDirectoryWindow, place.size - read));
      const std::size_t kept = window.size();
      window.resize(kept + more);
      if (source_->readAt(place.start() + read, window.data() + kept, more) != more) {
        throw StowZipError::notAZip();
      }
      read += more;
    }
    // A record that is short, lacks its signature or runs past the directory: not an archive.
    zip::ByteCursor cursor(window, used);
    auto header = zip::readCentralDirectoryHeader(cursor);
    if (!header) throw StowZipError::notAZip();
    used = cursor.position();
    zip::EntryExtent extent = zip::entryExtent(*header);
    // Every local header lies before the directory.
    if (extent.localHeaderOffset >= place.offset) throw StowZipError::notAZip();
    StowZipItem item;
    item.versionMadeBy = header->versionMadeBy;
    nameItem(item, *header);
    if (item.path != header->name) item.otherStoredName = std::make_shared<const std::string>(header->name);
    item.flags = header->flags;
    item.method = header->method;
    item.crc = header->crc;
    item.compressedSize = extent.compressedSize;
    item.size = extent.size;
    item.headerOffset = extent.localHeaderOffset + place.shift;
    if (zip::madeOnUnix(header->versionMadeBy)) item.mode = header->externalAttributes >> 16;
    items_.push_back(std::move(item));
  }
  // The records fill the directory: as many as the end record counts, and nothing after them.
  if (read != place.size || used != window.size()) throw StowZipError::notAZip();
  refuseOverlaps(place.start());
}

// Each entry's local header and data end before the next entry begins, the last one before the
// directory. Entries that share bytes are how a small archive unpacks to an enormous one.
void StowZipReader::refuseOverlaps(std::uint64_t directoryStart) {
  std::vector<std::pair<std::uint64_t, std::uint64_t>> extents;  // local header, compressed size
  extents.reserve(items_.size());
  for (const StowZipItem& item : items_) {
    // A folder's data is never read, whatever it declares.
    extents.emplace_back(item.headerOffset, item.isFolder() ? 0 : item.compressedSize);
  }
  std::sort(extents.begin(), extents.end());
  std::vector<std::uint64_t>& starts = source_->starts;
  starts.reserve(extents.size() + 1);
  for (std::size_t i = 0; i < extents.size(); ++i) {
    const auto [start, compressed] = extents[i];
    const std::uint64_t next = i + 1 < extents.size() ? extents[i + 1].first : directoryStart;
    // The name and extra field come on top; they are checked when the entry is unpacked.
    if (next - start < zip::LocalFileHeader::kFixedSize ||
        compressed > next - start - zip::LocalFileHeader::kFixedSize) {
      throw StowZipError::notAZip();
    }
    starts.push_back(start);
  }
  starts.push_back(directoryStart);
}

// Reads until `count` bytes or the end of the file; fewer bytes only at the end.
std::size_t StowZipReader::Source::readAt(std::uint64_t offset, char* buffer,
                                          std::size_t count) const {
  constexpr auto kLastOffset = static_cast<std::uint64_t>(std::numeric_limits<off_t>::max());
  if (offset >= kLastOffset) return 0;  // past any file, and no wrap-around in the sums below
  count = static_cast<std::size_t>(std::min<std::uint64_t>(count, kLastOffset - offset));
  std::size_t done = 0;
  while (done < count) {
    ssize_t got = ::pread(fd.get(), buffer + done, count - done, static_cast<off_t>(offset + done));
    if (got < 0 && errno == EINTR) continue;
    if (got < 0) throwFileError("read", location);
    if (got == 0) break;
    done += static_cast<std::size_t>(got);
  }
  return done;
}

// Where the entry's data begins: after its local header, name and extra field, as the local
// header gives their lengths (they may differ from the central record's).
std::uint64_t StowZipReader::Source::dataStart(const StowZipItem& item) const {
  char bytes[zip::LocalFileHeader::kFixedSize];
  std::size_t got = readAt(item.headerOffset, bytes, sizeof bytes);
  zip::ByteCursor cursor(std::string_view(bytes, got));
  auto header = zip::readLocalFileHeader(cursor);
  if (!header) throw StowZipError::notAZip();
  return item.headerOffset + zip::LocalFileHeader::kFixedSize + header->nameLength +
         header->extraLength;
}

// Where the entry after the one whose local header is at `headerOffset` begins, or the
// directory: the end of the room its data has.
std::uint64_t StowZipReader::Source::nextStart(std::uint64_t headerOffset) const {
  auto next = std::upper_bound(starts.begin(), starts.end(), headerOffset);
  return next == starts.end() ? headerOffset : *next;
}

// Stored: the bytes as they are, exactly as many as declared. A sink that throws stops the
// unpacking at once.
void StowZipReader::Unpacker::unpackStored(const StowZipItem& item, std::uint64_t start,
                                           const ByteSink& sink) {
  std::uint64_t remaining = item.compressedSize;
  std::uint64_t position = start;
  while (remaining > 0) {
    std::size_t want =
        static_cast<std::size_t>(std::min<std::uint64_t>(remaining, source_->pieceSize));
    std::size_t got = source_->readAt(position, buffer(), want);
    if (got == 0) throw StowZipError::wrongSize(item.path);  // the archive ends inside the entry
    position += got;
    remaining -= got;
    sink({buffer(), got});
  }
}

// Deflated: the compressed bytes through the decompressor. The stream must end within the
// declared compressed bytes and give exactly the declared size; output past that size stops it
// at once, since a few kilobytes of DEFLATE can stand for gigabytes. A sink that throws stops the
// unpacking and its exception is passed on.
void StowZipReader::Unpacker::unpackDeflated(const StowZipItem& item, std::uint64_t start,
                                             const ByteSink& sink) {
  if (inflate_) {
    inflate_->reset();
  } else {
    inflate_ = std::make_unique<InflateStream>();
  }
  std::uint64_t produced = 0;
  const ByteSink deliver = [&](std::string_view piece) {
    if (piece.size() > item.size - produced) throw StowZipError::wrongSize(item.path);
    produced += piece.size();
    sink(piece);
  };
  InflateStream::Status status = InflateStream::Status::needsInput;
  std::uint64_t remaining = item.compressedSize;
  std::uint64_t position = start;
  while (remaining > 0 && status == InflateStream::Status::needsInput) {
    std::size_t want =
        static_cast<std::size_t>(std::min<std::uint64_t>(remaining, source_->pieceSize));
    std::size_t got = source_->readAt(position, buffer(), want);
    if (got == 0) break;
    position += got;
    remaining -= got;
    status = inflate_->write({buffer(), got}, deliver);
  }
  if (status == InflateStream::Status::corrupt) throw StowZipError::damaged(item.path);
  if (status != InflateStream::Status::ended || produced != item.size) {
    throw StowZipError::wrongSize(item.path);
  }
}

char* StowZipReader::Unpacker::buffer() {
  if (!buffer_) buffer_.reset(new char[source_->pieceSize]);
  return buffer_.get();
}

}  // namespace corvelstow
