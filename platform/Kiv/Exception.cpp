#include "Kiv/Exception.h"

#include <cstring>

namespace Kiv {

ErrnoException::ErrnoException(std::string const& call, int error)
    : Exception(call + ": " + std::strerror(error)), call_(call), error_(error) {}

}  // namespace Kiv
