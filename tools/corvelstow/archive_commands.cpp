// corvelstow list, cat and verify: look inside an archive without a container.

#include <unistd.h>

#include <cinttypes>
#include <cstdio>
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
    out << line << item.path << '\n';
  }
}

void printEntry(const CommandContext& context, const std::string& file, const std::string& entry) {
  StowZipReader reader(file);
  for (const StowZipItem& item : reader.items()) {
    if (item.path != entry) continue;
    context.out.flush();
    reader.extract(item, STDOUT_FILENO);
    return;
  }
  throw std::runtime_error("The archive holds no entry named " + entry + ".");
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

  auto* list = app.add_subcommand("list", "List the entries of an archive");
  list->add_option("FILE", *file, "The archive")->required();
  commands.push_back({list, [file](const CommandContext& context) { printList(context, *file); }});

  auto* cat = app.add_subcommand("cat", "Write one entry's bytes to standard output");
  cat->add_option("FILE", *file, "The archive")->required();
  cat->add_option("ENTRY", *entry, "The entry's path, as list shows it")->required();
  commands.push_back(
      {cat, [file, entry](const CommandContext& context) { printEntry(context, *file, *entry); }});

  auto* verify = app.add_subcommand("verify", "Unpack every entry and check its checksum");
  verify->add_option("FILE", *file, "The archive")->required();
  commands.push_back(
      {verify, [file](const CommandContext& context) { verifyArchive(context, *file); }});
}

}  // namespace corvelstow::cli
