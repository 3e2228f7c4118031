// corvelstow inject on executables built here with the iOS build's cross toolchain (clang-16 and
// ld64.lld against the iPhoneOS SDK): thin and fat, signed or not, in an .app folder or an .ipa;
// and the executables it must refuse. llvm-objdump and Python's zipfile check what it wrote.

#include <gtest/gtest.h>

#include <cstdint>
#include <cstdlib>
#include <optional>
#include <regex>
#include <sstream>

#include "archive/archive_test_support.h"
#include "base/files.h"
#include "platform/platform.h"
#include "support/process.h"
#include "support/temp_folder.h"

namespace corvelstow {
namespace {

namespace fs = std::filesystem;
using testing::le32;
using testing::readFile;
using testing::readTree;
using testing::runCommand;
using testing::runProcess;
using testing::writeFile;

constexpr char kRunPath[] = "@executable_path/Frameworks";
constexpr char kSignatureMagic[] = "\xFA\xDE\x0C\xC0";  // a code signature's blob begins so
constexpr std::uint32_t kSegment = 0x19, kCodeSignature = 0x1D, kEncryptionInfo = 0x2C;

// The SDK as the iOS build finds it: CORVELSTOW_IOS_SDK, else the one scripts/ios-sdk unpacked.
std::optional<std::string> iosSdk() {
  if (const char* named = std::getenv("CORVELSTOW_IOS_SDK"); named && *named) return named;
  auto found = runProcess({"sh", CORVELSTOW_SOURCE_DIR "/scripts/ios-sdk"});
  if (found.exitCode != 0 || found.out.empty()) return std::nullopt;
  return found.out.substr(0, found.out.find('\n'));
}

// The load commands as llvm-objdump prints them, one block per command without its "Load
// command N" line, the slices of a fat file one after another.
std::vector<std::string> loadCommands(const fs::path& file) {
  auto dump = runProcess(
      {"llvm-objdump-16", "--macho", "--private-headers", "--arch", "all", file.string()});
  EXPECT_EQ(dump.exitCode, 0) << dump.err;
  EXPECT_EQ(dump.err, "") << file;
  std::vector<std::string> blocks;
  bool inCommand = false;
  std::istringstream lines(dump.out);
  for (std::string line; std::getline(lines, line);) {
    if (line.starts_with("Load command ")) {
      blocks.emplace_back();
      inCommand = true;
    } else if (line.starts_with("Mach header") || line.find(" (architecture ") != line.npos) {
      inCommand = false;
    } else if (inCommand) {
      blocks.back() += line + "\n";
    }
  }
  return blocks;
}

std::uint64_t field(const std::string& block, const std::string& name) {
  std::smatch match;
  EXPECT_TRUE(std::regex_search(block, match, std::regex("\n *" + name + " (\\d+)\n")));
  return match.empty() ? 0 : std::stoull(match[1]);
}

// The binding information as llvm-objdump and llvm-nm resolve it: each import with the name of
// the library its ordinal names.
std::string bindings(const fs::path& file) {
  auto dump = runProcess({"llvm-objdump-16", "--macho", "--arch", "arm64", "--bind", "--lazy-bind",
                          "--weak-bind", "--dyld-info", file.string()});
  auto symbols = runProcess({"llvm-nm-16", "-m", "-u", "--arch", "arm64", file.string()});
  EXPECT_EQ(dump.exitCode + symbols.exitCode, 0) << dump.err << symbols.err;
  return dump.out.substr(dump.out.find('\n')) + symbols.out;
}

// What the load commands of an executable become, but for the two added: its signature's
// command is gone, and the __LINKEDIT before it ends where the signature began.
std::vector<std::string> withoutSignature(const std::vector<std::string>& before) {
  std::vector<std::string> after;
  std::size_t linkedit = 0;
  for (const std::string& block : before) {
    if (block.find("cmd LC_CODE_SIGNATURE\n") == block.npos) {
      if (block.find("segname __LINKEDIT\n") != block.npos) linkedit = after.size();
      after.push_back(block);
      continue;
    }
    const std::uint64_t filesize = field(after[linkedit], "filesize");
    const std::string old = " filesize " + std::to_string(filesize) + "\n";
    after[linkedit].replace(
        after[linkedit].find(old), old.size(),
        " filesize " + std::to_string(filesize - field(block, "datasize")) + "\n");
  }
  return after;
}

bool holds(const std::string& block, const std::string& text) {
  return block.find(text) != block.npos;
}

// The position of the first command that loads a library of the app's own (not the system's),
// else of the first that loads a library.
std::size_t firstAppLibrary(const std::vector<std::string>& commands) {
  std::optional<std::size_t> first;
  for (std::size_t i = 0; i < commands.size(); ++i) {
    if (!holds(commands[i], "cmd LC_LOAD_DYLIB\n")) continue;
    if (!holds(commands[i], "name /usr/lib/") && !holds(commands[i], "name /System/")) return i;
    if (!first) first = i;
  }
  return first.value_or(commands.size());
}

// Where the first load command of kind `cmd` (of a segment, the one named `segment`) starts in a
// thin executable.
std::size_t commandAt(const std::string& executable, std::uint32_t cmd,
                      std::string_view segment = {}) {
  std::size_t at = 32;
  for (std::uint32_t i = 0; i < le32(executable, 16); ++i, at += le32(executable, at + 4)) {
    if (le32(executable, at) == cmd && executable.compare(at + 8, segment.size(), segment) == 0) {
      return at;
    }
  }
  ADD_FAILURE() << "no load command " << cmd << " " << segment;
  return 0;
}

// `bytes` with little-endian 32-bit fields set, each an offset and its value.
std::string patched(std::string bytes,
                    std::initializer_list<std::pair<std::size_t, std::uint32_t>> fields) {
  for (const auto& [at, value] : fields) testing::setLe(bytes, at, value, 4);
  return bytes;
}

class InjectTest : public ::testing::Test {
 protected:
  void SetUp() override {
    sdk_ = iosSdk();
    if (!sdk_ || runProcess({"clang-16", "--version"}).exitCode != 0) {
      GTEST_SKIP() << "inject tests skipped: no iPhoneOS SDK and clang-16 to build iOS code with";
    }
    library_ = build("libcorvelstow.dylib", "void corvelstow_start(void) {}\n",
                     {"-dynamiclib", "-install_name", "@rpath/libcorvelstow.dylib"});
  }

