#pragma once

#include <memory>
#include <string>

#include "Status.h"
#include "qelss/values/IValue.h"

namespace QelSS::Qss {

// How `qss read` shows a value. Scalars print plainly, in the forms `qss write`
// reads back: numbers in decimal (bool as true or false), strings as they are,
// data in hexadecimal, dates in ISO 8601 UTC, UUIDs in canonical form, null as
// "null". Hashes and arrays print as their XML byte form formatted for people.
// `asByteForm` prints scalars as their byte form too, which also shows the
// kind of a number. `out` ends with a line break.
Status ValueText(const std::shared_ptr<IValue>& value, bool asByteForm, std::string& out);

// One line for a value, for listing changes: scalars as above, containers as
// their unformatted byte form. No line break.
Status ValueLine(const std::shared_ptr<IValue>& value, std::string& out);

}  // namespace QelSS::Qss
