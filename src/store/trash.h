#pragma once

#include <string>

#include "store/layout.h"

namespace corvelstow {

/// Moves the entry `name` of the open folder `folder` into the open trash folder `trash` (the
/// work folder's Trash), under a name no other entry there has. A rename only: what the launch
/// discards is removed later, off the launch path, by emptyTrash. False, with errno set, when
/// the entry stays where it was.
bool moveToTrash(int folder, const std::string& name, int trash);

/// Removes everything in the work folder's Trash, entry by entry, without following links: an
/// emptying cut short is taken up by the next one. Needs no lock: nothing but moveToTrash puts
/// anything there, and nothing takes anything back. Never throws.
void emptyTrash(const StowLayout& layout);

}  // namespace corvelstow
