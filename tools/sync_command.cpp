#include "commands.h"
#include "failure.h"
namespace zorv::tools {
void sync(const SyncOptions&) {
    fail("todo");
}
}  // namespace zorv::tools
