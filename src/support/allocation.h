// The process's allocation entry points. vigilo exports malloc, calloc, realloc and free (and the
// aligned family), so that every library of the process allocates through them. Each forwards to
// the next allocator in the dynamic linker's search order; when memory tracking is on, each block
// carries a one-word header with its total size and every allocation and release is counted.
// The route is chosen once, at the first allocation, before any thread exists; afterwards the
// function pointers below are only read.
#ifndef VIGILO_SRC_SUPPORT_ALLOCATION_H_
#define VIGILO_SRC_SUPPORT_ALLOCATION_H_

#include <cstddef>

extern "C" {

using malloc_fn = void* (*)(std::size_t);
using calloc_fn = void* (*)(std::size_t, std::size_t);
using realloc_fn = void* (*)(void*, std::size_t);
using free_fn = void (*)(void*);

// The next allocator's functions; null until found.
extern malloc_fn sysmalloc;
extern calloc_fn syscalloc;
extern realloc_fn sysrealloc;
extern free_fn sysfree;

// What the entry points call: the track_ functions when tracking is on, else the next allocator's.
extern malloc_fn trackingmalloc;
extern calloc_fn trackingcalloc;
extern realloc_fn trackingrealloc;
extern free_fn trackingfree;

// 1 while the next allocator is being looked up.
extern int recursing;

// Finds the next allocator and chooses the route. Aborts when a name cannot be found, when one
// resolves to the program's own entry point, or when called again while a lookup runs.
void lookupNextMallocs();
void ov_installOutOfMemoryCatcher();

void* track_malloc(std::size_t size);
void* track_calloc(std::size_t first, std::size_t second);
void* track_realloc(void* block, std::size_t size);
void track_free(void* block);

}  // extern "C"

#endif  // VIGILO_SRC_SUPPORT_ALLOCATION_H_
