#include "testing/fake_client.h"

#include <algorithm>
#include <cstring>

namespace com::orvex::engine {

// Never dereferenced: the fake only hands it around.
class EngineManagement {};

namespace {
EngineManagement theConnection;
}

void engineInit(const char* programName) {
  vigilo::test_support::fakeClient().calls.push_back(std::string("init ") + programName);
  if (auto& hook = vigilo::test_support::fakeClient().onInit) hook();
}

void engineShutdown() {
  vigilo::test_support::fakeClient().calls.push_back("shutdown");
  if (auto& hook = vigilo::test_support::fakeClient().onShutdown) hook();
}

EngineManagement* connectToEngineMonitorOnly(const char* host, unsigned short port,
                                             const char* reserved) {
  auto& fake = vigilo::test_support::fakeClient();
  fake.calls.push_back("connect " + std::string(host) + ":" + std::to_string(port) +
                       (reserved == nullptr ? "" : " with a non-null third argument"));
  if (fake.onConnect) fake.onConnect();
  return fake.connectReturnsNull ? nullptr : &theConnection;
}

void disconnectFromEngine(EngineManagement* management) {
  auto& fake = vigilo::test_support::fakeClient();
  fake.calls.push_back(management == &theConnection ? "disconnect" : "disconnect unknown");
  if (fake.onDisconnect) fake.onDisconnect();
}

}  // namespace com::orvex::engine

extern "C" StatusOpaque* engineManagement_getStatusOpaque(com::orvex::engine::EngineManagement*,
                                                          char** error) {
  auto& fake = vigilo::test_support::fakeClient();
  const std::size_t index = static_cast<std::size_t>(
      std::count(fake.calls.begin(), fake.calls.end(), std::string("fetch")));
  fake.calls.push_back("fetch");
  if (index >= fake.fetches.size()) {
    *error = strdup("no more snapshots");
    return nullptr;
  }
  const vigilo::test_support::fake_fetch& step = fake.fetches[index];
  if (step.before) step.before();
  if (!step.snapshot) {
    *error = strdup(step.error.c_str());
    return nullptr;
  }
  ++fake.snapshotsHandedOut;
  return vigilo::test_support::newFakeStatus(*step.snapshot, &fake.statusLog);
}

namespace vigilo::test_support {

fake_client& fakeClient() {
  static fake_client instance;
  return instance;
}

}  // namespace vigilo::test_support
