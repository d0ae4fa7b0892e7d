#pragma once

#include <PlenkKit/Uuid.h>

namespace plenk::bt {

// The port speaks of the public UUID type.
using Uuid = plenk::Uuid;

}  // namespace plenk::bt
