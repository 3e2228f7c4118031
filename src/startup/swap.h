#pragma once

#include <string>

#include "store/layout.h"
#include "store/records.h"

namespace corvelstow {

/// How a launch-time swap ended.
enum class StowSwapResult {
  notStarted,  ///< it could not start: nothing moved, the outcome says why, the source waits
  stopped,     ///< it had to stop part-way: swap.json is left for the next launch to finish
  rolledBack,  ///< its journal could not be rewritten: what it moved went back, as it says
  failed,      ///< it ran to its end, some moves failing: the outcome names them
  succeeded,   ///< it ran to its end without a failure
};

/// Swaps the data of a restore (kind restore: Staged) or of an undo (kind undo: Previous) into
/// the live container, for the record's scope: each live top-level entry is moved into the
/// aside folder, then each source entry is moved into place, never over an entry that is still
/// there; settings go through the preferences store, with the source app's domain renamed to
/// `hostBundleID`. A restore keeps what it replaced as Previous (described by previous.json);
/// an undo discards it. What is discarded is moved into the trash, never removed here. The
/// outcome is written to outcome.json and the source is cleared.
///
/// Every folder is opened once, without following links, and every move is made between those
/// descriptors: a link put in a folder's place meanwhile is never crossed. Every step is
/// recorded in swap.json before it moves anything, so that a swap cut short (the process killed,
/// the device off) is finished by resumeSwap rather than begun again; room for the journal's
/// rewrites is reserved before the first move. Every failed move, write or removal is a failure
/// of the swap: what it concerns stays live or in Previous, and the outcome names it. Never
/// throws.
StowSwapResult performSwap(const StowLayout& layout, const std::string& hostBundleID,
                           StowSwapKind kind, const StowStagedRestore& record);

/// The undo of the last restore, as performSwap with kind undo. `recordDamaged`: previous.json
/// could not be read and `record` stands in for it; then, as when Previous/kept.json cannot be
/// read, only what Previous holds is put back and everything else stays live, and the outcome
/// says why. An undo whose Previous folder is missing moves nothing.
StowSwapResult performUndo(const StowLayout& layout, const std::string& hostBundleID,
                           const StowStagedRestore& record, bool recordDamaged);

/// Finishes the swap that swap.json describes, from the step it had reached; the end state is
/// that of a swap that was never interrupted. When swap.json cannot be read, puts back from
/// Previous-new every entry whose place is free and keeps the rest in Previous for an undo, and
/// the outcome says so. Never throws.
StowSwapResult resumeSwap(const StowLayout& layout, const std::string& hostBundleID);

}  // namespace corvelstow
