#pragma once
// Defined in a file that CMake writes from agents/systemd at configure time.
#include "agents/services/user_services.h"
