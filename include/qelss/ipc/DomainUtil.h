#pragma once

// The messages exchanged with the settings service, and the root of a
// domain's stored tree that a fetch returns. Everything outside the library
// that builds or takes apart these hashes goes through here; the library
// spells their keys in one internal list.
//
// Command (client to service; also pushed by the service for the commits of
// other clients), a Hash with, in this order:
//   "DomainCommand"             Number (int64)  0 fetch, 1 commit
//   "DomainName"                String          the domain's name
//   "DomainClient"              String          the client's identifier
//   "DomainCreate"              Number (int64)  1 to create a missing domain, else 0
//   "DomainSettingTransaction"  Hash            commit and push only: the
//                                               transaction record
// Response (service to client):
//   "DomainResponse"            Number (int64)  the service's result code
//   "DomainSettings"            Hash            fetch only: the stored root
// Stored root:
//   "QelSharedSettingsGenerationCount"  Number (int64)  the generation count
//   "DomainInternalSettings"            Hash            the settings tree
//
// Stateless functions: thread-safe as far as the hashes passed are. Results are
// codes of the library's category: kSuccess on success, and the failures of the
// value factories and hash operations are passed on unchanged. Nothing here
// logs. A null hash argument gives kInvalidArgument.

#include <cstdint>
#include <memory>
#include <string>
#include <system_error>

#include "qelss/Export.h"
#include "qelss/domain/Constants.h"
#include "qelss/values/IHash.h"
#include "qelss/values/IString.h"
#include "qelss/values/IValue.h"

namespace QelSS::DomainUtil {

inline constexpr int64_t kCommandFetch = 0;
inline constexpr int64_t kCommandCommit = 1;

// A new command hash in `command` with the four entries above. On a failure
// the partly filled hash stays in `command`.
[[nodiscard]] QELSS_EXPORT std::error_code CreateCommand(const std::string& domainName,
                                                         const std::string& client,
                                                         int64_t commandCode, bool create,
                                                         std::shared_ptr<IHash>& command);

// The code carried by a response, rebuilt in the library's category: kSuccess
// for 100, and also a code that is not one of the library's (0 among them,
// which is not success). kInvalidResponse when "DomainResponse" is missing or
// not a Number.
[[nodiscard]] QELSS_EXPORT std::error_code GetResponseStatus(
    const std::shared_ptr<IHash>& response);

// A new response hash carrying `status`'s value.
[[nodiscard]] QELSS_EXPORT std::error_code CreateResponse(std::error_code status,
                                                          std::shared_ptr<IHash>& response);

// Reads "DomainCommand". kInvalidCommand when missing or not an int64 Number.
[[nodiscard]] QELSS_EXPORT std::error_code GetCommand(const std::shared_ptr<IHash>& command,
                                                      int64_t& commandCode);

// Reads name, client and create flag (non-zero is true), in that order, each
// output written as soon as it is read. kInvalidCommand when one is missing or
// of the wrong type; the outputs read before it keep the message's values.
[[nodiscard]] QELSS_EXPORT std::error_code GetCommandInfo(const std::shared_ptr<IHash>& command,
                                                          std::string& domainName,
                                                          std::string& client, bool& create);

// `record` shares the transaction record of a commit or pushed command.
// kInvalidCommand when missing or not a Hash.
[[nodiscard]] QELSS_EXPORT std::error_code GetTransactionInfo(const std::shared_ptr<IHash>& command,
                                                              std::shared_ptr<IHash>& record);

// Reads one change record of a transaction record: "Path" (String), "Change"
// (Number) and, only for a change of type Set, "NewValue" (any value; null when
// absent; `value` is left alone for other types). kInvalidData when "Path" or
// "Change" is missing or of the wrong type; outputs read before the failure
// keep what was read.
[[nodiscard]] QELSS_EXPORT std::error_code GetTransactionChangeInfo(
    const std::shared_ptr<IHash>& change, std::shared_ptr<IString>& path,
    Constants::TransactionChangeType& type, std::shared_ptr<IValue>& value);

// A new stored root: count 0 and an empty settings tree.
[[nodiscard]] QELSS_EXPORT std::error_code CreateDomainRoot(std::shared_ptr<IHash>& root);

// Replaces the root's count with a new Number one higher. kInvalidData, root
// unchanged, when the count is missing or not an int64 Number.
[[nodiscard]] QELSS_EXPORT std::error_code IncrementGenerationCount(
    const std::shared_ptr<IHash>& root);

// `settings` shares the root's settings tree. kInvalidData when missing or not
// a Hash.
[[nodiscard]] QELSS_EXPORT std::error_code GetInternalSettings(const std::shared_ptr<IHash>& root,
                                                               std::shared_ptr<IHash>& settings);

}  // namespace QelSS::DomainUtil
