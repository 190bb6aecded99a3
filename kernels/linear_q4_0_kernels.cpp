// Four bits and a scale.

#include "formats/q4_0.h"
#include "linear_forward.h"

namespace tolvane {

template struct linear_launchers<q4_0>;

}  // namespace tolvane
