#include "testing/fake_client.h"

#include <algorithm>
#include <cstring>

using vigilo::test_support::fakeClient;

namespace com::orvex::engine {

class EngineManagement {};  // never looked into: the fake only hands it around

namespace {

EngineManagement theConnection;

void record(const std::string& call, const std::function<void()>& hook) {
  fakeClient().calls.push_back(call);
  if (hook) hook();
}

}  // namespace

void engineInit(const char* programName) {
  record(std::string("init ") + programName, fakeClient().onInit);
}

void engineShutdown() { record("shutdown", fakeClient().onShutdown); }

EngineManagement* connectToEngineMonitorOnly(const char* host, unsigned short port,
                                             const char* reserved) {
  record("connect " + std::string(host) + ":" + std::to_string(port) +
             (reserved == nullptr ? "" : " with a non-null third argument"),
         fakeClient().onConnect);
  return fakeClient().connectReturnsNull ? nullptr : &theConnection;
}

void disconnectFromEngine(EngineManagement* management) {
  record(management == &theConnection ? "disconnect" : "disconnect unknown",
         fakeClient().onDisconnect);
}

}  // namespace com::orvex::engine

extern "C" StatusOpaque* engineManagement_getStatusOpaque(com::orvex::engine::EngineManagement*,
                                                          char** error) {
  auto& fake = fakeClient();
  const auto index =
      static_cast<std::size_t>(std::count(fake.calls.begin(), fake.calls.end(), "fetch"));
  fake.calls.push_back("fetch");
  const vigilo::test_support::fake_fetch step =
      index < fake.fetches.size() ? fake.fetches[index]
                                  : vigilo::test_support::fake_fetch{{}, "no more snapshots"};
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
