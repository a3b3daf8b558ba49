#pragma once

// Every key of what the library writes to files or sends between processes:
// a domain's stored root, transaction records, their change records, and the
// messages exchanged with the settings service. Spell them only through these
// names.

namespace QelSS::RecordKeys {

// Stored root, and the record's base generation.
inline constexpr const char* kGenerationCount = "QelSharedSettingsGenerationCount";
inline constexpr const char* kInternalSettings = "DomainInternalSettings";

// Transaction record. "NewValue" holds the array of change records here and the
// value set inside a change record: both uses are part of the format.
inline constexpr const char* kDomainName = "DomainName";
inline constexpr const char* kChanges = "NewValue";

// Change record.
inline constexpr const char* kPath = "Path";
inline constexpr const char* kChange = "Change";
inline constexpr const char* kNewValue = "NewValue";

// Command to the settings service (also pushed by it), and its response. The
// command's "DomainName" is spelt like the transaction record's, by design.
inline constexpr const char* kCommand = "DomainCommand";
inline constexpr const char* kClient = "DomainClient";
inline constexpr const char* kCreate = "DomainCreate";
inline constexpr const char* kTransaction = "DomainSettingTransaction";
inline constexpr const char* kResponse = "DomainResponse";
inline constexpr const char* kSettings = "DomainSettings";

}  // namespace QelSS::RecordKeys
