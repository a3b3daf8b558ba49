#pragma once

#include <map>
#include <string>
#include <string_view>
#include <system_error>

namespace QelSS {

// A localisation table: key -> localised text.
using StringsTable = std::map<std::string, std::string>;

// Parses the text of a ".strings" table. Grammar (white space and comments,
// "/* ... */" and "// ..." to the end of the line, may stand between tokens):
//
//   table  := entry*
//   entry  := string ( "=" string )? ";"      a lone key maps to itself
//   string := '"' ( char | escape )* '"'  |  bare
//   bare   := [A-Za-z0-9_.:$/-]+
//   escape := \n \t \r \" \' \\ \a \b \f \v  |  \ followed by 1 to 3 octal
//             digits  |  \U or \u and 4 hex digits (a UTF-16 unit; a surrogate
//             pair makes one character)  |  \ and any other character (that
//             character)
//
// The text is UTF-8 (an initial byte-order mark is skipped) or UTF-16 with a
// byte-order mark; anything else gives kInvalidData. A later entry for a key
// replaces an earlier one. kInvalidData on a syntax error, with `table`
// untouched.
std::error_code ParseStringsTable(std::string_view text, StringsTable& table);

// Reads and parses the table at `path` (at most 1 MiB). kNotFound when there
// is no such file; kFileReadError when it cannot be read; kInvalidData as above.
std::error_code ReadStringsTable(const std::string& path, StringsTable& table);

}  // namespace QelSS
