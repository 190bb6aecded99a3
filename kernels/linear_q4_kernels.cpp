// The four-bit integer formats.

#include "formats/q4_0.h"
#include "formats/q4_1.h"
#include "linear_forward.h"

namespace tolvane {

template struct linear_launchers<q4_0>;
template struct linear_launchers<q4_1>;

}  // namespace tolvane
