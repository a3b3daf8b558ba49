#include "qelss/ipc/DomainUtil.h"

#include "domain/ChangeRecord.h"
#include "domain/DomainRoot.h"
#include "domain/RecordKeys.h"
#include "qelss/values/HashFactory.h"
#include "qelss/values/INumber.h"
#include "qelss/values/NumberFactory.h"
#include "qelss/values/StringFactory.h"

namespace QelSS::DomainUtil {
namespace {

std::error_code SetEntry(IHash& hash, const char* key, const std::shared_ptr<IValue>& value) {
  std::shared_ptr<IString> keyValue;
  if (std::error_code made = StringFactory::Create(keyValue, key); made != kSuccess) return made;
  return hash.Set(keyValue, value);
}

std::error_code SetString(IHash& hash, const char* key, const std::string& text) {
  std::shared_ptr<IString> value;
  if (std::error_code made = StringFactory::Create(value, text); made != kSuccess) return made;
  return SetEntry(hash, key, value);
}

std::error_code SetInteger(IHash& hash, const char* key, int64_t number) {
  std::shared_ptr<INumber> value;
  if (std::error_code made = NumberFactory::Create(value, static_cast<long long>(number));
      made != kSuccess) {
    return made;
  }
  return SetEntry(hash, key, value);
}

// The value under `key` as an interface I, or null when absent or of another
// type; only a failing lookup is an error.
template <typename I>
std::error_code Find(const IHash& hash, const char* key, std::shared_ptr<I>& out) {
  std::shared_ptr<IValue> value;
  if (std::error_code found = DomainRoot::LookUp(hash, key, value); found != kSuccess) {
    return found;
  }
  out = std::dynamic_pointer_cast<I>(value);
  return kSuccess;
}

bool ReadInt64(const std::shared_ptr<INumber>& number, int64_t& out) {
  return number && number->GetInt64(out) == kSuccess;
}

// A create flag written by another program may be of any number kind.
bool IsNonZero(const INumber& number) {
  int64_t signedValue = 0;
  uint64_t unsignedValue = 0;
  bool flag = false;
  double real = 0;
  if (number.GetInt64(signedValue) == kSuccess) return signedValue != 0;
  if (number.GetUInt64(unsignedValue) == kSuccess) return unsignedValue != 0;
  if (number.GetBool(flag) == kSuccess) return flag;
  return number.GetDouble(real) == kSuccess && real != 0;
}

}  // namespace

std::error_code CreateCommand(const std::string& domainName, const std::string& client,
                              int64_t commandCode, bool create, std::shared_ptr<IHash>& command) {
  if (std::error_code made = HashFactory::Create(command); made != kSuccess) return made;
  if (std::error_code set = SetInteger(*command, RecordKeys::kCommand, commandCode);
      set != kSuccess) {
    return set;
  }
  if (std::error_code set = SetString(*command, RecordKeys::kDomainName, domainName);
      set != kSuccess) {
    return set;
  }
  if (std::error_code set = SetString(*command, RecordKeys::kClient, client); set != kSuccess) {
    return set;
  }
  return SetInteger(*command, RecordKeys::kCreate, create ? 1 : 0);
}

std::error_code GetResponseStatus(const std::shared_ptr<IHash>& response) {
  if (!response) return kInvalidArgument;
  std::shared_ptr<INumber> number;
  if (std::error_code found = Find(*response, RecordKeys::kResponse, number); found != kSuccess) {
    return found;
  }
  int64_t status = 0;
  if (!ReadInt64(number, status)) return kInvalidResponse;
  // Only the number travels; the code is rebuilt in this library's category.
  return {static_cast<int32_t>(status), qelss_category()};
}

std::error_code CreateResponse(std::error_code status, std::shared_ptr<IHash>& response) {
  std::shared_ptr<IHash> built;
  if (std::error_code made = HashFactory::Create(built); made != kSuccess) return made;
  if (std::error_code set = SetInteger(*built, RecordKeys::kResponse, status.value());
      set != kSuccess) {
    return set;
  }
  response = std::move(built);
  return kSuccess;
}

std::error_code GetCommand(const std::shared_ptr<IHash>& command, int64_t& commandCode) {
  if (!command) return kInvalidArgument;
  std::shared_ptr<INumber> number;
  if (std::error_code found = Find(*command, RecordKeys::kCommand, number); found != kSuccess) {
    return found;
  }
  int64_t code = 0;
  if (!ReadInt64(number, code)) return kInvalidCommand;
  commandCode = code;
  return kSuccess;
}

std::error_code GetCommandInfo(const std::shared_ptr<IHash>& command, std::string& domainName,
                               std::string& client, bool& create) {
  if (!command) return kInvalidArgument;
  std::shared_ptr<IString> text;
  if (std::error_code found = Find(*command, RecordKeys::kDomainName, text); found != kSuccess) {
    return found;
  }
  if (!text) return kInvalidCommand;
  domainName = text->GetCString();
  if (std::error_code found = Find(*command, RecordKeys::kClient, text); found != kSuccess) {
    return found;
  }
  if (!text) return kInvalidCommand;
  client = text->GetCString();
  std::shared_ptr<INumber> flag;
  if (std::error_code found = Find(*command, RecordKeys::kCreate, flag); found != kSuccess) {
    return found;
  }
  if (!flag) return kInvalidCommand;
  create = IsNonZero(*flag);
  return kSuccess;
}

std::error_code GetTransactionInfo(const std::shared_ptr<IHash>& command,
                                   std::shared_ptr<IHash>& record) {
  if (!command) return kInvalidArgument;
  std::shared_ptr<IHash> found;
  if (std::error_code looked = Find(*command, RecordKeys::kTransaction, found);
      looked != kSuccess) {
    return looked;
  }
  if (!found) return kInvalidCommand;
  record = std::move(found);
  return kSuccess;
}

std::error_code GetTransactionChangeInfo(const std::shared_ptr<IHash>& change,
                                         std::shared_ptr<IString>& path,
                                         Constants::TransactionChangeType& type,
                                         std::shared_ptr<IValue>& value) {
  return ReadChangeRecord(change, path, type, value);
}

std::error_code CreateDomainRoot(std::shared_ptr<IHash>& root) { return DomainRoot::Create(root); }

std::error_code IncrementGenerationCount(const std::shared_ptr<IHash>& root) {
  return DomainRoot::IncrementGenerationCount(root);
}

std::error_code GetInternalSettings(const std::shared_ptr<IHash>& root,
                                    std::shared_ptr<IHash>& settings) {
  return DomainRoot::GetInternalSettings(root, settings);
}

}  // namespace QelSS::DomainUtil
