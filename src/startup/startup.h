#pragma once

#include <string>

#include "store/layout.h"

namespace corvelstow {

/// The launch-time file work, in order: a swap that was cut short, a requested undo, then a
/// staged restore (its outcome written to outcome.json and the staging cleared), all under the
/// container lock; when another operation keeps the lock, the work waits for the next launch.
/// Never throws. A staged.json that does not decode is left untouched, with its Staged folder,
/// to be tried again at the next launch. Nothing at all is done while data protection keeps
/// swap.json, undo.request or staged.json from being read (platform::dataLocked): the work
/// waits for a launch that can read them. The app's identity (StowHostApp) is read only when
/// there is work.
void runLaunchTimeWork(const StowLayout& layout);

/// Removes staged.json, then the Staged folder; failures are ignored.
void clearStaging(const StowLayout& layout);

/// The start-up sequence: the launch-time work for this process's container, then the
/// platform's own step. Runs once, at load; never fails outward.
void corvelStowStart();

}  // namespace corvelstow
