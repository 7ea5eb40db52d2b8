#include "CaptureShared/dataroot/licence_check.h"

namespace aimwise::LicenceCheck {

void run() {}

}  // namespace aimwise::LicenceCheck
