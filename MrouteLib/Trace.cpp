#include "MrouteLib/Trace.h"

namespace MrouteLib {

Kiv::TraceHandle& trace() {
  static Kiv::TraceHandle handle("MrouteLib");
  return handle;
}

}  // namespace MrouteLib
