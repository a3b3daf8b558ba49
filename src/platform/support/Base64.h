#pragma once

// Base64 of the standard alphabet. Status 0 on success, 22 (EINVAL) on bad input,
// 12 (ENOMEM) when the result cannot be allocated. Thread-safe.

#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

// Encodes without line breaks. Returns 0, or 22 when the input is null with a
// non-zero length. `out` is replaced only on success.
int QelBase64Encode(const uint8_t* data, size_t length, std::string& out);

// Decodes, skipping white space (long values in the XML byte form carry line
// breaks). Any other character outside the alphabet, misplaced padding or a length
// that is not a whole number of quanta gives 22. Bits below the last byte of a
// padded quantum are ignored. `out` is replaced only on success.
int QelBase64Decode(const char* text, size_t length, std::vector<uint8_t>& out);
