#include "archive/zip_writer.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <exception>
#include <future>
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

constexpr std::size_t kWindowSize = 32 << 10;  // the farthest back a DEFLATE match reaches
// Blocks or batches read and not yet written, per thread: enough that no thread waits for the
// next while the oldest is written, few enough that memory stays small whatever the files.
constexpr std::size_t kTasksPerThread = 2;
// Small files go to the threads in batches of at most this many files, or about this many bytes:
// enough that a task is worth handing over, and that the calling thread writes each in one go.
constexpr std::size_t kBatchFiles = 64;
constexpr std::size_t kBatchBytes = 512 << 10;
constexpr std::size_t kDirectoryPiece =
    1 << 20;  // the central directory is written this much at a time

std::string lastComponent(const fs::path& location) {
  fs::path name = location.filename();
  if (name.empty()) name = location.parent_path().filename();
  return name.string();
}

// An entry with its name and DOS time set and everything else still zero.
StowZipWriter::Written newEntry(std::string name, StowDate date) {
  if (name.size() > StowZipWriter::kMaxNameLength) throw StowZipError::nameTooLong(name);
  StowZipWriter::Written entry;
  entry.name = std::move(name);
  // A name that is not UTF-8 (a Linux file name in another encoding) keeps its bytes, unflagged.
  entry.flags = zip::isUtf8(entry.name) ? zip::kFlagUtf8 : 0;
  zip::DosDateTime dos = zip::dosDateTime(date);
  entry.time = dos.time;
  entry.date = dos.date;
  return entry;
}

// A file's entry as its status gives it: deflated with a data descriptor, or stored when empty.
StowZipWriter::Written fileEntry(std::string name, const struct stat& info) {
  StowZipWriter::Written entry =
      newEntry(std::move(name), StowDate{std::chrono::seconds(info.st_mtime)});
  if (info.st_size > 0) {
    entry.method = zip::kMethodDeflated;
    entry.flags |= zip::kFlagDataDescriptor;
    entry.zip64Sizes = static_cast<std::uint64_t>(info.st_size) >= StowZipWriter::kZip64FileSize;
  }
  return entry;
}

struct stat statusOf(int source, const fs::path& file) {
  struct stat info {};
  if (::fstat(source, &info) != 0) throwFileError("read the attributes of", file);
  return info;
}

// The local header, the name and the extra field. An entry whose sizes follow in a data
// descriptor has zeros in their place; one with Zip64 sizes has them in its Zip64 field.
void appendLocalHeader(std::string& out, const StowZipWriter::Written& entry) {
  const bool sizesFollow = (entry.flags & zip::kFlagDataDescriptor) != 0;
  zip::LocalFileHeader header;
  header.versionNeeded = entry.zip64Sizes ? zip::kVersionNeededZip64 : zip::kVersionNeeded;
  header.flags = entry.flags;
  header.method = entry.method;
  header.time = entry.time;
  header.date = entry.date;
  header.crc = sizesFollow ? 0 : entry.crc;
  std::string extra;
  if (entry.zip64Sizes) {
    header.compressedSize = header.size = zip::kZip64Marker32;
    extra = zip::zip64Extra({sizesFollow ? 0 : entry.size, sizesFollow ? 0 : entry.compressed});
  } else if (!sizesFollow) {
    header.compressedSize = static_cast<std::uint32_t>(entry.compressed);
    header.size = static_cast<std::uint32_t>(entry.size);
  }
  header.nameLength = static_cast<std::uint16_t>(entry.name.size());
  header.extraLength = static_cast<std::uint16_t>(extra.size());
  zip::write(out, header);
  out += entry.name;
  out += extra;
}

// The data descriptor after a deflated entry's data, its sizes 8 bytes each with Zip64 sizes.
void appendDataDescriptor(std::string& out, const StowZipWriter::Written& entry) {
  if (entry.zip64Sizes) {
    zip::write(out, zip::Zip64DataDescriptor{entry.crc, entry.compressed, entry.size});
  } else {
    zip::write(out, zip::DataDescriptor{entry.crc, static_cast<std::uint32_t>(entry.compressed),
                                        static_cast<std::uint32_t>(entry.size)});
  }
}

