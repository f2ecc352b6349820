// Sanitizer builds bring their own allocator, so they leave the process's entry points out; the
// installation call stays, and only reads the tracking switch as the real one does first.
#include "ovcommon/memory.h"
#include "support/allocation.h"

extern "C" {

void lookupNextMallocs() { checkMemoryTrackingEnabled(); }
void ov_installOutOfMemoryCatcher() { lookupNextMallocs(); }

}  // extern "C"
