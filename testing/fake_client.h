// Test support: the engine client library replaced at link time. Each test scripts what the
// library's calls do (succeed, throw, hand out a scripted snapshot) and reads back the calls in
// order.
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
  std::string error;                           // otherwise this error text
  std::function<void()> before = nullptr;      // runs first, inside the fetch
};

struct fake_client {
  std::function<void()> onInit;
  std::function<void()> onConnect;  // may throw; runs before the connection is handed out
  bool connectReturnsNull = false;
  std::function<void()> onDisconnect;
  std::function<void()> onShutdown;
  // One entry per fetch; a fetch past the end fails with "no more snapshots".
  std::vector<fake_fetch> fetches;

  std::vector<std::string> calls;  // "init vigilo", "connect localhost:15903", "fetch", ...
  fake_status_log statusLog;       // every snapshot handed out logs here
  int snapshotsHandedOut = 0;
};

// The fake that the link-time library uses. Reset it at the start of every test.
fake_client& fakeClient();

}  // namespace vigilo::test_support

#endif  // VIGILO_TESTING_FAKE_CLIENT_H_
