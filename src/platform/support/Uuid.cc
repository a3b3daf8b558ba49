#include "platform/support/Uuid.h"

#include <uuid/uuid.h>

#include <cstring>

namespace QelSS::platform {
namespace {

constexpr size_t kTextLength = 36;

}  // namespace

UuidBytes NewRandomUuid() {
  uuid_t uuid;
  uuid_generate_random(uuid);
  UuidBytes bytes;
  std::memcpy(bytes.data(), uuid, bytes.size());
  return bytes;
}

std::string UuidToString(const uint8_t (&bytes)[16]) {
  char text[kTextLength + 1];
  uuid_unparse_upper(bytes, text);
  return std::string(text, kTextLength);
}

std::string UuidToString(const UuidBytes& bytes) {
  char text[kTextLength + 1];
  uuid_unparse_upper(bytes.data(), text);
  return std::string(text, kTextLength);
}

bool ParseUuid(std::string_view text, UuidBytes& out) {
  // uuid_parse wants a terminated string and would read past a shorter view.
  if (text.size() != kTextLength) return false;
  char terminated[kTextLength + 1];
  std::memcpy(terminated, text.data(), kTextLength);
  terminated[kTextLength] = '\0';
  uuid_t uuid;
  if (uuid_parse(terminated, uuid) != 0) return false;
  std::memcpy(out.data(), uuid, out.size());
  return true;
}

}  // namespace QelSS::platform
