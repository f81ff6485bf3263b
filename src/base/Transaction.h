// Transaction: a named keep-alive. While any transaction is open the process has work in flight and an
// idle exit must wait. RAII: the transaction closes when the object goes away.
//
// Threading: safe from any thread.
#pragma once

#include <atomic>
#include <memory>
#include <string>

namespace vorlen {

class Transaction {
 public:
  explicit Transaction(std::string name);
  ~Transaction();
  Transaction(const Transaction&) = delete;
  Transaction& operator=(const Transaction&) = delete;

  const std::string& name() const { return name_; }
  // Open transactions in this process.
  static int64_t openCount();

 private:
  std::string name_;
};

}  // namespace vorlen
