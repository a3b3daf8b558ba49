#pragma once

#include <string>
#include <string_view>
#include <system_error>

#include "qelss/platform/xpc.h"

namespace QelSS {

// Reads an XML property list into platform objects. Grammar (white space
// between elements is ignored; comments and processing instructions are
// skipped; a document type declaration is allowed but never loaded):
//
//   document := <plist> value </plist>
//   value    := <dict> (<key>text</key> value)* </dict>
//             | <array> value* </array>
//             | <string>text</string>      string
//             | <integer>text</integer>    decimal; int64, or uint64 above the
//                                          int64 range
//             | <real>text</real>          double
//             | <true/> | <false/>         bool
//             | <data>base64</data>        data (white space in the text skipped)
//             | <date>YYYY-MM-DDTHH:MM:SSZ</date>   date, UTC
//
// Input is untrusted: at most 8 MiB of text and 64 levels of nesting;
// entities other than the predefined ones, external resources and anything
// outside the grammar are refused with kInvalidData. `out` receives a new
// reference owned by the caller, only on success.
std::error_code ParsePropertyList(std::string_view text, xpc_object_t& out);

// Reads the property list in the file at `path`, which must hold a
// dictionary. kNotFound for a missing file, kFileReadError for an unreadable
// or too large one, kInvalidData for any other content.
std::error_code ReadPropertyListDictionary(const std::string& path, xpc_object_t& out);

}  // namespace QelSS
