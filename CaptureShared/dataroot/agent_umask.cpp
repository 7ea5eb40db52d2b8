#include "CaptureShared/dataroot/agent_umask.h"

#include <sys/stat.h>

namespace aimwise::AgentUmask {

mode_t apply() { return ::umask(077); }

}  // namespace aimwise::AgentUmask
