#pragma once

// Connections to a named service, in the C-style API of the platform's
// inter-process messaging. A service name is a Unix-domain stream socket in
// the runtime folder: "/run/qelvarin" unless the environment variable
// QELSS_RUNTIME_DIR or SetServiceRuntimeDirectory names another one.
//
// A connection is made suspended and connects when resumed. Its events (the
// messages the service pushes, and XPC_ERROR_CONNECTION_INVALID once the
// service closed the socket, the connection failed or it was cancelled) run
// on its target queue, one at a time, in the order they arrived; a reply runs
// on the queue given with its message. A reply still awaited when the
// connection ends receives XPC_ERROR_CONNECTION_INVALID instead. Sends are
// thread-safe and never block on the peer. A connection that ended stays
// ended: make a new one to reconnect.

#include <cstdint>
#include <functional>
#include <string>

#include "qelss/Export.h"
#include "qelss/platform/Dispatch.h"
#include "qelss/platform/xpc.h"

struct _xpc_connection_s;
using xpc_connection_t = _xpc_connection_s*;

using xpc_handler_t = std::function<void(xpc_object_t)>;

// A system-wide service rather than one of the calling user.
inline constexpr uint64_t XPC_CONNECTION_MACH_SERVICE_PRIVILEGED = 2;

// A new suspended connection to `name`, owned by the caller; NULL for a NULL
// name or when memory runs out. `targetq` may be NULL and set later.
QELSS_EXPORT xpc_connection_t xpc_connection_create_mach_service(const char* name,
                                                                 dispatch_queue_t targetq,
                                                                 uint64_t flags) noexcept;
QELSS_EXPORT xpc_connection_t xpc_retain(xpc_connection_t connection) noexcept;
// The last release cancels the connection.
QELSS_EXPORT void xpc_release(xpc_connection_t connection) noexcept;
// Identity: a connection equals only itself.
QELSS_EXPORT bool xpc_equal(xpc_connection_t a, xpc_connection_t b) noexcept;

// The queue of events and of replies sent without one (retained). Before resume only.
QELSS_EXPORT void xpc_connection_set_target_queue(xpc_connection_t connection,
                                                  dispatch_queue_t targetq) noexcept;
// Replaces the handler; events already queued but not yet run see the new one.
QELSS_EXPORT void xpc_connection_set_event_handler(xpc_connection_t connection,
                                                   xpc_handler_t handler) noexcept;
// Starts connecting; messages sent before are delivered once connected.
QELSS_EXPORT void xpc_connection_resume(xpc_connection_t connection) noexcept;
// Ends the connection for good: the socket closes, awaited replies receive
// XPC_ERROR_CONNECTION_INVALID and so does the event handler.
QELSS_EXPORT void xpc_connection_cancel(xpc_connection_t connection) noexcept;
// Queues `message` (a dictionary) for sending. Dropped when it has no wire
// form, is too large for a frame, or the connection has ended.
QELSS_EXPORT void xpc_connection_send_message(xpc_connection_t connection,
                                              xpc_object_t message) noexcept;
// The same, and runs `handler` once on `replyq` (the target queue when NULL)
// with the reply or with XPC_ERROR_CONNECTION_INVALID.
QELSS_EXPORT void xpc_connection_send_message_with_reply(xpc_connection_t connection,
                                                         xpc_object_t message,
                                                         dispatch_queue_t replyq,
                                                         xpc_handler_t handler) noexcept;

namespace QelSS {

// The folder in which service sockets are found, before QELSS_RUNTIME_DIR and
// the default; an empty folder takes the override away again.
QELSS_EXPORT void SetServiceRuntimeDirectory(const std::string& folder);
// The socket path of service `name`.
QELSS_EXPORT std::string ServiceSocketPath(const std::string& name);

}  // namespace QelSS