// The entry's central record. A size or offset that does not fit (or, for sizes, that the local
// header gave in its Zip64 field) is marked, its value in the record's Zip64 field.
void appendCentralRecord(std::string& out, const StowZipWriter::Written& entry) {
  const bool farOffset = entry.offset >= zip::kZip64Marker32;
  std::vector<std::uint64_t> zip64;
  if (entry.zip64Sizes) zip64 = {entry.size, entry.compressed};
  if (farOffset) zip64.push_back(entry.offset);
  const std::string extra = zip64.empty() ? std::string() : zip::zip64Extra(zip64);
  zip::CentralDirectoryHeader header;
  header.versionNeeded = zip64.empty() ? zip::kVersionNeeded : zip::kVersionNeededZip64;
  header.flags = entry.flags;
  header.method = entry.method;
  header.time = entry.time;
  header.date = entry.date;
  header.crc = entry.crc;
  header.compressedSize =
      entry.zip64Sizes ? zip::kZip64Marker32 : static_cast<std::uint32_t>(entry.compressed);
  header.size = entry.zip64Sizes ? zip::kZip64Marker32 : static_cast<std::uint32_t>(entry.size);
  header.externalAttributes =
      entry.isDirectory ? zip::kAttributesFolder : zip::fileAttributes(entry.permissions);
  header.localHeaderOffset =
      farOffset ? zip::kZip64Marker32 : static_cast<std::uint32_t>(entry.offset);
  header.name = entry.name;
  header.extra = extra;
  zip::write(out, header);
}

// Reads up to `count` bytes, fewer only at the end of the file.
std::size_t readUpTo(int source, char* buffer, std::size_t count, const fs::path& file) {
  std::size_t filled = 0;
  while (filled < count) {
    ssize_t got = ::read(source, buffer + filled, count - filled);
    if (got < 0 && errno == EINTR) continue;
    if (got < 0) throwFileError("read", file);
    if (got == 0) break;
    filled += static_cast<std::size_t>(got);
  }
  return filled;
}

}  // namespace

// What one thread compresses with, made on its first task and reused for the next ones.
struct StowZipWriter::Compressor {
  DeflateStream stream;
  CompressionProbe probe;
};

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

// Small files opened, read and compressed whole by one task, and then written in one go.
struct StowZipWriter::Batch {
  enum class Outcome {
    unread,    // not reached: a file before it failed
    written,   // its local entry is in `bytes`
    leftOut,   // its opener gave no file
    tooLarge,  // it has grown: the calling thread opens it again and writes it block by block
    failed,
  };
  struct Item {
    DeferredFile file;
    Written entry;  // once written: all but its offset
    Outcome outcome = Outcome::unread;
    std::size_t length = 0;  // of its local entry in `bytes`
    std::exception_ptr failure;
  };

  std::vector<Item> items;
  std::string bytes;  // the local entries of the items written, one after another
  std::future<void> done;

  void run(Compressor& compressor);
  void read(Item& item, Compressor& compressor, std::size_t& total);
};

// A file added and not yet written whole: one read on the calling thread, with its blocks still
// to be written; a batch of small files; or a file left out, to be told of in its turn.
struct StowZipWriter::Pending {
  Written entry;
  std::deque<std::unique_ptr<Block>> blocks;  // in order; those before were written
  bool complete = false;                      // every block is read
  bool started = false;                       // the local header is written
  StowCRC32 crc;
  std::uint64_t compressed = 0, uncompressed = 0;
  std::unique_ptr<Batch> batch;
  bool leftOut = false;
};

// The threads and what each of them compresses with.
struct StowZipWriter::Compression {
  explicit Compression(unsigned threads) : compressors(threads), pool(threads > 1 ? threads : 0) {}

  std::vector<std::unique_ptr<Compressor>> compressors;  // by thread index
  std::unique_ptr<Compressor> caller;  // for a file compressed on the calling thread
  WorkerPool pool;  // declared after the compressors, so that its threads stop before they go

