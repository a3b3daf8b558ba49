#pragma once

#include <memory>
#include <string>
#include <string_view>

#include "Status.h"
#include "qelss/values/IData.h"

namespace QelSS::Qss {

// Data on the command line: hexadecimal digits by default ("0aff10", also
// "hex:0aff10"), or standard base64 after the prefix "base64:". An empty text
// after either prefix is empty data. Base64 is decoded by the library's own
// byte-form reader, so it accepts exactly what a domain file may hold.
Status ParseData(std::string_view text, std::shared_ptr<IData>& out);

// Every byte as two lower-case hexadecimal digits, no separators: the form
// ParseData reads back.
std::string FormatData(const IData& data);

}  // namespace QelSS::Qss
