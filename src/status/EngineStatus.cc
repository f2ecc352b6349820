#include "status/EngineStatus.h"

#include <cstdlib>

#include "ovcommon/EngineException.h"

namespace com::orvex::engine {

namespace {

template <typename Fn>
Fn entry(const StatusOpaque* status, StatusFunctionEntry which) {
  return reinterpret_cast<Fn>(status->functions->entries[which]);
}

}  // namespace

EngineStatus::~EngineStatus() {
  if (status != nullptr) entry<deleteStatus_fn>(status, deleteStatusEntry)(status);
}

EngineStatus& EngineStatus::operator=(EngineStatus&& other) noexcept {
  if (this != &other) {
    EngineStatus old(std::exchange(status, std::exchange(other.status, nullptr)));
  }
  return *this;
}

std::uint64_t EngineStatus::getStatusInteger(const char* key) const {
  return static_cast<std::uint64_t>(
      entry<getStatusInteger_fn>(status, getStatusIntegerEntry)(status, key));
}

const char* EngineStatus::getStatusString(const char* key) const {
  return entry<getStatusString_fn>(status, getStatusStringEntry)(status, key);
}

EngineStatus::StatusIterator EngineStatus::begin() const {
  StatusIterator it(this);
  it.step();
  return it;
}

EngineStatus::StatusIterator EngineStatus::end() const { return StatusIterator(this); }

EngineStatus::StatusIterator::~StatusIterator() {
  if (record != nullptr && handle != 0) {
    entry<freeStatusIteration_fn>(record->status, freeStatusIterationEntry)(record->status, handle);
  }
}

void EngineStatus::StatusIterator::step() {
  const char* key = nullptr;
  const char* value = nullptr;
  if (record->status == nullptr) return;
  entry<getNextStatusPair_fn>(record->status, getNextStatusPairEntry)(record->status, &key, &value,
                                                                      &handle);
  if (key == nullptr || value == nullptr) return;
  // Both copies exist before the previous pair goes, so a failed copy leaves it intact.
  std::pair<std::string, std::string> next(key, value);
  current.swap(next);
}

EngineStatus::StatusIterator& EngineStatus::StatusIterator::operator++() {
  if (handle != 0) step();
  return *this;
}

bool EngineStatus::StatusIterator::operator==(const StatusIterator& end) const {
  return record == end.record && (handle == 0 || current.first.empty());
}

EngineStatus getEngineStatus(EngineManagement* management) {
  char* error = nullptr;
  StatusOpaque* status = engineManagement_getStatusOpaque(management, &error);
  if (error != nullptr) {
    EngineException failure(error);
    std::free(error);
    throw failure;
  }
  return EngineStatus(status);
}

}  // namespace com::orvex::engine
