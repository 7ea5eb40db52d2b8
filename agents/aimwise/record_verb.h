#pragma once
// `aimwise record on [--fps N] [--keep-days N] | off | status`: whether the capture agent records
// the screen, kept in the recording setting (agents/capture/recording_setting.h) that the agent
// reads again within seconds, and what the recorder is doing now.
#include <string>
#include <vector>

namespace aimwise::RecordVerb {

// Returns the exit status.
int run(const std::vector<std::string>& arguments);

}  // namespace aimwise::RecordVerb
