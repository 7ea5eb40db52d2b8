#pragma once
// Which local classifier model a machine of a given memory size should start with.
#include <cstdint>
#include <optional>
#include <string>

namespace aimwise::ModelProvisioning {

// The classifier shares the machine with the person's own work, so the model must leave most of
// the memory free. The 12B model (4-bit, about 8 GB resident with its context) needs 16 GiB; the
// 4B model (about 3.5 GB) needs 8 GiB; below that there is no sensible local model and the answer
// is none, so no model is written into a new install's settings.
//
//   physical memory   model
//   >= 15 GiB         gemma4:12b-it-qat   (a "16 GB" machine)
//   >=  7 GiB         gemma4:4b-it-qat    (an "8 GB" machine)
//   <   7 GiB         none
std::optional<std::string> recommendedDefaultModel(uint64_t physicalMemoryBytes);

// The installed memory of this machine, 0 when unknown.
uint64_t physicalMemoryBytes();

}  // namespace aimwise::ModelProvisioning