  // Compiles and links `source` for iOS 15 against the SDK, as the iOS build does.
  fs::path build(const std::string& name, const std::string& source,
                 std::vector<std::string> flags = {},
                 const std::string& target = "arm64-apple-ios15.0") {
    const fs::path file = folder_ / "src" / (name + ".c");
    writeFile(file, source);
    std::vector<std::string> command = {"clang-16", "-target", target, "-isysroot", *sdk_};
    command.insert(command.end(), {"-fuse-ld=lld", "-o", (folder_ / name).string(), file.string()});
    command.insert(command.end(), flags.begin(), flags.end());
    auto built = runProcess(command);
    EXPECT_EQ(built.exitCode, 0) << built.err;
    return folder_ / name;
  }

  fs::path executable(const std::string& name, std::vector<std::string> flags = {}) {
    return build(name, "int main(void) { return 0; }\n", std::move(flags));
  }

  // {name}.app in `parent`, holding `executable` as its main executable, named by an XML or a
  // binary Info.plist.
  fs::path makeApp(const fs::path& parent, const std::string& name, const std::string& executable,
                   bool binaryPlist = false) {
    const fs::path app = parent / (name + ".app");
    writeFile(app / name, executable);
    fs::permissions(app / name, fs::perms(0755));
    writeFile(app / "Base.lproj/Main.strings", "\"title\" = \"Notes\";\n");
    PlistDictionary info{{"CFBundleExecutable", {name}}, {"CFBundleIdentifier", {"com.example"}}};
    writeFile(app / "Info.plist",
              binaryPlist ? *platform::encodeBinaryPropertyList({info})
                          : "<?xml version=\"1.0\" encoding=\"UTF-8\"?>\n<plist version=\"1.0\">"
                            "<dict><key>CFBundleExecutable</key><string>" +
                                name + "</string></dict></plist>\n");
    return app;
  }

