// Models that are open in this process, so that equal ones are opened once.
#pragma once

#include <functional>
#include <memory>
#include <string>

#include "common/model.h"

namespace zorv {

/// The model of the file at `path`, opened as `recipe` says: one that another user still holds, or
/// what `open` returns. `recipe` names everything but the file that shapes a session. A file is
/// known by device, inode, size, time of change and the folder that it is reached through (its
/// weights may lie beside it); weights in files of their own are not looked at. Models are freed
/// with their last user. Throws what `open` throws; the next caller tries again. A caller waits
/// only for the model that it asks for. With `ZORV_SHARE` starting with '0' every call opens. Any
/// thread.
std::shared_ptr<const Model> sharedModel(const std::string& path, const std::string& recipe,
                                         const std::function<std::shared_ptr<const Model>()>& open);

}  // namespace zorv