  std::future<void> run(std::function<void(Compressor&)> work) {
    return pool.submit([this, work = std::move(work)](std::size_t thread) {
      std::unique_ptr<Compressor>& compressor = compressors[thread];
      if (!compressor) compressor = std::make_unique<Compressor>();
      work(*compressor);
    });
  }
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

// On one of the threads. After a failure the rest is not needed: the failure ends the archive.
void StowZipWriter::Batch::run(Compressor& compressor) {
  std::size_t total = 0;
  for (Item& item : items) {
    try {
      read(item, compressor, total);
    } catch (...) {
      item.failure = std::current_exception();
      item.outcome = Outcome::failed;
      return;
    }
    if (item.outcome != Outcome::tooLarge) item.file.open = nullptr;  // its folder may go
  }
}

// A small file is one block, compressed as the only block of a file read on the calling thread
// is: its entry is the same either way.
void StowZipWriter::Batch::read(Item& item, Compressor& compressor, std::size_t& total) {
  const UniqueFd source = item.file.open();
  if (!source) {
    item.outcome = Outcome::leftOut;
    return;
  }
  const fs::path file(item.file.name);
  const struct stat info = statusOf(source.get(), file);
  const auto size = static_cast<std::size_t>(info.st_size);
  // Grown since it was seen: too large for the memory a batch may take.
  if (size > kBlockSize || total + size > 2 * kBatchBytes) {
    item.outcome = Outcome::tooLarge;
    return;
  }
  // The name moves on with the entry: made by the calling thread, its memory goes back there.
  item.entry = fileEntry(std::move(item.file.name), info);
  const std::size_t start = bytes.size();
  if (item.entry.method == zip::kMethodStored) {  // empty, as an in-memory entry without data
    appendLocalHeader(bytes, item.entry);
  } else {
    Block block;
    block.input.resize(size);
    block.size = readUpTo(source.get(), block.input.data(), size, file);
    block.input.resize(block.size);
    block.last = true;
    total += block.size;
    block.compress(compressor);
    item.entry.crc = block.crc;
    item.entry.compressed = block.output.size();
    item.entry.size = block.size;
    appendLocalHeader(bytes, item.entry);
    bytes += block.output;
    appendDataDescriptor(bytes, item.entry);
  }
  item.length = bytes.size() - start;
  item.outcome = Outcome::written;
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
    fileLeftOut_ = std::move(other.fileLeftOut_);
    pending_ = std::move(other.pending_);
    tasksPending_ = other.tasksPending_;
    failure_ = std::move(other.failure_);
    readBuffer_ = std::move(other.readBuffer_);
    compression_ = std::move(other.compression_);
  }
  return *this;
}

void StowZipWriter::add(std::string_view data, std::string_view name, StowDate date) {
  StowCRC32 crc;
  crc.update(data);
  Written entry = newEntry(std::string(name), date);
  writePending();
  entry.method = zip::kMethodStored;
  entry.crc = crc.checksum();
  entry.compressed = entry.size = data.size();
  entry.zip64Sizes = data.size() >= zip::kZip64Marker32;
  entry.offset = offset_;
  writeLocalHeader(entry);
  writeBytes(data);
  written_.push_back(std::move(entry));
}

void StowZipWriter::addListedFirst(std::string_view data, std::string_view name, StowDate date) {
  add(data, name, date);
  std::rotate(written_.begin(), written_.end() - 1, written_.end());
}

