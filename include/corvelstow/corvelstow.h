#ifndef CORVELSTOW_CORVELSTOW_H
#define CORVELSTOW_CORVELSTOW_H

#ifdef __cplusplus
extern "C" {
#endif

/// The library's one way in, run once as it is loaded, before the host app's own code: it
/// finishes an undo or a restore that the previous run of the app prepared, records the result
/// for the panel to announce, and then waits for the app's first window to show the overlay.
/// It takes nothing, returns nothing and never fails outward. The loader calls it; nobody else
/// needs to.
__attribute__((visibility("default"))) void corvelstow_start(void);

#ifdef __cplusplus
}
#endif

#endif
