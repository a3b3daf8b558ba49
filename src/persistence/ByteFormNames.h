#pragma once

// The element names of the byte form and the value tags they stand for. The
// lookups are checked: an unknown tag or name throws std::out_of_range with the
// text "map::at:  key not found", which the byte-form functions catch and
// report like any other exception.

#include <cstdint>
#include <string_view>

namespace QelSS::byteform {

// "NULL", "Number", "String", "Data", "Date", "UUID", "Array" or "Hash".
const char* ElementNameOfType(uint32_t type);

// The value tag of an element name; names are case-sensitive.
uint32_t TypeOfElementName(std::string_view name);

// True for "Array" and "Hash": elements whose content is other elements.
bool IsContainerName(const char* name) noexcept;

}  // namespace QelSS::byteform
