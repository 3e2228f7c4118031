// corvelstow list, cat and verify: look inside an archive without a container.

#include <unistd.h>

#include <algorithm>
#include <cinttypes>
#include <cstdio>
#include <limits>
#include <ostream>

#include "archive/zip_reader.h"
#include "command_context.h"

namespace corvelstow::cli {
namespace {

std::string methodName(std::uint16_t method) {
  if (method == 0) return "stored";
  if (method == 8) return "deflated";
  return "method " + std::to_string(method);
}

// The length of the control character at `at`, or 0: C0 and DEL take a byte, C1 (U+0080 to
// U+009F, which a terminal may also act on) the two of its UTF-8.
std::size_t controlAt(std::string_view text, std::size_t at) {
  const auto byte = static_cast<unsigned char>(text[at]);
  if (byte < 0x20 || byte == 0x7F) return 1;
  const bool c1 = byte == 0xC2 && at + 1 < text.size() &&
                  static_cast<unsigned char>(text[at + 1]) < 0xA0 &&
                  static_cast<unsigned char>(text[at + 1]) >= 0x80;
  return c1 ? 2 : 0;
}

// A path on one line, as git shows one: as it is, unless it holds a control character or begins
// with a double quote; then in double quotes, with C escapes for the quote, the backslash and
// the control characters that have one, and the bytes of the others in octal.
std::string printable(std::string_view path) {
  bool plain = path.empty() || path.front() != '"';
  for (std::size_t at = 0; plain && at < path.size(); ++at) plain = controlAt(path, at) == 0;
  if (plain) return std::string(path);
  static constexpr std::string_view kEscapes = "abtnvfr";  // for the bytes 7 to 13
  std::string text = "\"";
  for (std::size_t at = 0, octalBytes = 0; at < path.size(); ++at) {
    const auto byte = static_cast<unsigned char>(path[at]);
    const bool escaped = byte == '"' || byte == '\\' || (byte >= 7 && byte <= 13);
    if (octalBytes == 0 && !escaped) octalBytes = controlAt(path, at);
    if (octalBytes > 0) {
      char octal[5];
      std::snprintf(octal, sizeof octal, "\\%03o", byte);
      text += octal;
      --octalBytes;
    } else if (escaped) {
      text += '\\';
      text += byte >= 7 && byte <= 13 ? kEscapes[byte - 7] : path[at];
    } else {
      text += path[at];
    }
  }
  return text + '"';
}

void printList(const CommandContext& context, const std::string& file) {
  StowZipReader reader(file);
  if (context.json) {
    nlohmann::json items = nlohmann::json::array();
    for (const StowZipItem& item : reader.items()) {
      items.push_back({{"path", item.path},
                       {"method", item.method},
                       {"crc", item.crc},
                       {"compressedSize", item.compressedSize},
                       {"size", item.size},
                       {"headerOffset", item.headerOffset}});
    }
    context.printJson(items);
    return;
  }
  std::ostream& out = context.out;
  char line[96];
  std::snprintf(line, sizeof line, "%12s %12s  %-9s %-8s  %s\n", "size", "compressed", "method",
                "crc", "path");
  out << line;
  for (const StowZipItem& item : reader.items()) {
    std::snprintf(line, sizeof line, "%12" PRIu64 " %12" PRIu64 "  %-9s %08" PRIx32 "  ", item.size,
                  item.compressedSize, methodName(item.method).c_str(), item.crc);
    out << line << printable(item.path) << '\n';
  }
}

// The `index`-th entry named `entry` (from 1), as an archive may hold several of one name.
void printEntry(const CommandContext& context, const std::string& file, const std::string& entry,
                unsigned index) {
  StowZipReader reader(file);
  unsigned found = 0;
  for (const StowZipItem& item : reader.items()) {
    if (item.path != entry || ++found < index) continue;
    context.out.flush();
    reader.extract(item, STDOUT_FILENO);
    return;
  }
  if (found == 0) throw std::runtime_error("The archive holds no entry named " + entry + ".");
  throw std::runtime_error("The archive holds only " + std::to_string(found) +
                           (found == 1 ? " entry" : " entries") + " named " + entry + ".");
}

void verifyArchive(const CommandContext& context, const std::string& file) {
  StowZipReader reader(file);
  std::uint64_t bytes = 0;
  for (const StowZipItem& item : reader.items()) {
    reader.extract(item, [&bytes](std::string_view piece) { bytes += piece.size(); });
  }
  const std::size_t entries = reader.items().size();
  if (context.json) {
    context.printJson({{"entries", entries}, {"bytes", bytes}});
    return;
  }
  context.out << "Checked " << entries << (entries == 1 ? " entry" : " entries") << " and " << bytes
              << (bytes == 1 ? " byte" : " bytes") << ": every checksum matches.\n";
}

}  // namespace

void addArchiveCommands(CLI::App& app, CommandList& commands) {
  auto file = std::make_shared<std::string>();
  auto entry = std::make_shared<std::string>();
  auto index = std::make_shared<unsigned>(1);

  auto* list = app.add_subcommand("list", "List the entries of an archive");
  list->add_option("FILE", *file, "The archive")->required();
  commands.push_back({list, [file](const CommandContext& context) { printList(context, *file); }});

  auto* cat = app.add_subcommand("cat", "Write one entry's bytes to standard output");
  cat->add_option("FILE", *file, "The archive")->required();
  cat->add_option("ENTRY", *entry, "The entry's path, as list --json gives it")->required();
  cat->add_option("--index", *index, "Which of several entries of that name, from 1 (default 1)")
      ->type_name("N")
      ->check(CLI::Range(1u, std::numeric_limits<unsigned>::max()));
  commands.push_back({cat, [file, entry, index](const CommandContext& context) {
                        printEntry(context, *file, *entry, *index);
                      }});

  auto* verify = app.add_subcommand("verify", "Unpack every entry and check its checksum");
  verify->add_option("FILE", *file, "The archive")->required();
  commands.push_back(
      {verify, [file](const CommandContext& context) { verifyArchive(context, *file); }});
}

}  // namespace corvelstow::cli
