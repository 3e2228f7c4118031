#pragma once

#include <cstdint>
#include <filesystem>
#include <functional>
#include <string>
#include <string_view>
#include <vector>

#include "base/unique_fd.h"

namespace corvelstow {

/// What a walk finds at one path, read without following a symbolic link.
struct TreeEntry {
  enum class Kind { folder, file, link, other, unknown };
  std::string name;      ///< the last path component
  std::string relative;  ///< the path below the root, "/"-separated
  Kind kind = Kind::unknown;
  std::int64_t size = 0;  ///< logical size of a file or link; 0 otherwise or when unknown
};

/// The folders along one path below a root folder, each opened from its parent without
/// following a symbolic link: nothing reached through the chain lies outside the root, even
/// where a folder was replaced by a link after it was listed. However deep the path, at most
/// kMaxOpen descriptors stay open; a shallower folder's is given back and the folder opened
/// again, name by name from the root, when it is needed.
class FolderChain {
 public:
  static constexpr std::size_t kMaxOpen = 16;

  /// A chain standing at `root`, opened as named (links in the root's own path are followed).
  explicit FolderChain(const std::filesystem::path& root);

  /// The folder the chain stands at: the root, or the last folder entered. -1, with errno set,
  /// when it cannot be opened (again).
  int current();

  /// Enters the folder `name` of the current one. False, with errno set, when it cannot be
  /// opened: ELOOP for a link, ENOTDIR for anything else that is not a folder.
  bool enter(const std::string& name);

  /// Goes back to the folder the current one was entered from.
  void leave();

  /// Stands at `path` ("Documents/notes", or "" for the root), leaving and entering only the
  /// folders where it differs from the current path. False, with errno set, as `enter`.
  bool moveTo(std::string_view path);

  /// The number of folders entered below the root.
  std::size_t depth() const { return levels_.size(); }

 private:
  struct Level {
    std::string name;
    UniqueFd fd;  // none for a level whose descriptor was given back
  };
  bool reopen();

  UniqueFd root_;
  int rootError_ = 0;
  std::vector<Level> levels_;
  std::size_t firstOpen_ = 0;  // the levels before it hold no descriptor; those from it all do
};

/// What a walk does with a folder that cannot be opened or read: the backup fails, naming it, as
/// it does for a file; the usage survey counts it as empty. Either way a folder gone, or replaced
/// by a link or a file, since it was listed is passed over, as a link is.
enum class FolderFailures { fail, passOver };

/// Enters the folder `name` of the chain's current one, found at `relative`. False when the
/// folder is passed over (see FolderFailures); throws StowFileError naming `relative` when it
/// fails.
bool enterFolder(FolderChain& chain, const std::string& name, const std::string& relative,
                 FolderFailures failures);

/// The entries directly in the chain's current folder, found at `relative`, in the order the
/// directory yields them; each entry's `relative` is `relative` + "/" + its name. An entry whose
/// attributes cannot be read is `unknown`. Throws StowFileError naming `relative` when the folder
/// cannot be read.
std::vector<TreeEntry> listFolder(FolderChain& chain, const std::string& relative);

/// Visits everything below the folder `name` of the chain's current folder, found at `relative`
/// (not the folder itself), depth first, a folder before its contents, in directory order,
/// without following symbolic links. Folders that cannot be opened or read are passed over, or
/// the walk throws, as `failures` says. The chain stands where it stood before, however the walk
/// ends.
void walkTree(FolderChain& chain, const std::string& name, const std::string& relative,
              const std::function<void(const TreeEntry&)>& visit, FolderFailures failures);

}  // namespace corvelstow
