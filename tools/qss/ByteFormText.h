#pragma once

#include <memory>
#include <string>
#include <string_view>

#include "Status.h"
#include "qelss/values/IValue.h"

namespace QelSS::Qss {

// The largest byte form qss reads: the size limit of a domain file.
inline constexpr size_t kMaxByteFormSize = 32000000;

// Rebuilds one value from its XML byte form, as `qss read`, `qss export` and
// IValue::Serialize write it: one element, optionally after an XML declaration
// and surrounded by blanks. `source` names where the text came from, for
// messages ("VALUE", "the file prefs.xml"). Text that is not exactly one
// well-formed value fails with the reader's code and `out` untouched.
Status ReadByteForm(std::string_view text, const std::string& source, std::shared_ptr<IValue>& out);

// The value's byte form; `formatted` re-indents it for people, one element per
// line after an XML declaration, which ReadByteForm accepts as well.
Status WriteByteForm(const IValue& value, bool formatted, std::string& out);

}  // namespace QelSS::Qss
