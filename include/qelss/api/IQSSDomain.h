#pragma once

#include <functional>
#include <memory>
#include <string>
#include <system_error>
#include <vector>

#include "qelss/Export.h"
#include "qelss/domain/IObserver.h"
#include "qelss/platform/Dispatch.h"
#include "qelss/platform/FunctionRef.h"
#include "qelss/values/IArray.h"
#include "qelss/values/IData.h"
#include "qelss/values/IHash.h"
#include "qelss/values/IString.h"
#include "qelss/values/IUUID.h"
#include "qelss/values/IValue.h"
#include "qelss/values/IValueSerialize.h"
#include "qelss/values/ValueHelper.h"

namespace QelSS {

// The types the facade reads and writes, and the value each becomes:
//   bool, long long, unsigned long long, double   Number of that kind
//   long                                          Date, whole seconds since 1970
//   std::string                                   String
//   std::vector<unsigned char>                    Data
//   std::shared_ptr<IValue>                       any value, shared
//   std::shared_ptr<IString|IData|IUUID|IHash|IArray|IValueSerialize>
//                                                 that value, shared
// The conversions are ValueHelper's; kinds are never converted into each other,
// so a number written as long long cannot be read as unsigned long long. On
// this platform int64_t is `long` and therefore a date: use `long long`.
template <typename T>
concept FacadeValue =
    OneOf<T, bool, long long, long, unsigned long long, double, std::string,
          std::vector<unsigned char>, std::shared_ptr<IValue>, std::shared_ptr<IString>,
          std::shared_ptr<IData>, std::shared_ptr<IUUID>, std::shared_ptr<IHash>,
          std::shared_ptr<IArray>, std::shared_ptr<IValueSerialize>>;

// One settings domain as an application uses it: typed reads of the committed
// state, writes gathered in a current transaction, commits, observers, and a way
// to run several operations as one uninterrupted unit.
//
// Thread safety: any thread may call any operation. Writes, transaction
// operations and PerformBlock are serialised by the facade's recursive mutex,
// so a block may call the same facade again on its thread. Reads take no facade
// lock and see the domain's committed state.
//
// No operation throws: an exception inside one is reported (component "SDOM")
// and becomes kFailure, or the exception's own code for the typed operations.
//
// Every operation but PerformBlock answers kDomainNotOpen (254) when the
// facade holds no domain because opening it failed.
class QELSS_EXPORT IQSSDomain {
 public:
  virtual ~IQSSDomain();

  // Reads the committed value at `key` ("/"-separated path) into `value`.
  //   kSuccess       `value` holds it
  //   kNotFound      a level of the path is absent
  //   kInvalidData   the value is of another type (or, for a pointer type, not
  //                  of that interface); a pointer `value` is then reset
  //   kInvalidType   a number of another kind (e.g. a uint64 read as long long)
  // A plain `value` is written only on kSuccess.
  template <FacadeValue T>
  [[nodiscard]] std::error_code Get(const char* key, T& value) const;

  // Stores `value` at `key` in the current transaction; nothing is visible to
  // readers until the transaction is committed.
  //   kFailure           no current transaction (call CreateTransaction)
  //   kInvalidArgument   a null pointer value, a null key, or a key path
  //                      without components
  //   kInvalidType       a level of the path exists and is not a hash
  template <FacadeValue T>
  [[nodiscard]] std::error_code Set(const char* key, const T& value);

  // CreateTransaction, Set and the synchronous CommitTransaction as one unit
  // under the facade mutex. A transaction in progress is replaced, its changes
  // dropped. The first failure stops the sequence and is returned.
  template <FacadeValue T>
  [[nodiscard]] std::error_code SetCommit(const char* key, const T& value);

  // Removes the value at `key` in the current transaction. kFailure without a
  // current transaction; kSuccess also when nothing was there.
  [[nodiscard]] virtual std::error_code Delete(const char* key) = 0;

  // CreateTransaction, Delete and the synchronous commit as one unit.
  [[nodiscard]] virtual std::error_code DeleteAndCommit(const char* key) = 0;

  // Makes a new current transaction over the domain's present state, replacing
  // (and dropping) any current one.
  [[nodiscard]] virtual std::error_code CreateTransaction() = 0;

  // Commits the current transaction and waits for the outcome, at most 30
  // seconds, holding the facade mutex: kTimeout (497) when the domain has not
  // answered by then. kSuccess when applied; kTransactionConflict when another
  // commit changed the same paths first (re-read and try again);
  // kInvalidArgument when there is no current transaction. Once the commit has
  // started, the current transaction is cleared whatever the outcome: the next
  // Set needs a new CreateTransaction.
  [[nodiscard]] virtual std::error_code CommitTransaction() = 0;

  // Starts committing the current transaction and returns at once with the
  // result of starting it. When the result is kSuccess, `done` is called once,
  // later and on another thread, with the outcome; after `done` returns, the
  // current transaction is cleared, including one made meanwhile. `done` must
  // not block on this facade's synchronous operations.
  [[nodiscard]] virtual std::error_code CommitTransaction(
      std::function<void(std::error_code)> done) = 0;

  // Registers `observer`, held weakly, to hear of changes the domain applies
  // on behalf of other clients; it is called on `queue`, or on the domain's
  // observer queue when `queue` is null. kInvalidArgument for a null observer.
  [[nodiscard]] virtual std::error_code AddObserver(dispatch_queue_t queue,
                                                    const std::shared_ptr<IObserver>& observer) = 0;

  // Unregisters `observer`. A SettingsObserver is detached first, so that even
  // deliveries already queued forward nothing. kNotFound when it was not
  // registered.
  [[nodiscard]] virtual std::error_code RemoveObserver(
      const std::shared_ptr<IObserver>& observer) = 0;

  // Runs `block` on the calling thread holding the facade mutex: no other
  // thread's write, commit or block on this facade runs in between. The block
  // may call this facade again. kInvalidArgument for an empty block; kFailure
  // (reported) when the block throws; kSuccess otherwise.
  [[nodiscard]] virtual std::error_code PerformBlock(std::function<void()> block) = 0;

 protected:
  // Makes the value to store; its failure is returned by the write as it is.
  using MakeValue = FunctionRef<std::error_code(std::shared_ptr<IValue>&)>;

  // The value-level operations behind the typed ones.
  [[nodiscard]] virtual std::error_code ReadValue(const char* key,
                                                  std::shared_ptr<IValue>& value) const = 0;
  [[nodiscard]] virtual std::error_code WriteValue(const char* key, MakeValue make) = 0;
  [[nodiscard]] virtual std::error_code WriteValueAndCommit(const char* key, MakeValue make) = 0;
};

}  // namespace QelSS
