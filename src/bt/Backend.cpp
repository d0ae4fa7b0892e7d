#include "bt/Backend.h"

namespace plenk::bt {

Backend::~Backend() = default;

}  // namespace plenk::bt
