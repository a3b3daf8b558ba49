#pragma once

#include <functional>
#include <memory>
#include <mutex>
#include <string>
#include <system_error>

#include "qelss/Export.h"
#include "qelss/api/IQSSDomain.h"
#include "qelss/api/Settings.h"
#include "qelss/domain/IDomainSetting.h"
#include "qelss/domain/ITransaction.h"

namespace QelSS {

struct QSSDomainAccess;

// The domain facade applications use: opens one domain through the domain
// factory and keeps it, with at most one current transaction. See IQSSDomain
// for the operations and their thread safety.
//
//   std::shared_ptr<QelSS::QSSDomain> prefs;
//   auto rc = QelSS::QSSDomain::Create(prefs, "player", "com.example.player",
//                                      "/var/tmp/player", true);
//   if (QelSS::Succeeded(rc)) rc = prefs->SetCommit("/volume", 11LL);
//
// Releasing the last reference releases the domain; a local domain then saves
// what is still unsaved before it goes.
class QELSS_EXPORT QSSDomain final : public IQSSDomain {
 public:
  // Opens domain `name` and waits, at most 30 seconds, until it is loaded. A
  // missing domain starts empty.
  //
  // `identity` names the calling application to the settings service.
  // useFolder true: the domain lives in this process, its file in `folder`;
  // missing levels of `folder` are created with mode 0770 and group 0, or 0700
  // by a process that may not give group 0 ("/" and " " both separate levels). useFolder false: the settings service keeps the domain
  // and `folder` is not used.
  //
  // `domain` receives a facade even when the opening fails; that facade then
  // answers every operation with kDomainNotOpen. Results:
  //   kSuccess            opened
  //   kAllocationFailed   no domain factory (its self-test failed)
  //   kDirectoryError     a level of `folder` cannot be created or is a file
  //   kInvalidArgument    a null or empty name, a name longer than 230 bytes,
  //                       a null folder with useFolder true
  //   kTimeout            the domain was not loaded within 30 seconds
  //   kFailure            an exception while constructing (reported)
  //   other               the failure of loading the domain (unreadable file,
  //                       no settings service, ...)
  [[nodiscard]] static std::error_code Create(std::shared_ptr<QSSDomain>& domain, const char* name,
                                              const char* identity, const char* folder,
                                              bool useFolder);

  // As above for configuration `configuration` of domain `name`, kept under
  // the identifier Settings::DomainIdForDomain makes. When that identifier
  // cannot be made, the failure is reported and returned and `domain` is left
  // untouched.
  [[nodiscard]] static std::error_code Create(std::shared_ptr<QSSDomain>& domain, const char* name,
                                              const char* identity, const char* folder,
                                              unsigned int configuration, bool useFolder);

  // Whether local domain `name` has a file in `folder`, without opening or
  // creating it (Create makes a missing domain). Looked at under the lock that
  // every process takes for a read or write of the file, so a write under way
  // elsewhere cannot hide it. kSuccess with `exists` set; kInvalidArgument for
  // a null or empty name or folder; kTimeout when another process held the
  // file for over ten seconds.
  [[nodiscard]] static std::error_code LocalDomainExists(const char* name, const char* folder,
                                                         bool& exists);

  [[nodiscard]] std::error_code Delete(const char* key) override;
  [[nodiscard]] std::error_code DeleteAndCommit(const char* key) override;
  [[nodiscard]] std::error_code CreateTransaction() override;
  [[nodiscard]] std::error_code CommitTransaction() override;
  [[nodiscard]] std::error_code CommitTransaction(
      std::function<void(std::error_code)> done) override;
  [[nodiscard]] std::error_code AddObserver(dispatch_queue_t queue,
                                            const std::shared_ptr<IObserver>& observer) override;
  [[nodiscard]] std::error_code RemoveObserver(const std::shared_ptr<IObserver>& observer) override;
  [[nodiscard]] std::error_code PerformBlock(std::function<void()> block) override;

  // A deep copy of the domain's whole committed settings tree: every key
  // path's value, as a reader would see it now. Tools that list or export a
  // domain need it; an application reads its keys with Get. Takes no facade
  // lock. On success `settings` is replaced; on failure it is untouched:
  //   kDomainNotOpen     opening the domain failed
  //   kNotImplemented    the domain cannot be copied
  //   other              the failure of the copy (kAllocationFailed, ...)
  [[nodiscard]] std::error_code CopySettings(std::shared_ptr<IHash>& settings) const;

  // Writes a local domain's committed changes to its file now rather than
  // after the quiet period or at exit, waiting at most `waitSeconds`: for
  // callers, such as command-line tools, that must report whether a change
  // reached the disk. Thread-safe; never call it from a block the domain runs.
  //   kSuccess           written, or nothing was waiting to be written; also
  //                      for a domain the settings service keeps
  //   kDomainNotOpen     opening the domain failed
  //   kTimeout           the write did not end in time; it still lands later
  //   other              the write's failure (kFileWriteError, ...); the
  //                      changes stay pending and are written again later
  [[nodiscard]] std::error_code Save(unsigned waitSeconds = 20) const;

  // When opening found a local domain's file damaged and loaded its backup
  // copy instead, the damaged file was first kept beside it as
  // "<file>.damaged-<UTC time>" (it may hold newer settings than the backup):
  // `path` receives where, so that a tool can tell its user. It is set empty
  // when the domain was loaded from its own file or is kept by the settings
  // service. kSuccess, or kDomainNotOpen when opening failed.
  [[nodiscard]] std::error_code DamagedFileKept(std::string& path) const;

  struct ConstructionKey {
    explicit ConstructionKey() = default;
  };
  explicit QSSDomain(ConstructionKey);
  ~QSSDomain() override;

 protected:
  [[nodiscard]] std::error_code ReadValue(const char* key,
                                          std::shared_ptr<IValue>& value) const override;
  [[nodiscard]] std::error_code WriteValue(const char* key, MakeValue make) override;
  [[nodiscard]] std::error_code WriteValueAndCommit(const char* key, MakeValue make) override;

 private:
  friend struct QSSDomainAccess;
  struct TransactionSlot;

  std::shared_ptr<ITransaction> CurrentTransaction() const;
  [[nodiscard]] std::error_code CommitAndWait();

  // Constant once Create hands the facade out; null when opening failed.
  std::shared_ptr<IDomainSetting> domain_;

  // The current transaction. It has its own small lock because an
  // asynchronous commit's completion clears it without the facade mutex;
  // shared so that such a completion outlives the facade safely.
  std::shared_ptr<TransactionSlot> transaction_;

  // Serialises writes, commits and blocks; recursive so that a block or a
  // compound operation may call the facade again on the same thread.
  std::recursive_mutex mutex_;
};

}  // namespace QelSS