  // An executable with `free` bytes (a multiple of 8) between its load commands and its first
  // section, the rest taken by a run path of padding.
  fs::path crowded(const std::string& name, std::size_t free) {
    const std::string plain = readFile(executable(name));
    const std::size_t room =
        le32(plain, commandAt(plain, kSegment, "__TEXT") + 72 + 48) - 32 - le32(plain, 20);
    return executable(name,
                      {"-Wl,-headerpad,0", "-Wl,-rpath,/" + std::string(room - free - 14, 'x')});
  }

  testing::ProcessResult inject(const fs::path& app, std::vector<std::string> options = {}) {
    std::vector<std::string> arguments = {"inject", app.string(), "--library", library_.string()};
    arguments.insert(arguments.end(), options.begin(), options.end());
    return runCommand(arguments);
  }

  testing::TempFolder folder_;
  std::optional<std::string> sdk_;
  fs::path library_;
};

// A thin executable that loads only libSystem, a signed one that loads libz and a framework of
// its own, one with the run path already, one with chained fixups that links libz weakly and
// has another run path, one whose new commands fill its room exactly, one with a command of
// nothing but its header, a signed one whose __LINKEDIT holds only the signature, a fat one
// (armv7 beside the signed arm64, binary Info.plist), the same followed by more bytes, and one
// whose framework is its fifteenth library: the library lands in Frameworks/, and the arm64
// code loads it through the run path before the app's own framework (or first of all when it
// has none), every import still bound to its library; but for the fifteenth, whose ordinal its
// lazy binding writes in four bits, where it goes last. Every other command is as it was but
// the signature's, whose bytes are gone, and a second run changes nothing.
TEST_F(InjectTest, AddsTheLibraryToThinAndFatExecutablesOnceBeforeTheAppsOwnFrameworks) {
  build("Helper", "int helper(void) { return 42; }\n",
        {"-dynamiclib", "-install_name", "@rpath/Helper.framework/Helper"});
  auto withHelper = [&](const std::string& name, std::vector<std::string> flags) {
    flags.push_back((folder_ / "Helper").string());
    return build(name, "int helper(void);\nint main(void) { return helper(); }\n", flags);
  };
  const fs::path thin = executable("thin");
  const fs::path signedThin = withHelper("signed", {"-lz", "-Wl,-adhoc_codesign"});
  const fs::path withRunPath = executable("rpath", {"-Wl,-rpath," + std::string(kRunPath) + "/"});
  const fs::path chained =
      withHelper("chained", {"-Wl,-weak-lz", "-Wl,-fixup_chains", "-Wl,-rpath,@loader_path/lib"});
  std::vector<std::string> fourteen = {"-lz",     "-lsqlite3", "-lxml2",       "-lbz2",
                                       "-liconv", "-lresolv",  "-lcompression"};
  for (const char* framework : {"Foundation", "CoreFoundation", "UIKit", "CoreGraphics",
                                "QuartzCore", "Security", "CoreText"}) {
    fourteen.insert(fourteen.end(), {"-framework", framework});
  }
  const fs::path fifteenth = withHelper("fifteenth", fourteen);
  const fs::path fits = crowded("fits", 96);
  const fs::path armv7 =
      build("armv7", "int main(void) { return 0; }\n", {}, "armv7-apple-ios10.0");
  const fs::path fat = folder_ / "fat", fatThenMore = folder_ / "fat-then-more";
  auto lipo = runProcess(
      {"llvm-lipo-16", "-create", armv7.string(), signedThin.string(), "-output", fat.string()});
  ASSERT_EQ(lipo.exitCode, 0) << lipo.err;
  writeFile(fatThenMore, readFile(fat) + "more bytes");
  // One more command, of nothing but its header; and a signature that is all of __LINKEDIT.
  const fs::path headerOnly = folder_ / "header-only", signatureOnly = folder_ / "signature-only";
  const std::string plain = readFile(thin), signedBytes = readFile(signedThin);
  const std::uint32_t end = 32 + le32(plain, 20);
  writeFile(
      headerOnly,
      patched(plain, {{16, le32(plain, 16) + 1}, {20, end - 32 + 8}, {end, 0x7F}, {end + 4, 8}}));
  const std::size_t signature = commandAt(signedBytes, kCodeSignature);
  const std::size_t linkedit = commandAt(signedBytes, kSegment, "__LINKEDIT");
  writeFile(signatureOnly,
            patched(signedBytes, {{linkedit + 40, le32(signedBytes, signature + 8)},
                                  {linkedit + 48, le32(signedBytes, signature + 12)}}));

  for (const fs::path& built : {thin, signedThin, withRunPath, chained, fits, headerOnly,
                                signatureOnly, fat, fatThenMore, fifteenth}) {
    SCOPED_TRACE(built.filename().string());
    const fs::path parent = folder_ / ("apps-" + built.filename().string());
    const fs::path app = makeApp(parent, "Notes", readFile(built), built == fat);
    const auto original = readTree(app);
    const bool isSigned = holds(readFile(built), kSignatureMagic);
    const bool first = built != fifteenth;

    auto result = inject(app);
    ASSERT_EQ(result.exitCode, 0) << result.err;
    const fs::path output = parent / "Notes-corvelstow.app";
    EXPECT_EQ(result.out,
              "Wrote " + output.string() + ": its executable Notes loads libcorvelstow.dylib " +
                  "from Frameworks.\n" +
                  (first ? ""
                         : "The app's own frameworks start before it: the executable's binding "
                           "information has no room to load it first.\n") +
                  "Sign the app with your certificate before installing it" +
                  (isSigned ? "; its old signature was removed.\n" : ".\n"));
    EXPECT_EQ(readTree(app), original);
    EXPECT_EQ(readFile(output / "Frameworks/libcorvelstow.dylib"), readFile(library_));
    EXPECT_EQ(fs::status(output / "Frameworks/libcorvelstow.dylib").permissions(), fs::perms(0755));
    EXPECT_EQ(fs::status(output / "Notes").permissions(), fs::perms(0755));
    EXPECT_EQ(readFile(output / "Base.lproj/Main.strings"), original.at("Base.lproj/Main.strings"));

    // The commands as they were, the library's where it goes and the run path's last.
    std::vector<std::string> expected = withoutSignature(loadCommands(app / "Notes"));
    std::vector<std::string> commands = loadCommands(output / "Notes");
    const std::size_t at = first ? firstAppLibrary(expected) : expected.size();
    ASSERT_LT(at, commands.size());
    const std::string load = commands[at];
    EXPECT_TRUE(holds(load, "cmd LC_LOAD_DYLIB\n") && holds(load, "cmdsize 56\n") &&
                holds(load, "name @rpath/libcorvelstow.dylib (offset 24)\n"))
        << load;
    expected.insert(expected.begin() + static_cast<std::ptrdiff_t>(at), load);
    if (built != withRunPath) {
      const std::string rpath = commands.back();
      EXPECT_TRUE(holds(rpath, "cmd LC_RPATH\n") && holds(rpath, std::string("path ") + kRunPath))
          << rpath;
      expected.push_back(rpath);
    }
    EXPECT_EQ(commands, expected);
    EXPECT_EQ(bindings(output / "Notes"), bindings(app / "Notes"));
    // Cut from the end of the file (the fat table shortened to match), or zeroed where more
    // follows.
    EXPECT_FALSE(holds(readFile(output / "Notes"), kSignatureMagic));

    const auto injected = readTree(output);
    auto again = inject(output);
    EXPECT_EQ(again.exitCode, 0) << again.err;
    EXPECT_EQ(again.out, "Notes already loads libcorvelstow.dylib; nothing was changed.\n");
    EXPECT_EQ(readTree(output), injected);
    EXPECT_EQ(files::listNames(parent).size(), 2u);  // nothing left beside the two
  }
}

// Executables it must refuse, each with its sentence, or that load a library of the same name
// already: the app is left as it was, with nothing written beside it.
TEST_F(InjectTest, RefusesWhatItCannotChangeAndLeavesTheAppAlone) {
  const std::string thin = readFile(executable("thin"));
  const std::string signedThin = readFile(executable("signed", {"-Wl,-adhoc_codesign"}));
  build("libbare.dylib", "void f(void) {}\n",
        {"-dynamiclib", "-install_name", "libcorvelstow.dylib"});
  const std::string bare = readFile(executable("bare", {(folder_ / "libbare.dylib").string()}));
  const std::size_t text = commandAt(thin, kSegment, "__TEXT");
  const std::string damaged = " is a damaged Mach-O file: ",
                    noRoom =
                        " has no room for the new load commands: they need 96 bytes after its load "
                        "commands, and ";
  struct Case {
    std::string name, executable, sentence;
    fs::path library = {};
  };
  const Case cases[] = {
      {"Script", "#!/bin/sh\necho hello\n", "Script.app/Script is not a Mach-O file."},
      {"Old", patched(thin, {{0, 0xFEEDFACE}}), "Old.app/Old holds no arm64 code."},  // 32-bit
      {"Intel", patched(thin, {{4, 0x01000007}}), "Intel.app/Intel holds no arm64 code."},
      {"Fat", testing::hexBytes("CAFEBABE 00000001 0100000C 00000000 00000000 0000001D 0000000E"),
       "Fat.app/Fat" + damaged + "a slice lies past its end."},
      {"Short", thin.substr(0, 100),
       "Short.app/Short" + damaged + "its load commands run past its end."},
      {"Half", thin.substr(0, thin.size() / 2),
       "Half.app/Half" + damaged + "it ends before its last segment."},
      {"Tiny", patched(thin, {{32 + 4, 4}}),
       "Tiny.app/Tiny" + damaged + "its load commands do not add up."},
      {"Over", patched(thin, {{16, le32(thin, 16) - 1}}),
       "Over.app/Over" + damaged + "its load commands do not add up."},
      {"Sections", patched(thin, {{text + 64, 100}}),
       "Sections.app/Sections" + damaged + "a segment's load command is cut short."},
      {"Segment", patched(thin, {{text + 40, 1}}),
       "Segment.app/Segment" + damaged + "its sections overlap its load commands."},
      {"Section", patched(thin, {{text + 72 + 48, 1}}),
       "Section.app/Section" + damaged + "its sections overlap its load commands."},
      {"Signature",
       patched(signedThin, {{commandAt(signedThin, kCodeSignature) + 8, signedThin.size() + 1}}),
       "Signature.app/Signature" + damaged + "its code signature lies past its end."},
      {"Store", patched(thin, {{commandAt(thin, kEncryptionInfo) + 16, 1}}),
       "This app is encrypted; use a decrypted copy."},
      {"Crowded", readFile(crowded("crowded", 40)),
       "Crowded.app/Crowded" + noRoom + "40 are free."},
      {"Full", readFile(crowded("full", 0)), "Full.app/Full" + noRoom + "0 are free."},
      {"Bare", bare, "Bare already loads libcorvelstow.dylib; nothing was changed."},
      {"Linux", thin, "libcorvelstow.so is not a Mach-O file.",
       fs::path(CORVELSTOW_COMMAND).parent_path() / "libcorvelstow.so"},
      {"Exe", thin, "thin is not a dynamic library.", folder_ / "thin"},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.name);
    const fs::path parent = folder_ / c.name;
    const fs::path app = makeApp(parent, c.name, c.executable);
    const auto before = readTree(parent);
    auto result = runCommand(
        {"inject", app.string(), "--library", (c.library.empty() ? library_ : c.library).string()});
    EXPECT_EQ(result.out + result.err, c.sentence + "\n");
    EXPECT_EQ(result.exitCode, result.out.empty() ? 1 : 0);
    EXPECT_EQ(readTree(parent), before);
  }
}

// An .ipa made by Python's zipfile: written back beside it with the library in the bundle's
// Frameworks, every entry where it was and the executables 0755, also when the archive gave no
// Unix modes; --in-place replaces it; an .ipa with a symbolic link, or with an absolute path,
// is refused.
TEST_F(InjectTest, WritesAnIpaBackWithTheLibraryInItsFrameworks) {
  const fs::path app = makeApp(folder_ / "unpacked/Payload", "Notes",
                               readFile(executable("signed", {"-Wl,-adhoc_codesign"})));
  fs::create_symlink("Main.strings", app / "Base.lproj/Link.strings");
  const char* pack = R"(
import os, sys, zipfile
root, path, kind = sys.argv[1:4]
with zipfile.ZipFile(path, "w", zipfile.ZIP_DEFLATED) as archive:
    for folder, folders, files in sorted(os.walk(root)):
        for name in sorted(folders + files):
            full = os.path.join(folder, name)
            info = zipfile.ZipInfo.from_file(full, os.path.relpath(full, root))
            if os.path.islink(full):
                info.external_attr = os.lstat(full).st_mode << 16
                if kind == "links": archive.writestr(info, os.readlink(full))
            elif kind == "dos":  # as a zipper elsewhere writes it: no Unix mode at all
                info.create_system, info.external_attr = 0, 0x10 if info.is_dir() else 0
                archive.writestr(info, b"" if info.is_dir() else open(full, "rb").read())
            else:
                archive.write(full, info.filename)
    if kind == "absolute":  # an entry that names a place outside any folder it is unpacked in
        archive.writestr(sys.argv[4], b"outside")
)";
  const fs::path outside = folder_ / "outside.txt";
  auto packAs = [&](const std::string& kind, const fs::path& ipa) {
    fs::create_directories(ipa.parent_path());
    auto packed = runProcess({"python3", "-c", pack, (folder_ / "unpacked").string(), ipa.string(),
                              kind, outside.string()});
    EXPECT_EQ(packed.exitCode, 0) << packed.err;
  };
  const fs::path ipa = folder_ / "Notes.ipa", linked = folder_ / "Linked.ipa";
  const fs::path copy = folder_ / "inplace/Notes.ipa", absolute = folder_ / "Absolute.ipa";
  packAs("files", ipa);
  packAs("links", linked);
  packAs("dos", copy);
  packAs("absolute", absolute);
  const std::string original = readFile(ipa);

