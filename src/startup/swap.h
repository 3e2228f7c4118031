#pragma once

#include <string>

#include "store/layout.h"
#include "store/records.h"

namespace corvelstow {

/// Swaps the data of a restore (kind restore: Staged) or of an undo (kind undo: Previous) into
/// the live container, for the record's scope: each live top-level entry is moved into the
/// aside folder, then each source entry is moved into place, never over an entry that is still
/// there; settings go through the preferences store, with the source app's domain renamed to
/// `hostBundleID`. A restore keeps what it replaced as Previous (described by previous.json);
/// an undo discards it. The outcome is written to outcome.json and the source is cleared.
///
/// Every step is recorded in swap.json before it moves anything, so that a swap cut short (the
/// process killed, the device off) is finished by resumeSwap rather than begun again.
///
/// Returns true when the swap ran to its end, failed moves included (they are reported in the
/// outcome's message). Returns false when it did not start, because a folder it uses is a link
/// or the aside folder or the journal could not be made: then nothing has moved, the outcome
/// says why and the source stays for a later try. Also false when it had to stop before its
/// end: then swap.json is left for the next launch. Never throws.
bool performSwap(const StowLayout& layout, const std::string& hostBundleID, StowSwapKind kind,
                 const StowStagedRestore& record);

/// Finishes the swap that swap.json describes, from the step it had reached; the end state is
/// that of a swap that was never interrupted. False when swap.json does not decode (then
/// nothing is touched) or when the swap had to stop again. Never throws.
bool resumeSwap(const StowLayout& layout, const std::string& hostBundleID);

}  // namespace corvelstow
