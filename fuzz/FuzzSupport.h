#pragma once

// What the fuzz targets share: quiet reporting, a key home with a fixed host
// key (so that the envelopes of the starting corpus decrypt), and a
// description of value trees exact enough to compare two readers.

#include <memory>
#include <string>

#include "qelss/values/IValue.h"

namespace QelSS::fuzzing {

// Drops every failure report and trace line: the targets provoke thousands.
void SilenceReports();

// Points XDG_DATA_HOME at a new temporary folder holding a host key file with
// a fixed key, removed when the process exits. Call before the first use of
// the file key. Aborts when the folder cannot be made or the file key would
// come from somewhere else.
void UseFixedKeyHome();

// Every detail of the tree, doubles by their bits; "-" for no value.
std::string Describe(const std::shared_ptr<IValue>& value);

}  // namespace QelSS::fuzzing