  auto result = inject(ipa);
  ASSERT_EQ(result.exitCode, 0) << result.err;
  EXPECT_EQ(readFile(ipa), original);
  const fs::path output = folder_ / "Notes-corvelstow.ipa";
  const char* list = R"(
import sys, zipfile
archive = zipfile.ZipFile(sys.argv[1])
assert archive.testzip() is None
for entry in archive.infolist():
    print(entry.filename, oct(entry.external_attr >> 16))
)";
  auto listed = runProcess({"python3", "-c", list, output.string()});
  EXPECT_EQ(listed.exitCode, 0) << listed.err;
  EXPECT_EQ(listed.out,
            "Payload/ 0o40755\n"
            "Payload/Notes.app/ 0o40755\n"
            "Payload/Notes.app/Base.lproj/ 0o40755\n"
            "Payload/Notes.app/Info.plist 0o100644\n"
            "Payload/Notes.app/Notes 0o100755\n"
            "Payload/Notes.app/Base.lproj/Main.strings 0o100644\n"
            "Payload/Notes.app/Frameworks/ 0o40755\n"
            "Payload/Notes.app/Frameworks/libcorvelstow.dylib 0o100755\n");
  auto unzipped = runProcess({"unzip", "-q", output.string(), "-d", (folder_ / "check").string()});
  ASSERT_EQ(unzipped.exitCode, 0) << unzipped.err;
  const fs::path checked = folder_ / "check/Payload/Notes.app";
  EXPECT_EQ(readFile(checked / "Frameworks/libcorvelstow.dylib"), readFile(library_));
  EXPECT_EQ(readFile(checked / "Base.lproj/Main.strings"),
            readFile(app / "Base.lproj/Main.strings"));
  EXPECT_TRUE(holds(loadCommands(checked / "Notes").back(), kRunPath));

  ASSERT_EQ(inject(copy, {"--in-place"}).exitCode, 0);
  EXPECT_EQ(runProcess({"python3", "-c", list, copy.string()}).out, listed.out);
  EXPECT_EQ(files::listNames(copy.parent_path()).size(), 1u);
  EXPECT_EQ(inject(copy).out, "Notes already loads libcorvelstow.dylib; nothing was changed.\n");

  auto refused = inject(linked);
  EXPECT_EQ(refused.exitCode, 1);
  EXPECT_EQ(refused.err,
            "Linked.ipa holds a symbolic link, Payload/Notes.app/Base.lproj/"
            "Link.strings, which inject does not carry over.\n");
  EXPECT_FALSE(fs::exists(folder_ / "Linked-corvelstow.ipa"));
  EXPECT_EQ(inject(absolute).err, "The archive holds an unsafe path: " + outside.string() + "\n");
  EXPECT_FALSE(fs::exists(outside) || fs::exists(folder_ / "Absolute-corvelstow.ipa"));
}

}  // namespace
}  // namespace corvelstow
