// Client-framework constants used by the network layer. They are defined once in model/Constants.h;
// until that header is part of the tree, the same values are provided here.
#pragma once

#if __has_include("model/Constants.h")
#include "model/Constants.h"
#else
namespace vorlen {
inline constexpr const char* kVORVorlendNameVersion = "Vorlend/1.0";
inline constexpr const char* kVORErrorDomain = "VORErrorDomain";
}  // namespace vorlen
#endif
