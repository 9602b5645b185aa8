#include "Schema/Mfib/MfibStatus.h"

namespace Vorn::Multicast::Fib {

std::uint32_t Status::routePublish(Route r) {
  r.versionIs(route_.find(r.key()).version() + 1);
  route_.is(r);
  return r.version();
}

}  // namespace Vorn::Multicast::Fib
