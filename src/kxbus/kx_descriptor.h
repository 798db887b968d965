// Descriptors are owned as elsewhere on the platform.
#pragma once

#include "descriptor.h"

namespace kxbus {

using os::Descriptor;

}  // namespace kxbus
