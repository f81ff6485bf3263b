#include "base/Transaction.h"

#include "base/Log.h"

namespace vorlen {

namespace {
std::atomic<int64_t> gOpen{0};
}

Transaction::Transaction(std::string name) : name_(std::move(name)) {
  gOpen.fetch_add(1);
  VorlenDefaultLog().debug("transaction {} opened", name_);
}

Transaction::~Transaction() {
  gOpen.fetch_sub(1);
  VorlenDefaultLog().debug("transaction {} closed", name_);
}

int64_t Transaction::openCount() {
  return gOpen.load();
}

}  // namespace vorlen
