#pragma once

// The connection to the settings service. A Connection moves Hash messages
// over one service connection: sends without a reply, sends whose reply comes
// back to a callback, and notice to its owner when the service goes away.
// ClientConnection adds delivery of the messages the service pushes unasked.
//
// Events, pushed messages and reply callbacks of one connection run on its
// serial queue "com.qelvarin.clientconnection", one at a time: a handler that
// touches its owner's state must hand the work to the owner's own queue.
// Sends may be called from any thread.

#include <functional>
#include <memory>
#include <mutex>
#include <system_error>

#include "qelss/Export.h"
#include "qelss/platform/Dispatch.h"
#include "qelss/platform/xpc_connection.h"
#include "qelss/values/IHash.h"

namespace QelSS {

class QELSS_EXPORT IConnection {
 public:
  using ReplyCallback = std::function<void(std::error_code, const std::shared_ptr<IHash>&)>;
  using MessageHandler = std::function<void(const std::shared_ptr<IHash>&)>;
  using InvalidationHandler = std::function<void(std::shared_ptr<IConnection>&)>;

  // Makes the connection's queue and starts connecting. Unlike every other
  // operation, success is an error_code of value 0 (the queue factory's
  // convention); a queue failure is returned unchanged.
  [[nodiscard]] virtual std::error_code InitConnection() = 0;
  // Silences the events, cancels the connection (awaited replies then get
  // kConnectionError), waits at most ten seconds for the queue to run what is
  // on it and lets go of the service connection. Harmless twice.
  virtual void ShutDownConnection() = 0;
  // One event of the service connection (an xpc_object_t).
  virtual void HandleEvent(void* event) = 0;
  // Sends `message` under "IPCCommand". kInvalidArgument for a null message;
  // the conversion's code when the hash has no platform form; kConnectionError
  // once the connection is shut down.
  [[nodiscard]] virtual std::error_code SendMessage(const std::shared_ptr<IHash>& message) = 0;
  // Sends `message` and later calls `callback` on the connection's queue with
  // kSuccess and the response hash, kConnectionError and null when the service
  // went away before answering, or kInvalidResponse and null for a reply
  // without "IPCResponse". kInvalidArgument for a null message or an empty
  // callback, kConnectionError once the connection is shut down; nothing is
  // sent then and the callback is not called.
  [[nodiscard]] virtual std::error_code SendMessageWithReply(const std::shared_ptr<IHash>& message,
                                                             ReplyCallback callback) = 0;
  // The handler of pushed messages; an empty one stops their delivery.
  [[nodiscard]] virtual std::error_code RegisterMessageHandler(MessageHandler handler) = 0;
  // Called with this connection when the service goes away or the connection
  // fails. kInvalidArgument for an empty handler.
  [[nodiscard]] virtual std::error_code RegisterInvalidationHandler(
      InvalidationHandler handler) = 0;
  virtual bool IsEqual(const std::shared_ptr<IConnection>& other) const = 0;
  virtual ~IConnection();
};

class QELSS_EXPORT Connection : public IConnection,
                                public std::enable_shared_from_this<Connection> {
 public:
  ~Connection() override;

  std::error_code InitConnection() override;
  void ShutDownConnection() override;
  void HandleEvent(void* event) override;
  std::error_code SendMessage(const std::shared_ptr<IHash>& message) override;
  std::error_code SendMessageWithReply(const std::shared_ptr<IHash>& message,
                                       ReplyCallback callback) override;
  std::error_code RegisterInvalidationHandler(InvalidationHandler handler) override;
  bool IsEqual(const std::shared_ptr<IConnection>& other) const override;

 protected:
  // Takes over `connection` (owned, released by ShutDownConnection).
  explicit Connection(xpc_connection_t connection);
  bool HasServiceConnection() const {
    std::lock_guard lock(linkMutex_);
    return connection_ != nullptr;
  }

 private:
  std::error_code BuildEnvelope(const std::shared_ptr<IHash>& message, xpc_object_t& envelope);
  // The service connection with a reference for the caller; null once shut
  // down.
  xpc_connection_t RetainLink() const;

  // Guards connection_, which ShutDownConnection clears while other threads
  // send.
  mutable std::mutex linkMutex_;
  xpc_connection_t connection_;
  std::shared_ptr<DispatchQueue::IQueue> queue_;
  bool resumed_ = false;

 protected:
  // Guards the handlers, which the owner sets while events run on the queue.
  mutable std::mutex handlerMutex_;

 private:
  InvalidationHandler invalidationHandler_;
};

class QELSS_EXPORT ClientConnection final : public Connection {
 public:
  inline static constexpr const char* kServiceName = "com.qelvarin.qelsharedsettings";

  // Connects (once InitConnection runs) to the settings service. Throws
  // ConnectionException (kAllocationFailed) when the service connection
  // cannot be made.
  ClientConnection();
  // A new connection in `out`; the constructor's code instead of its exception.
  [[nodiscard]] static std::error_code Create(std::shared_ptr<ClientConnection>& out);

  void HandleEvent(void* event) override;
  std::error_code RegisterMessageHandler(MessageHandler handler) override;

 private:
  MessageHandler messageHandler_;
};

}  // namespace QelSS
