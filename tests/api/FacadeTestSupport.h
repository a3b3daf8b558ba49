#pragma once

// Shared by the facade and configurations tests: a private data folder for the
// process's host key, a held-commit domain for the paths that depend on when
// (or whether) a commit completes, and short helpers.

#include <stdlib.h>

#include <functional>
#include <future>
#include <memory>
#include <mutex>
#include <string>
#include <utility>
#include <vector>

#include <gtest/gtest.h>

#include "platform/KeyHome.h"
#include "platform/ScopedTempDir.h"
#include "qelss/api/QSSDomain.h"
#include "qelss/domain/IDomainSetting.h"
#include "qelss/platform/ErrorCode.h"

namespace QelSS::testing {

inline std::error_code Code(ErrorCode code) { return make_error_code(code); }

// Delegates to a real domain, except that commits are held until the test
// releases them: the test decides whether and when a commit completes.
class HeldCommitDomain final : public IDomainSetting {
 public:
  explicit HeldCommitDomain(std::shared_ptr<IDomainSetting> inner) : inner_(std::move(inner)) {}

  std::error_code GetName(std::string& name) override { return inner_->GetName(name); }
  std::error_code Get(const std::string& path, std::shared_ptr<IValue>& value) override {
    return inner_->Get(path, value);
  }
  std::error_code CreateTransaction(std::shared_ptr<ITransaction>& transaction) override {
    return inner_->CreateTransaction(transaction);
  }
  std::error_code CommitTransaction(const std::shared_ptr<ITransaction>& transaction,
                                    std::function<void(std::error_code)> done) override {
    std::lock_guard lock(mutex_);
    held_.emplace_back(transaction, std::move(done));
    return Code(kSuccess);
  }
  std::error_code AddObserver(dispatch_queue_t queue,
                              const std::shared_ptr<IObserver>& observer) override {
    return inner_->AddObserver(queue, observer);
  }
  std::error_code RemoveObserver(const std::shared_ptr<IObserver>& observer) override {
    return inner_->RemoveObserver(observer);
  }

  size_t HeldCount() {
    std::lock_guard lock(mutex_);
    return held_.size();
  }

  // Commits every held transaction to the real domain, in order, and passes
  // each outcome on to its completion on the calling thread.
  void ReleaseAll() {
    std::vector<Held> held;
    {
      std::lock_guard lock(mutex_);
      held.swap(held_);
    }
    for (auto& [transaction, done] : held) {
      auto outcome = std::make_shared<std::promise<std::error_code>>();
      std::future<std::error_code> result = outcome->get_future();
      const std::error_code started = inner_->CommitTransaction(
          transaction, [outcome](std::error_code rc) { outcome->set_value(rc); });
      done(Succeeded(started) ? result.get() : started);
    }
  }

 private:
  using Held = std::pair<std::shared_ptr<ITransaction>, std::function<void(std::error_code)>>;
  std::shared_ptr<IDomainSetting> inner_;
  std::mutex mutex_;
  std::vector<Held> held_;
};

}  // namespace QelSS::testing
