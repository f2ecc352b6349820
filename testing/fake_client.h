// Test support: the engine client library replaced at link time. A test scripts what its calls
// do (succeed, throw, hand out a scripted snapshot or an error) and reads back the calls in order.
#ifndef VIGILO_TESTING_FAKE_CLIENT_H_
#define VIGILO_TESTING_FAKE_CLIENT_H_

#include <functional>
#include <optional>
#include <string>
#include <vector>

#include "ovclient/engine_client.h"
#include "testing/fake_status.h"

namespace vigilo::test_support {

struct fake_fetch {
  std::optional<fake_status_script> snapshot;  // handed out when set
  std::string error = "";                      // otherwise this error text
  std::function<void()> before = nullptr;      // runs first, inside the fetch
};

struct fake_client {
  // Run inside the library's calls, which they may make throw.
  std::function<void()> onInit, onConnect, onDisconnect, onShutdown;
  bool connectReturnsNull = false;
  std::vector<fake_fetch> fetches;  // one per fetch; past the end: "no more snapshots"

  std::vector<std::string> calls;  // "init vigilo", "connect localhost:15903", "fetch", ...
  fake_status_log statusLog;       // of every snapshot handed out
  int snapshotsHandedOut = 0;
};

// The one fake of the process; a test starts by resetting it.
fake_client& fakeClient();

}  // namespace vigilo::test_support

#endif  // VIGILO_TESTING_FAKE_CLIENT_H_
