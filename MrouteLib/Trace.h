// The trace handle "MrouteLib" that every entity of the route model traces
// to (level 9: handlers, 8: detail).
#pragma once

#include "Kiv/Trace.h"

namespace MrouteLib {

Kiv::TraceHandle& trace();

}  // namespace MrouteLib
