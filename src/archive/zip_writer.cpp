#include "archive/zip_writer.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <exception>
#include <future>
#include <stdexcept>
#include <utility>

#include "archive/crc32.h"
#include "archive/deflate_stream.h"
#include "archive/zip_error.h"
#include "archive/zip_format.h"
#include "base/file_error.h"
#include "base/worker_pool.h"

namespace corvelstow {
namespace {

namespace fs = std::filesystem;

constexpr std::uint64_t kLastOffset = 0xFFFFFFFE;  // 0xFFFFFFFF would mean "see Zip64"
constexpr std::size_t kMaxEntries = 65534;         // 0xFFFF would mean "see Zip64"
constexpr std::size_t kMaxNameLength = 0xFFFF;
constexpr std::size_t kWindowSize = 32 << 10;  // the farthest back a DEFLATE match reaches
// Blocks read and not yet written, per thread: enough that no thread waits for the next while
// the oldest is written, few enough that memory stays small whatever the files.
constexpr std::size_t kBlocksPerThread = 2;

// What one thread compresses with, made on its first block and reused for the next ones.
struct Compressor {
  DeflateStream stream;
  CompressionProbe probe;
};

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

// A piece of a file, compressed on its own by one of the threads.
struct StowZipWriter::Block {
  std::string input;          // the bytes that come before the data, to prime the stream; the data
  std::size_t preceding = 0;  // how many bytes of `input` come before the data
  std::size_t size = 0;       // of the data
  bool last = false;          // the file's last block, which ends the stream
  std::string output;         // the compressed data, once `compressed` is ready
  std::uint32_t crc = 0;      // of the data, once `compressed` is ready
  std::future<void> compressed;

  std::string_view data() const { return std::string_view(input).substr(preceding); }
  void compress(Compressor& compressor);
};

// A file added and not yet written whole, with its blocks still to be written.
struct StowZipWriter::Pending {
  Written entry;
  std::deque<std::unique_ptr<Block>> blocks;  // in order; those before were written
  bool complete = false;                      // every block is read
  bool started = false;                       // the local header is written
  StowCRC32 crc;
  std::uint64_t compressed = 0, uncompressed = 0;
};

// The threads and what each of them compresses with.
struct StowZipWriter::Compression {
  explicit Compression(unsigned threads) : compressors(threads), pool(threads > 1 ? threads : 0) {}

