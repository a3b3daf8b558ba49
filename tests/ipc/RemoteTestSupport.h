#pragma once

// Remote domains in tests: opening one through the library's factory, waiting
// for asynchronous commits, recording what observers hear, and replaying it.

#include <chrono>
#include <condition_variable>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include "domain/DomainRoot.h"
#include "domain/IDomainSettingInternal.h"
#include "qelss/domain/DomainFactory.h"
#include "qelss/domain/IDomainSetting.h"
#include "qelss/domain/SettingsObserver.h"
#include "qelss/platform/ErrorCode.h"
#include "values/KeyPath.h"

namespace QelSS::testing {

// One completion awaited with a limit.
template <typename T>
class Awaited {
 public:
  void Set(T value) {
    std::lock_guard lock(mutex_);
    value_ = std::move(value);
    ++calls_;
    changed_.notify_all();
  }
  // The first value given, or `timedOut` when none came within `limit`.
  T Wait(T timedOut, std::chrono::milliseconds limit = std::chrono::seconds(30)) {
    std::unique_lock lock(mutex_);
    if (!changed_.wait_for(lock, limit, [&] { return calls_ > 0; })) return timedOut;
    return value_;
  }
  int Calls() {
    std::lock_guard lock(mutex_);
    return calls_;
  }

 private:
  std::mutex mutex_;
  std::condition_variable changed_;
  T value_{};
  int calls_ = 0;
};

// Opens `name` through the settings service; the factory's code otherwise.
inline std::error_code OpenRemote(const std::string& name, std::shared_ptr<IDomainSetting>& out,
                                  const std::string& client = "com.example.test") {
  auto factory = GetDomainFactory(nullptr);
  if (!factory) return make_error_code(kFailure);
  struct Opened {
    std::shared_ptr<IDomainSetting> domain;
    std::error_code code;
  };
  auto result = std::make_shared<Awaited<Opened>>();
  factory->OpenDomain(
      Configuration{"", false}, name, client,
      [result](std::shared_ptr<IDomainSetting>& domain, std::error_code code) {
        result->Set({domain, code});
      },
      true);
  Opened opened = result->Wait({nullptr, make_error_code(kTimeout)});
  out = opened.domain;
  return opened.code;
}

inline std::error_code CommitAndWait(IDomainSetting& domain,
                                     const std::shared_ptr<ITransaction>& transaction) {
  auto outcome = std::make_shared<Awaited<std::error_code>>();
  const std::error_code started = domain.CommitTransaction(
      transaction, [outcome](std::error_code code) { outcome->Set(code); });
  if (started != kSuccess) return started;
  return outcome->Wait(make_error_code(kTimeout));
}

// A copy of the stored root of a domain made by the library; null otherwise.
inline std::shared_ptr<IHash> RootOf(IDomainSetting& domain) {
  std::shared_ptr<IHash> root;
  auto* internal = dynamic_cast<IDomainSettingInternal*>(&domain);
  if (internal == nullptr || internal->CopySettings(root) != kSuccess) return nullptr;
  return root;
}

inline int64_t GenerationOf(IDomainSetting& domain) {
  int64_t count = -1;
  if (auto root = RootOf(domain)) (void)DomainRoot::GetGenerationCount(root, count);
  return count;
}

inline int64_t GenerationOf(const std::shared_ptr<IHash>& root) {
  int64_t count = -1;
  if (root) (void)DomainRoot::GetGenerationCount(root, count);
  return count;
}

inline std::shared_ptr<IHash> TreeOf(IDomainSetting& domain) {
  std::shared_ptr<IHash> tree;
  if (auto root = RootOf(domain)) (void)DomainRoot::GetInternalSettings(root, tree);
  return tree;
}

// Every change list an observer heard, in order.
class ChangeLog {
 public:
  explicit ChangeLog(IDomainSetting& domain) {
    (void)SettingsObserver::Create(
        [this](const std::shared_ptr<IDomainSetting>&, const IObserver::ChangeList& changes) {
          std::lock_guard lock(mutex_);
          lists_.push_back(changes);
          changed_.notify_all();
        },
        observer_);
    added_ = domain.AddObserver(nullptr, observer_);
  }
  ~ChangeLog() { observer_->Detach(); }

  std::error_code Added() const { return added_; }
  const std::shared_ptr<SettingsObserver>& Observer() const { return observer_; }
  // The lists heard so far, once at least `count` came or 10 s passed.
  std::vector<IObserver::ChangeList> WaitFor(
      size_t count, std::chrono::milliseconds limit = std::chrono::seconds(10)) {
    std::unique_lock lock(mutex_);
    changed_.wait_for(lock, limit, [&] { return lists_.size() >= count; });
    return lists_;
  }
  std::vector<IObserver::ChangeList> Lists() {
    std::lock_guard lock(mutex_);
    return lists_;
  }

 private:
  std::mutex mutex_;
  std::condition_variable changed_;
  std::vector<IObserver::ChangeList> lists_;
  std::shared_ptr<SettingsObserver> observer_;
  std::error_code added_;
};

// Where an observer's `heard` differs from `expected` (paths, kinds and
// values, in order); empty when it does not.
inline std::string ChangeListDifference(const IObserver::ChangeList& heard,
                                        const IObserver::ChangeList& expected) {
  if (heard.size() != expected.size()) {
    return std::to_string(heard.size()) + " changes, not " + std::to_string(expected.size());
  }
  for (size_t i = 0; i < expected.size(); ++i) {
    const auto& [path, type, value] = heard[i];
    const auto& [wantedPath, wantedType, wantedValue] = expected[i];
    const bool sameValue = value ? wantedValue && *value == *wantedValue : !wantedValue;
    if (path != wantedPath || type != wantedType || !sameValue) {
      return "change " + std::to_string(i) + " at " + path + " is not the one expected at " +
             wantedPath;
    }
  }
  return "";
}

// Applies the change lists in order to `tree` (changed in place), the way an
// observer that kept its own copy would. A change that is already in the tree
// is harmless.
inline void Replay(const std::shared_ptr<IHash>& tree,
                   const std::vector<IObserver::ChangeList>& lists) {
  for (const auto& list : lists) {
    for (const auto& [path, type, value] : list) {
      if (type == IObserver::Deleted) {
        (void)KeyPath::Remove(tree, path);
      } else {
        std::shared_ptr<IValue> copy;
        if (value && value->Clone(copy) == kSuccess) (void)KeyPath::Store(tree, path, copy);
      }
    }
  }
}

}  // namespace QelSS::testing
