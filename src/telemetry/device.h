// The machine that the library runs on.
#pragma once

#include "telemetry/json_writer.h"

namespace zorv::telemetry {

/// Appends an object: processor, cores, instruction sets, memory, kernel, versions. Asks the
/// processor and the kernel directly: no file is opened. Nothing in it identifies a user, a host
/// or a path.
void writeDevice(JsonWriter& json);

}  // namespace zorv::telemetry
