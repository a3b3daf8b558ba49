#pragma once

// Keys of a domain's stored root, of transaction records and of their change
// records. They are written to files and sent between processes: spell them
// only through these names.

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

}  // namespace QelSS::RecordKeys
