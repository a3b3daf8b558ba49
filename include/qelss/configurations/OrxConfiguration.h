#pragma once

#include <memory>
#include <string>
#include <system_error>

#include "qelss/Export.h"
#include "qelss/values/IHash.h"
#include "qelss/values/IValue.h"

namespace QelSS {

// One configuration: its number, an optional display name, and the identifier
// of the bundle whose "Configurations" localisation table names it when it has
// no name of its own. Kept as a hash:
//   "ID"            int64 number (the configuration number)
//   "Name"          String, may be absent (predefined configurations)
//   "BundleIDKey"   String
//
// Not synchronised beyond its hash: share a record between threads only for
// reading. Failures are reported (component "scfg") and returned.
class QELSS_EXPORT OrxConfiguration {
 public:
  // A record with all three keys. Throws QelSharedSettingsException ("Construction
  // of OrxConfiguration object failed") when the hash cannot be made.
  OrxConfiguration(unsigned int id, const std::string& name, const std::string& bundleIdentifier);

  // An empty record, to be filled by TakeConfiguration.
  OrxConfiguration();
  ~OrxConfiguration();

  // The configuration number (the low 32 bits of "ID").
  [[nodiscard]] std::error_code getID(unsigned int& id) const;

  // "Name" when present; otherwise the entry for the decimal number in the
  // "Configurations" table of the bundle named by "BundleIDKey", in the
  // user's language. kNotFound when the bundle or the entry is missing.
  [[nodiscard]] std::error_code getName(std::string& name) const;

  // Takes over a configuration hash read from a domain (a copy of `value`,
  // which must be a hash) and stamps it with `bundleIdentifier`. kInvalidData
  // when `value` is not a hash; the record is unchanged on failure.
  [[nodiscard]] std::error_code TakeConfiguration(const std::shared_ptr<IValue>& value,
                                                  const std::string& bundleIdentifier);

  // The record's hash, shared.
  std::shared_ptr<IHash> GetHash() const { return hash_; }

 private:
  std::shared_ptr<IHash> hash_;
};

}  // namespace QelSS
