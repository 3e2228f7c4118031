// The library's load-time entry: its one initializer, and the one symbol it exports.

#include "corvelstow/corvelstow.h"
#include "startup/startup.h"

extern "C" __attribute__((constructor)) void corvelstow_start(void) {
  corvelstow::corvelStowStart();
}
