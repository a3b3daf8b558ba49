#pragma once

#include <chrono>
#include <cstdint>
#include <functional>
#include <memory>
#include <string>
#include <system_error>

#include "domain/DomainSetting.h"
#include "platform/support/Mutex.h"
#include "qelss/ipc/Connection.h"
#include "qelss/platform/Dispatch.h"

namespace QelSS {

// A domain kept by the settings service. This process holds a full copy of
// the stored root, fetched when the domain opens; its own commits go to the
// service and change the copy only once the service has accepted them; the
// commits of other clients arrive as pushed messages and are applied as they
// come, telling the observers. When the copy can no longer be trusted (a push
// it cannot apply) it is fetched again whole.
//
// When the service goes away (restart, upgrade, or it cut this client off),
// the domain connects again after a back-off that doubles from kFirstRetry to
// kLongestRetry and fetches again; the observers are told the differences
// between the old copy and the new one, so none misses a change. Commits made
// while the service is away fail with kConnectionError.
//
// Queues: callers' threads; the connection's serial queue (replies, pushed
// messages, loss of the service); the domain queue, the only place the state
// and the copy are touched; and a queue of its own on which reconnecting runs,
// because it shuts the old connection down, which waits for the connection's
// queue, whose handlers in turn enter the domain queue.
class RemoteDomainSetting final : public DomainSetting {
 public:
  enum State : uint32_t {
    kNew = 0,     // nothing fetched yet: pushes are dropped
    kReady = 1,   // the copy is installed: pushes are applied
    kStale = 2,   // a push could not be applied, or the service went away:
                  // pushes are dropped until a fetch succeeds
    kClosed = 3,  // destruction began: replies and pushes do nothing
  };

  static constexpr std::chrono::milliseconds kFirstRetry{50};
  static constexpr std::chrono::milliseconds kLongestRetry{2000};

  // Throws QelSharedSettingsException: "RemoteDomainSetting: Failed to init"
  // with the connection's code when it cannot be made, "RemoteDomainSetting:
  // Failed to init group" (kAllocationFailed) without the fetch group.
  RemoteDomainSetting(const std::string& name, bool create, const std::string& client);
  ~RemoteDomainSetting() override;
  RemoteDomainSetting(const RemoteDomainSetting&) = delete;
  RemoteDomainSetting& operator=(const RemoteDomainSetting&) = delete;

  // Connects and fetches the stored root. kInvalidArgument, without calling
  // anything, for an empty `done`; otherwise kSuccess, and `done` gets the
  // outcome on the connection's queue: kSuccess once the copy is installed,
  // the transport's code (kConnectionError when the service is not running),
  // the service's answer, or kInvalidData for a reply without a stored root.
  [[nodiscard]] std::error_code FetchSettings(std::function<void(std::error_code)> done) override;

  // Sends the transaction to the service; `done` is called exactly once:
  //   kInvalidArgument / kInvalidData   not a transaction of this library
  //   kSuccess at once                  no changes: nothing is sent
  //   the local validity test's code    refused before sending
  //   the transport's or the service's code   refused; the copy is unchanged
  //   kSuccess on the connection's queue      accepted and applied to the copy
  //                                           (this domain's observers are
  //                                           not told of its own commit)
  [[nodiscard]] std::error_code CommitTransaction(
      const std::shared_ptr<ITransaction>& transaction,
      std::function<void(std::error_code)> done) override;

  // The handler of the service's pushed messages (registered with the
  // connection after each successful fetch): the message is applied on the
  // domain queue when the copy is ready and the record fits it; a record that
  // does not fit makes the copy stale and starts a fetch.
  void OnPushedMessage(const std::shared_ptr<IHash>& message);

  State CurrentState();
  // Waits until no fetch and no pushed message is under way, at most
  // `timeout`; false when the time ran out.
  bool WaitUntilSettled(std::chrono::milliseconds timeout);

 private:
  using Done = std::function<void(std::error_code)>;
  class GroupRef;

  std::shared_ptr<IConnection> CurrentConnection() QELSS_EXCLUDES(connectionMutex_);
  // Starts `connection` and watches for its loss: kSuccess, or the code of
  // the part that failed.
  std::error_code StartConnection(const std::shared_ptr<IConnection>& connection);
  void Fetch(const std::shared_ptr<IConnection>& connection, Done done);
  std::error_code InstallFetched(const std::shared_ptr<IHash>& reply);
  void ApplyPushed(const std::shared_ptr<IHash>& message);
  // On the domain queue: the copy is stale; fetch it again whole.
  void Refetch();
  // What a fetch that must not leave the copy stale calls when done.
  Done RetryUnlessFetched();
  void OnConnectionLost(const std::shared_ptr<IConnection>& lost);
  // On the domain queue: a new connection after the current back-off.
  void ScheduleReconnect();
  void Reconnect();
  void SetMessageHandler(const std::shared_ptr<IConnection>& connection, bool deliver);

  // Constant after construction.
  const std::string client_;
  dispatch_group_t fetchGroup_ = nullptr;
  std::shared_ptr<DispatchQueue::IQueue> reconnectQueue_;
  dispatch_source_t retryTimer_ = nullptr;

  platform::Mutex connectionMutex_;
  std::shared_ptr<IConnection> connection_ QELSS_GUARDED_BY(connectionMutex_);

  // On the domain queue only.
  State state_ = kNew;
  bool reconnectPending_ = false;
  std::chrono::milliseconds nextRetry_ = kFirstRetry;
};

// A RemoteDomainSetting as the domain factory wants it: its constructor's
// exceptions pass through.
std::shared_ptr<DomainSetting> MakeRemoteDomain(const std::string& name, bool create,
                                                const std::string& client);

}  // namespace QelSS
