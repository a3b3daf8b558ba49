#include "persistence/ByteFormNames.h"

#include <cstring>
#include <functional>
#include <map>
#include <stdexcept>
#include <string>

#include "qelss/values/IValue.h"

namespace QelSS::byteform {
namespace {

// Built on first use rather than at load, so that a static initialiser elsewhere
// that serialises a value can never see them half made; and never destroyed,
// because a domain's last save may still run on another thread while exit
// destroys the statics made after it began.
const std::map<uint32_t, std::string>& NamesByType() {
  static const auto* names = new std::map<uint32_t, std::string>{
      {kValueTypeNull, "NULL"},   {kValueTypeNumber, "Number"}, {kValueTypeString, "String"},
      {kValueTypeData, "Data"},   {kValueTypeDate, "Date"},     {kValueTypeUUID, "UUID"},
      {kValueTypeArray, "Array"}, {kValueTypeHash, "Hash"},
  };
  return *names;
}

const std::map<std::string, uint32_t, std::less<>>& TypesByName() {
  static const auto* types = [] {
    auto* inverse = new std::map<std::string, uint32_t, std::less<>>;
    for (const auto& [type, name] : NamesByType()) inverse->emplace(name, type);
    return inverse;
  }();
  return *types;
}

[[noreturn]] void ThrowKeyNotFound() { throw std::out_of_range("map::at:  key not found"); }

}  // namespace

const char* ElementNameOfType(uint32_t type) {
  const auto& names = NamesByType();
  auto found = names.find(type);
  if (found == names.end()) ThrowKeyNotFound();
  return found->second.c_str();
}

uint32_t TypeOfElementName(std::string_view name) {
  const auto& types = TypesByName();
  auto found = types.find(name);
  if (found == types.end()) ThrowKeyNotFound();
  return found->second;
}

bool IsContainerName(const char* name) noexcept {
  return std::strcmp(name, "Array") == 0 || std::strcmp(name, "Hash") == 0;
}

}  // namespace QelSS::byteform
