#pragma once

#include <string>

#include "store/layout.h"
#include "store/records.h"

namespace corvelstow {

/// The launch-time file work, in order: a swap that was cut short, a requested undo, then a
/// staged restore (its outcome written to outcome.json and the staging moved to the trash),
/// all under the container lock; when another operation keeps the lock, the work waits for the
/// next launch. Never throws. Nothing at all is done while data protection keeps swap.json,
/// undo.request or staged.json from being read (platform::dataLocked): the work waits for a
/// launch that can read them. The app's identity (StowHostApp) is read only when there is work.
///
/// Each step runs only after the one before it succeeded: an outcome that tells of a failure is
/// never overwritten in the same launch. A staged restore is applied only to the staging it was
/// written for (its token), only when that staging is in place, and never twice; one whose
/// record cannot be read, or whose files are missing, is cleared with an outcome that says so.
/// A restore never starts over a Previous that holds what an undo could not put back. The
/// launch only renames: what it discards goes to the trash, emptied afterwards (tidyWorkFolder).
void runLaunchTimeWork(const StowLayout& layout);

/// Puts a staging committed but cut short before it took Staged's place (staged.json names
/// Staged-new) in place. Renames only; under the container lock.
void settleStaging(const StowLayout& layout);

/// Whether Staged is the staging that `record` was written for: it holds the marker of the
/// record's token (a record without a token, from an older version: Staged exists).
bool stagingInPlace(const StowLayout& layout, const StowStagedRestore& record);

/// Throws StowFileError (EBUSY) when a swap cut short waits for the next launch to finish it:
/// until then neither the data it moves nor its folders may change.
void refuseWhileSwapUnfinished(const StowLayout& layout);

/// Whether Previous holds what an undo could not put back (kept.json says so): only another
/// undo may use it, and no restore replaces it before.
bool undoUnfinished(const StowLayout& layout);

/// Off the launch path: settles the staging, moves into the trash what no record names (a
/// staging cut short, a damaged staged.json with its folder), then empties the trash, taking up
/// an emptying cut short. Takes the container lock for the first part only, and leaves that part
/// when another operation holds it. Never throws.
void tidyWorkFolder(const StowLayout& layout);

/// The start-up sequence: the launch-time work for this process's container, then the
/// platform's own step, and tidyWorkFolder once the app is up. Runs once, at load; never fails
/// outward.
void corvelStowStart();

}  // namespace corvelstow
