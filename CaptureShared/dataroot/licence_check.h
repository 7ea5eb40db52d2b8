#pragma once

namespace aimwise::LicenceCheck {

// The check that binds a build to one machine runs here, first thing, and may end the process.
// Builds for this platform carry no such lock, so it is a no-op hook kept at its place in start-up.
void run();

}  // namespace aimwise::LicenceCheck
