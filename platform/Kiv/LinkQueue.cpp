#include "Kiv/LinkQueue.h"

#include "Kiv/Exception.h"

namespace Kiv {

void linkQueueIndexSpaceFull() { throw RangeException("linkqueue index space full"); }

std::ostream& operator<<(std::ostream& os, LinkQueueMetadata const& m) {
  return os << "Value('Kiv::LinkQueueMetadata', ** {'headIndex': " << m.headIndex << ", 'nextIndex': " << m.nextIndex
            << ", 'modCount': " << m.modCount << ", 'entries': " << m.entries << "})";
}

}  // namespace Kiv