void StowZipWriter::addDirectory(std::string_view name, StowDate date) {
  std::string folder(name);
  if (folder.empty() || folder.back() != '/') folder += '/';
  Written entry = newEntry(std::move(folder), date);
  writePending();
  entry.method = zip::kMethodStored;
  entry.offset = offset_;
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

void StowZipWriter::addFiles(std::vector<DeferredFile> files) {
  for (std::size_t next = 0; next < files.size();) {
    if (files[next].expectedSize <= kBlockSize) {
      queueBatch(files, next);
    } else {
      queueOpened(files[next++]);
    }
  }
}

// Hands the small files from `next` on, as many as make a batch, to one task.
void StowZipWriter::queueBatch(std::vector<DeferredFile>& files, std::size_t& next) {
  auto batch = std::make_unique<Batch>();
  std::uint64_t bytes = 0;
  while (next < files.size() && files[next].expectedSize <= kBlockSize &&
         batch->items.size() < kBatchFiles && bytes < kBatchBytes) {
    bytes += files[next].expectedSize;
    batch->items.emplace_back().file = std::move(files[next++]);
  }
  Batch& queued = *batch;
  auto pending = std::make_unique<Pending>();
  pending->batch = std::move(batch);
  pending_.push_back(std::move(pending));
  queue([&queued](Compressor& compressor) { queued.run(compressor); }, queued.done);
  writeReady();
}

// A file expected to be large, opened here and read as addFile reads it.
void StowZipWriter::queueOpened(DeferredFile& file) {
  UniqueFd source;
  try {
    source = file.open();
  } catch (...) {
    writePending();  // a failure of the files before came first
    throw;
  }
  if (!source) {
    auto pending = std::make_unique<Pending>();
    pending->entry.name = std::move(file.name);
    pending->leftOut = true;
    pending_.push_back(std::move(pending));
    writeReady();
    return;
  }
  addFile(source.get(), fs::path(file.name), file.name);
}

// Queues the file's entry and reads the file, block by block, handing each block to the threads.
void StowZipWriter::queueFile(int source, const fs::path& file, std::string_view name,
                              std::uint16_t permissions) {
  const struct stat info = statusOf(source, file);
  auto pending = std::make_unique<Pending>();
  pending->entry = fileEntry(std::string(name), info);
  pending->entry.permissions = permissions;
  Pending& entry = *pending;
  pending_.push_back(std::move(pending));
  readBlocks(source, file, static_cast<std::uint64_t>(info.st_size),
             [&](std::unique_ptr<Block> block) {
               Block& queued = *entry.blocks.emplace_back(std::move(block));
               queue([&queued](Compressor& compressor) { queued.compress(compressor); },
                     queued.compressed);
             });
  entry.complete = true;
}

// Reads the first `size` bytes of the file (fewer when it ends before), in blocks handed to
// `take` in order. Only the block after a full one tells whether it was the last: reading stays
// one block ahead. Nothing is read from an empty file.
void StowZipWriter::readBlocks(int source, const fs::path& file, std::uint64_t size,
                               const std::function<void(std::unique_ptr<Block>)>& take) {
  if (size == 0) return;
  std::uint64_t remaining = size;
  std::unique_ptr<Block> block = readBlock(source, file, remaining, {});
  for (;;) {
    std::unique_ptr<Block> next;
    if (block->size == kBlockSize && remaining > 0) {
      next = readBlock(source, file, remaining, block->data().substr(kBlockSize - kWindowSize));
      if (next->size == 0) next.reset();
    }
    block->last = !next;
    take(std::move(block));
    if (!next) break;
    block = std::move(next);
  }
}

// The next kBlockSize bytes of the file (fewer at its end, or at `remaining`), after `preceding`.
std::unique_ptr<StowZipWriter::Block> StowZipWriter::readBlock(int source, const fs::path& file,
                                                               std::uint64_t& remaining,
                                                               std::string_view preceding) {
  if (!readBuffer_) readBuffer_.reset(new char[kBlockSize]);
  const std::size_t filled =
      readUpTo(source, readBuffer_.get(),
               static_cast<std::size_t>(std::min<std::uint64_t>(remaining, kBlockSize)), file);
  remaining -= filled;
  auto block = std::make_unique<Block>();
  block->input.reserve(preceding.size() + filled);
  block->input.append(preceding).append(readBuffer_.get(), filled);
  block->preceding = preceding.size();
  block->size = filled;
  return block;
}

// Hands `work` to the threads, then writes what is ready; while too many tasks wait in memory,
// waits for the oldest.
void StowZipWriter::queue(std::function<void(Compressor&)> work, std::future<void>& done) {
  if (!compression_) compression_ = std::make_unique<Compression>(threads_);
  ++tasksPending_;
  done = compression_->run(std::move(work));
  while (tasksPending_ > kTasksPerThread * threads_ && !failure_) writeFront(true);
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

// Writes the first file of the queue as far as it is compressed; with `wait`, waits for what
// comes first. True when it is written whole and left the queue. A failure is kept in failure_,
// for throwIfFailed.
bool StowZipWriter::writeFront(bool wait) {
  Pending& front = *pending_.front();
  try {
    if (front.batch) {
      if (!writeBatch(*front.batch, wait)) return false;
    } else if (front.leftOut) {
      if (fileLeftOut_) fileLeftOut_(front.entry.name);
    } else if (!writeStreamed(front, wait)) {
      return false;
    }
  } catch (...) {
    failure_ = std::current_exception();
    return false;
  }
  pending_.pop_front();
  return true;
}

// A file read on the calling thread: its local header, then its blocks as they are compressed.
bool StowZipWriter::writeStreamed(Pending& front, bool wait) {
  if (!front.started) {
    front.entry.offset = offset_;
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
    --tasksPending_;
    block->compressed.get();  // raises what its compression threw
    writeBytes(block->output);
    front.compressed += block->output.size();
    front.uncompressed += block->size;
    front.crc.append(block->crc, block->size);
  }
  if (!front.complete) return false;
  front.entry.crc = front.crc.checksum();
  completeEntry(std::move(front.entry), front.compressed, front.uncompressed);
  return true;
}

// A batch, once its task is done: the local entries of consecutive files in one write, and each
// other file in its turn.
bool StowZipWriter::writeBatch(Batch& batch, bool wait) {
  if (!wait && batch.done.wait_for(std::chrono::seconds(0)) != std::future_status::ready) {
    return false;
  }
  batch.done.get();
  --tasksPending_;
  std::vector<Batch::Item>& items = batch.items;
  std::size_t first = 0;  // the first item not yet written out
  std::size_t start = 0;  // where its local entry begins in batch.bytes
  // Writes the items from `first` up to `end`, all of them written by the task, in one go.
  const auto writeUpTo = [&](std::size_t end) {
    std::size_t length = 0;
    for (std::size_t i = first; i < end; ++i) length += items[i].length;
    std::uint64_t at = offset_;
    writeBytes(std::string_view(batch.bytes).substr(start, length));
    start += length;
    for (; first < end; ++first) {
      items[first].entry.offset = at;
      at += items[first].length;
      record(std::move(items[first].entry));
    }
  };
  for (std::size_t i = 0; i < items.size(); ++i) {
    if (items[i].outcome == Batch::Outcome::written) continue;
    writeUpTo(i);
    ++first;
    if (items[i].outcome == Batch::Outcome::leftOut) {
      if (fileLeftOut_) fileLeftOut_(items[i].file.name);
    } else if (items[i].outcome == Batch::Outcome::tooLarge) {
      writeNow(items[i].file);
    } else {  // failed: nothing after it was read
      std::rethrow_exception(items[i].failure);
    }
  }
  writeUpTo(items.size());
  return true;
}

// A file opened again and written whole by the calling thread, block by block, compressed as
// the threads would have.
void StowZipWriter::writeNow(DeferredFile& file) {
  const UniqueFd source = file.open();
  if (!source) {
    if (fileLeftOut_) fileLeftOut_(file.name);
    return;
  }
  const fs::path path(file.name);
  const struct stat info = statusOf(source.get(), path);
  Written entry = fileEntry(file.name, info);
  entry.offset = offset_;
  writeLocalHeader(entry);
  if (!compression_) compression_ = std::make_unique<Compression>(threads_);
  if (!compression_->caller) compression_->caller = std::make_unique<Compressor>();
  StowCRC32 crc;
  std::uint64_t compressed = 0, size = 0;
  readBlocks(source.get(), path, static_cast<std::uint64_t>(info.st_size),
             [&](std::unique_ptr<Block> block) {
               block->compress(*compression_->caller);
               writeBytes(block->output);
               compressed += block->output.size();
               size += block->size;
               crc.append(block->crc, block->size);
             });
  entry.crc = crc.checksum();
  completeEntry(std::move(entry), compressed, size);
}

// A file's entry once its data is written: the data descriptor after a deflated one. A file
// under kZip64FileSize bytes never compresses to 4 GiB, so its 32-bit descriptor holds its sizes.
void StowZipWriter::completeEntry(Written entry, std::uint64_t compressed, std::uint64_t size) {
  if (entry.method == zip::kMethodDeflated) {
    entry.compressed = compressed;
    entry.size = size;
    std::string descriptor;
    appendDataDescriptor(descriptor, entry);
    writeBytes(descriptor);
  }
  record(std::move(entry));
}

void StowZipWriter::record(Written entry) {
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
  if (pending_.empty() || pending_.back()->complete || pending_.back()->batch ||
      pending_.back()->leftOut) {
    return;
  }
  for (const auto& block : pending_.back()->blocks) {
    if (block->compressed.valid()) block->compressed.wait();
  }
  tasksPending_ -= pending_.back()->blocks.size();
  pending_.pop_back();
}

// Drops every file still queued, once the threads are done with its blocks and batches.
void StowZipWriter::abandon() noexcept {
  for (const auto& file : pending_) {
    for (const auto& block : file->blocks) {
      if (block->compressed.valid()) block->compressed.wait();
    }
    if (file->batch && file->batch->done.valid()) file->batch->done.wait();
  }
  pending_.clear();
  tasksPending_ = 0;
}

void StowZipWriter::finish() {
  writePending();
  const std::uint64_t directoryOffset = offset_;
  // Central directory, a piece at a time: a long one need not be held whole
  std::string directory;
  for (const Written& entry : written_) {
    appendCentralRecord(directory, entry);
    if (directory.size() >= kDirectoryPiece) {
      writeBytes(directory);
      directory.clear();
    }
  }
  writeBytes(directory);
  const std::uint64_t directorySize = offset_ - directoryOffset;
  const std::uint64_t entries = written_.size();

  // End records. Each field of the end record that cannot hold its value holds the mark that
  // sends readers to the Zip64 end record instead, found through the locator.
  std::string records;
  if (entries >= zip::kZip64Marker16 || directoryOffset >= zip::kZip64Marker32 ||
      directorySize >= zip::kZip64Marker32) {
    zip::Zip64EndOfCentralDirectory zip64;
    zip64.recordSize = zip::Zip64EndOfCentralDirectory::kFixedSize - 12;  // after its size
    zip64.versionMadeBy = zip::kVersionMadeBy;
    zip64.versionNeeded = zip::kVersionNeededZip64;
    zip64.entriesOnDisk = zip64.totalEntries = entries;
    zip64.directorySize = directorySize;
    zip64.directoryOffset = directoryOffset;
    zip::write(records, zip64);
    zip::write(records, zip::Zip64EndLocator{0, offset_, 1});
  }
  zip::EndOfCentralDirectory end;
  end.entriesOnDisk = end.totalEntries =
      static_cast<std::uint16_t>(std::min<std::uint64_t>(entries, zip::kZip64Marker16));
  end.directorySize =
      static_cast<std::uint32_t>(std::min<std::uint64_t>(directorySize, zip::kZip64Marker32));
  end.directoryOffset =
      static_cast<std::uint32_t>(std::min<std::uint64_t>(directoryOffset, zip::kZip64Marker32));
  zip::write(records, end);
  writeBytes(records);

  if (::fsync(fd_.get()) != 0) throwFileError("flush", location_);
}

void StowZipWriter::skipForTesting(std::uint64_t bytes) {
  writePending();
  if (::lseek(fd_.get(), static_cast<off_t>(bytes), SEEK_CUR) < 0) {
    throwFileError("seek in", location_);
  }
  offset_ += bytes;
}

void StowZipWriter::writeLocalHeader(const Written& entry) {
  std::string bytes;
  bytes.reserve(zip::LocalFileHeader::kFixedSize + entry.name.size());
  appendLocalHeader(bytes, entry);
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
