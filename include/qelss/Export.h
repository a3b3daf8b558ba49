#pragma once

// libqelss is built with hidden visibility: only what is marked here is exported.
#define QELSS_EXPORT __attribute__((visibility("default")))
