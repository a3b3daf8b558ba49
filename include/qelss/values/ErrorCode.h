#pragma once

// The result codes belong to the platform layer, under everything else; this
// name stays for applications that include them with the value types.
#include "qelss/platform/ErrorCode.h"
