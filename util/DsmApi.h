// Includes the TSM client API's headers, in the order that they need. No other file includes them.
#pragma once

// clang-format off
#include "dsmapitd.h"
#include "dsmapifp.h"
#include "dsmrc.h"
// clang-format on
