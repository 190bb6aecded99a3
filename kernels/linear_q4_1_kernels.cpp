// Four bits with a scale and a minimum.

#include "formats/q4_1.h"
#include "linear_forward.h"

namespace tolvane {

template struct linear_launchers<q4_1>;

}  // namespace tolvane
