#pragma once

// Objective-C classes share one namespace in a process, where the app and the other libraries it
// loads may hold classes of the same short names; two of one name make the runtime pick one of
// them. Each class of ours keeps its short name in the source and registers under a long one of
// its own (scripts/check-ios checks that every class carries it):
//
//   STOW_RUNTIME_NAME(StowWindow)
//   @interface StowWindow : UIWindow

#define STOW_RUNTIME_NAME(name) __attribute__((objc_runtime_name("CorvelStowUI_" #name)))
