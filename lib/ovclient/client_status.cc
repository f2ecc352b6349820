#include "client_status.h"

namespace com::orvex::client {

namespace {

thread_local client_status::owned kept;

}  // namespace

struct status_operations {
  // The object's own word of the layout leads back to it.
  static client_status* self(StatusOpaque* status) {
    return static_cast<client_status*>(status->reserved);
  }

  static int getNextStatusPair(StatusOpaque* status, const char** key, const char** value,
                               std::uintptr_t* handle) {
    const pair_table& pairs = self(status)->snapshot.pairs();
    const std::size_t index = *handle == 0 ? 0 : *handle - 1;
    if (index >= pairs.size()) {
      *key = *value = nullptr;
      *handle = 0;
      return 0;
    }
    *key = pairs.key(index);
    *value = pairs.value(index);
    *handle = index + 2;
    return 1;
  }

  static const char* getStatusString(StatusOpaque* status, const char* key) {
    return self(status)->snapshot.find(key);
  }

  static std::int64_t getStatusInteger(StatusOpaque* status, const char* key) {
    return static_cast<std::int64_t>(self(status)->snapshot.number(key));
  }

  static void deleteStatus(StatusOpaque* status) { client_status::recycler()(self(status)); }

  static void freeStatusIteration(StatusOpaque*, std::uintptr_t) {}
};

namespace {

const StatusFunctions clientFunctions =
    statusFunctionsOf(&status_operations::getNextStatusPair, &status_operations::getStatusString,
                      &status_operations::getStatusInteger, &status_operations::deleteStatus,
                      &status_operations::freeStatusIteration);

}  // namespace

void client_status::recycler::operator()(client_status* status) const {
  // An object grown by a large document is not kept: it would hold that memory in every thread
  // that ever read one.
  if (kept == nullptr && status->snapshot.capacity() <= keptCapacity) {
    kept.reset(status);
  } else {
    delete status;
  }
}

client_status::owned client_status::take() {
  if (kept != nullptr) return std::move(kept);
  owned status(new client_status);
  status->opaque = {status.get(), &clientFunctions};
  return status;
}

}  // namespace com::orvex::client