  std::vector<std::unique_ptr<Compressor>> compressors;  // by thread index
  WorkerPool pool;  // declared after the compressors, so that its threads stop before they go
};

// Each block's output depends on its own bytes and those before it alone, never on the thread
// or on what that thread compressed before: the archive is the same whatever the threads.
void StowZipWriter::Block::compress(Compressor& compressor) {
  const std::string_view bytes = data();
  StowCRC32 checksum;
  checksum.update(bytes);
  crc = checksum.checksum();
  // DEFLATE spends most of its time failing to shrink data that is already dense; such blocks
  // are stored, some fifty times faster.
  const bool dense = !compressor.probe.worthCompressing(bytes);
  compressor.stream.reset(dense ? DeflateStream::kStoredLevel : DeflateStream::kDefaultLevel);
  if (!dense && preceding > 0) {
    compressor.stream.setDictionary(std::string_view(input).substr(0, preceding));
  }
  const ByteSink append = [this](std::string_view piece) { output += piece; };
  compressor.stream.write(bytes, append);
  if (last) {
    compressor.stream.finish(append);
  } else {
    compressor.stream.flush(append);  // to a byte boundary, where the next block's output joins
  }
  std::string().swap(input);  // given back now rather than once written
}

StowZipWriter::StowZipWriter(const fs::path& location, unsigned threads)
    : location_(location), threads_(std::clamp(threads, 1u, kMaxThreads)) {
  fd_.reset(::open(location.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0644));
  if (!fd_) throw StowZipError::cannotCreate(lastComponent(location));
}

StowZipWriter::~StowZipWriter() = default;
StowZipWriter::StowZipWriter(StowZipWriter&&) noexcept = default;

StowZipWriter& StowZipWriter::operator=(StowZipWriter&& other) noexcept {
  if (this != &other) {
    compression_.reset();  // its threads stop before the blocks they work on go
    location_ = std::move(other.location_);
    fd_ = std::move(other.fd_);
    written_ = std::move(other.written_);
    offset_ = other.offset_;
    threads_ = other.threads_;
    fileWritten_ = std::move(other.fileWritten_);
    pending_ = std::move(other.pending_);
    blocksPending_ = other.blocksPending_;
    failure_ = std::move(other.failure_);
    readBuffer_ = std::move(other.readBuffer_);
    compression_ = std::move(other.compression_);
  }
  return *this;
}

void StowZipWriter::add(std::string_view data, std::string_view name, StowDate date) {
  if (data.size() > 0xFFFFFFFF) {
    throw std::length_error("An in-memory archive entry is limited to 4 GiB.");
  }
  StowCRC32 crc;
  crc.update(data);
  Written entry = newEntry(name, date);
  writePending();
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
  writePending();
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
  if (!source) {
    const int code = errno;
    writePending();
    errno = code;
    throwFileError("open", file);
  }
  addFile(source.get(), file, name, permissions);
}

void StowZipWriter::addFile(int source, const fs::path& file, std::string_view name,
                            std::uint16_t permissions) {
  try {
    queueFile(source, file, name, permissions);
    writeReady();
  } catch (...) {
    // The files before this one are written first: a failure of theirs came first.
    dropUnfinished();
    writePending();
    throw;
  }
}

// Queues the file's entry and reads the file to its end, block by block, handing each block to
// the threads. Only the block after a full one tells whether it was the last: reading stays one
// block ahead.
void StowZipWriter::queueFile(int source, const fs::path& file, std::string_view name,
                              std::uint16_t permissions) {
  struct stat info {};
  if (::fstat(source, &info) != 0) throwFileError("read the attributes of", file);
  const auto size = static_cast<std::uint64_t>(info.st_size);
  if (size > kLastOffset) throw StowZipError::tooLarge(std::string(name));
  auto pending = std::make_unique<Pending>();
  pending->entry = newEntry(name, StowDate{std::chrono::seconds(info.st_mtime)});
  pending->entry.permissions = permissions;
  Pending& entry = *pending;
  if (size == 0) {  // stored, as an in-memory entry without data
    entry.entry.method = zip::kMethodStored;
    entry.complete = true;
    pending_.push_back(std::move(pending));
    return;
  }
  entry.entry.method = zip::kMethodDeflated;
  entry.entry.flags |= zip::kFlagDataDescriptor;
  pending_.push_back(std::move(pending));

  std::uint64_t read = 0;
  std::unique_ptr<Block> block = readBlock(source, file, {});
  for (;;) {
    // The file may have grown since its size was checked.
    read += block->size;
    if (read > kLastOffset) throw StowZipError::tooLarge(std::string(name));
    std::unique_ptr<Block> next;
    if (block->size == kBlockSize) {
      next = readBlock(source, file, block->data().substr(kBlockSize - kWindowSize));
      if (next->size == 0) next.reset();
    }
    block->last = !next;
    submit(entry, std::move(block));
    if (!next) break;
    block = std::move(next);
  }
  entry.complete = true;
}

// The next kBlockSize bytes of the file (fewer at its end), after `preceding`.
std::unique_ptr<StowZipWriter::Block> StowZipWriter::readBlock(int source, const fs::path& file,
                                                               std::string_view preceding) {
  if (!readBuffer_) readBuffer_.reset(new char[kBlockSize]);
  std::size_t filled = 0;
  while (filled < kBlockSize) {
    ssize_t count = ::read(source, readBuffer_.get() + filled, kBlockSize - filled);
    if (count < 0 && errno == EINTR) continue;
    if (count < 0) throwFileError("read", file);
    if (count == 0) break;
    filled += static_cast<std::size_t>(count);
  }
  auto block = std::make_unique<Block>();
  block->input.reserve(preceding.size() + filled);
  block->input.append(preceding).append(readBuffer_.get(), filled);
  block->preceding = preceding.size();
  block->size = filled;
  return block;
}

// Hands the block to the threads, then writes what is ready; while too many blocks wait in
// memory, waits for the oldest.
void StowZipWriter::submit(Pending& entry, std::unique_ptr<Block> block) {
  if (!compression_) compression_ = std::make_unique<Compression>(threads_);
  Block& queued = *entry.blocks.emplace_back(std::move(block));
  ++blocksPending_;
  queued.compressed =
      compression_->pool.submit([&queued, compression = compression_.get()](std::size_t thread) {
        std::unique_ptr<Compressor>& compressor = compression->compressors[thread];
        if (!compressor) compressor = std::make_unique<Compressor>();
        queued.compress(*compressor);
      });
  while (blocksPending_ > kBlocksPerThread * threads_ && !failure_) writeFront(true);
  writeReady();
}

void StowZipWriter::writePending() {
  while (!pending_.empty() && !failure_) writeFront(true);
  throwIfFailed();
}

void StowZipWriter::writeReady() {
  while (!pending_.empty() && !failure_ && writeFront(false)) {
  }
  throwIfFailed();
}

// Writes the first file of the queue as far as its blocks are compressed; with `wait`, waits for
// the first of them. True when the file is written whole and left the queue. A failure is kept
// in failure_, for throwIfFailed.
bool StowZipWriter::writeFront(bool wait) {
  Pending& front = *pending_.front();
  try {
    if (!front.started) {
      checkStart(front.entry.name);
      front.entry.offset = static_cast<std::uint32_t>(offset_);
      writeLocalHeader(front.entry);
      front.started = true;
    }
    while (!front.blocks.empty()) {
      if (!wait && front.blocks.front()->compressed.wait_for(std::chrono::seconds(0)) !=
                       std::future_status::ready) {
        return false;
      }
      wait = false;
      const std::unique_ptr<Block> block = std::move(front.blocks.front());
      front.blocks.pop_front();
      --blocksPending_;
      block->compressed.get();  // raises what its compression threw
      writeBytes(block->output);
      front.compressed += block->output.size();
      front.uncompressed += block->size;
      front.crc.append(block->crc, block->size);
    }
    if (!front.complete) return false;
    completeEntry(front);
  } catch (...) {
    failure_ = std::current_exception();
    return false;
  }
  pending_.pop_front();
  return true;
}

// Data descriptor, after all of a deflated file's blocks.
void StowZipWriter::completeEntry(Pending& file) {
  Written& entry = file.entry;
  if (entry.method == zip::kMethodDeflated) {
    if (file.compressed > kLastOffset || file.uncompressed > kLastOffset) {
      throw StowZipError::tooLarge(entry.name);
    }
    entry.crc = file.crc.checksum();
    entry.compressed = static_cast<std::uint32_t>(file.compressed);
    entry.size = static_cast<std::uint32_t>(file.uncompressed);
    std::string descriptor;
    zip::write(descriptor, zip::DataDescriptor{entry.crc, entry.compressed, entry.size});
    writeBytes(descriptor);
  }
  written_.push_back(std::move(entry));
  if (fileWritten_) fileWritten_(written_.back());
}

void StowZipWriter::throwIfFailed() {
  if (!failure_) return;
  abandon();
  std::rethrow_exception(std::exchange(failure_, nullptr));
}

// Drops the file being read when it failed, once the threads are done with its blocks.
void StowZipWriter::dropUnfinished() {
  if (pending_.empty() || pending_.back()->complete) return;
  for (const auto& block : pending_.back()->blocks) {
    if (block->compressed.valid()) block->compressed.wait();
  }
  blocksPending_ -= pending_.back()->blocks.size();
  pending_.pop_back();
}

// Drops every file still queued, once the threads are done with its blocks.
void StowZipWriter::abandon() noexcept {
  for (const auto& file : pending_) {
    for (const auto& block : file->blocks) {
      if (block->compressed.valid()) block->compressed.wait();
    }
  }
  pending_.clear();
  blocksPending_ = 0;
}

void StowZipWriter::finish() {
  writePending();
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
  writePending();
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
