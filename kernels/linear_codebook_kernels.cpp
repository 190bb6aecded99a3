// The formats whose codes stand for tabled values, but for nf4.

#include "formats/fp4.h"
#include "formats/nf3.h"
#include "linear_forward.h"

namespace tolvane {

template struct linear_launchers<fp4>;
template struct linear_launchers<nf3>;

}  // namespace tolvane
