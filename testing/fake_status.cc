#include "testing/fake_status.h"

#include <cstdlib>
#include <cstring>
#include <deque>

namespace vigilo::test_support {

namespace {

struct fake_status {
  StatusOpaque opaque;  // first, so that a StatusOpaque* is a fake_status*
  fake_status_script script;
  fake_status_log* log;
  fake_status_log ownLog;             // where calls are counted when the test keeps no log
  std::deque<std::string> handedOut;  // stable addresses for every string handed out
};

fake_status* self(StatusOpaque* status) { return reinterpret_cast<fake_status*>(status); }

const char* handOut(fake_status* s, const std::optional<std::string>& text) {
  if (!text) return nullptr;
  return s->handedOut.emplace_back(*text).c_str();
}

int getNextStatusPair(StatusOpaque* status, const char** key, const char** value,
                      std::uintptr_t* handle) {
  fake_status* s = self(status);
  ++s->log->pairSteps;
  const std::size_t index = *handle == 0 ? 0 : *handle - 1;  // the handle is the index plus one
  if (index < s->script.pairs.size()) {
    *key = handOut(s, s->script.pairs[index].first);
    *value = handOut(s, s->script.pairs[index].second);
    *handle = index + 2;
  } else if (s->script.endWithEmptyKey) {
    *key = *value = handOut(s, "");
    *handle = index + 1;
  } else {
    *key = *value = nullptr;
    *handle = 0;
  }
  return 0;
}

// The value of the first pair of `key`; null when there is none.
const std::optional<std::string>* lookUp(fake_status* s, const char* key) {
  for (const auto& [k, v] : s->script.pairs) {
    if (k == key) return &v;
  }
  return nullptr;
}

const char* getStatusString(StatusOpaque* status, const char* key) {
  const std::optional<std::string>* value = lookUp(self(status), key);
  return value == nullptr ? nullptr : handOut(self(status), *value);
}

std::int64_t getStatusInteger(StatusOpaque* status, const char* key) {
  const std::optional<std::string>* value = lookUp(self(status), key);
  if (value == nullptr || !*value) return 0;
  char* end = nullptr;
  const std::uint64_t number = std::strtoull((*value)->c_str(), &end, 10);
  return *end == '\0' ? static_cast<std::int64_t>(number) : 0;
}

void deleteStatus(StatusOpaque* status) {
  fake_status* s = self(status);
  ++s->log->deletes;
  for (std::string& text : s->handedOut) std::memset(text.data(), '#', text.size());
  delete s;
}

void freeStatusIteration(StatusOpaque* status, std::uintptr_t handle) {
  self(status)->log->freedIterations.push_back(handle);
}

const StatusFunctions fakeFunctions = statusFunctionsOf(
    &getNextStatusPair, &getStatusString, &getStatusInteger, &deleteStatus, &freeStatusIteration);

}  // namespace

fake_status_script scriptOf(const text_pairs& pairs) { return {{pairs.begin(), pairs.end()}}; }

StatusOpaque* newFakeStatus(const fake_status_script& script, fake_status_log* log) {
  auto* s = new fake_status{{nullptr, &fakeFunctions}, script, log, {}, {}};
  if (log == nullptr) s->log = &s->ownLog;
  return &s->opaque;
}

}  // namespace vigilo::test_support
