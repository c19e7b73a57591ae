// The TSM client API, the one place that includes its headers (in the order that they need).
#ifndef UTIL_DSMAPI_H
#define UTIL_DSMAPI_H

// clang-format off
#include "dsmapitd.h"
#include "dsmapifp.h"
#include "dsmrc.h"
// clang-format on

#endif
