// The engine's status object as the engine client library (libovclient) hands it out: a C-layout
// object carrying a table of operations. vigilo calls five entries of the table; the others
// belong to the library.
#ifndef VIGILO_SRC_PLATFORM_OVCLIENT_STATUSOPAQUE_H_
#define VIGILO_SRC_PLATFORM_OVCLIENT_STATUSOPAQUE_H_

#include <cstddef>
#include <cstdint>

extern "C" {

struct StatusFunctions;

struct StatusOpaque {
  void* reserved;                    // the library's; never read or written by the tool
  const StatusFunctions* functions;  // the object's operation table
};

// Every entry takes the status object as its first argument and is stored as a generic C function
// pointer; callers convert it to the entry's own type below.
typedef void (*StatusFunction)(void);

enum StatusFunctionEntry : std::size_t {
  getNextStatusPairEntry = 22,
  getStatusStringEntry = 23,
  getStatusIntegerEntry = 24,
  deleteStatusEntry = 25,
  freeStatusIterationEntry = 28,
  statusFunctionCount = 29,
};

struct StatusFunctions {
  StatusFunction entries[statusFunctionCount];
};

// Entry 22: yields the next pair of a walk. *handle is 0 to start one; the object updates it and
// sets it to 0 when it has ended the walk itself. Key and value stay owned by the object.
typedef int (*getNextStatusPair_fn)(StatusOpaque* status, const char** key, const char** value,
                                    std::uintptr_t* handle);
// Entry 23: the text of a key, owned by the object and valid until it is deleted; may be null.
typedef const char* (*getStatusString_fn)(StatusOpaque* status, const char* key);
// Entry 24: the number of a key.
typedef std::int64_t (*getStatusInteger_fn)(StatusOpaque* status, const char* key);
// Entry 25: releases the object and every string it handed out.
typedef void (*deleteStatus_fn)(StatusOpaque* status);
// Entry 28: releases an unfinished walk's state.
typedef void (*freeStatusIteration_fn)(StatusOpaque* status, std::uintptr_t handle);

// A table whose five entries are the given operations, for a provider of status objects.
inline StatusFunctions statusFunctionsOf(getNextStatusPair_fn getNextStatusPair,
                                         getStatusString_fn getStatusString,
                                         getStatusInteger_fn getStatusInteger,
                                         deleteStatus_fn deleteStatus,
                                         freeStatusIteration_fn freeStatusIteration) {
  StatusFunctions table{};
  table.entries[getNextStatusPairEntry] = reinterpret_cast<StatusFunction>(getNextStatusPair);
  table.entries[getStatusStringEntry] = reinterpret_cast<StatusFunction>(getStatusString);
  table.entries[getStatusIntegerEntry] = reinterpret_cast<StatusFunction>(getStatusInteger);
  table.entries[deleteStatusEntry] = reinterpret_cast<StatusFunction>(deleteStatus);
  table.entries[freeStatusIterationEntry] = reinterpret_cast<StatusFunction>(freeStatusIteration);
  return table;
}

}  // extern "C"

#endif  // VIGILO_SRC_PLATFORM_OVCLIENT_STATUSOPAQUE_H_
