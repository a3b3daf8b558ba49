#pragma once

// Constant tables of the on-disk formats. They were drawn once from a secure
// random generator and are part of the file formats from then on:
//   - changing kHostKeyMask makes every existing host key file unreadable;
//   - changing kKeySaltTable makes every machine derive a different file key,
//     orphaning every existing domain file;
//   - changing either IV table orphans every existing domain file.
// Never edit them; a format that needs other values needs a new file name.

#include <array>
#include <cstdint>

namespace QelSS {

// XOR-ed over the host key file's blob, byte i with entry i mod 256.
extern const std::array<uint8_t, 256> kHostKeyMask;
// Its SHA-256 is the PBKDF2 salt of the file key.
extern const std::array<uint8_t, 256> kKeySaltTable;
// The two halves from which the envelope's fixed IV is built.
extern const std::array<uint8_t, 16> kEnvelopeIvTableA;
extern const std::array<uint8_t, 16> kEnvelopeIvTableB;

}  // namespace QelSS
