#pragma once

// An executable names the library each of its imports comes from by the library's ordinal: the
// position, from 1, of its load command among the LC_LOAD_DYLIB kinds of load command. A load
// command inserted among them moves the ordinals of those after it up by one, and the binding
// information has to follow, or the imports would be looked up in the wrong libraries.

#include <cstdint>
#include <optional>
#include <vector>

#include "inject/dylib_insertion.h"

namespace corvelstow::macho {

/// Bytes of a slice, from the slice's start.
struct SliceRange {
  std::uint64_t offset = 0;
  std::uint64_t size = 0;
};

/// Where a slice keeps the library ordinals of its imports, as its load commands give them.
struct OrdinalTables {
  std::optional<SliceRange> bind;           ///< LC_DYLD_INFO(_ONLY): the bind opcodes
  std::optional<SliceRange> lazyBind;       ///< and the lazy bind opcodes
  std::optional<SliceRange> chainedFixups;  ///< LC_DYLD_CHAINED_FIXUPS, whose imports name them
  std::optional<SliceRange> symbols;        ///< LC_SYMTAB's entries, in a two-level namespace image
};

/// The changes that keep every import of the slice at `sliceOffset` of `file` (`sliceSize`
/// bytes) bound to its library once a new load command takes ordinal `inserted`: every ordinal
/// from `inserted` on grows by one, written in as many bytes as before. Nothing when one of
/// them cannot be (an ordinal written in four bits that would need five, or one past the
/// largest the table holds). Throws StowInjectError when a table lies outside the slice or is
/// cut short.
std::optional<std::vector<FilePatch>> renumberLibraryOrdinals(const MachFile& file,
                                                              std::uint64_t sliceOffset,
                                                              std::uint64_t sliceSize,
                                                              const OrdinalTables& tables,
                                                              std::uint32_t inserted);

}  // namespace corvelstow::macho
