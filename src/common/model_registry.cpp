#include "common/model_registry.h"

#include <cstdlib>
#include <filesystem>
#include <tuple>

#include "common/shared_registry.h"

namespace zorv {
namespace {

/// The file, the folder that it is reached through, the recipe.
using ModelKey = std::tuple<FileIdentity, FileIdentity, std::string>;

FileIdentity folderIdentity(const std::string& path) {
    const std::string folder = std::filesystem::path(path).parent_path().string();
    FileIdentity identity = fileIdentity(folder.empty() ? "." : folder);
    // Files that come and go in it do not make it another one.
    return {.device = identity.device, .inode = identity.inode};
}

bool sharingIsOff() {
    const char* value = std::getenv("ZORV_SHARE");
    return value && value[0] == '0';
}

}  // namespace

std::shared_ptr<const Model> sharedModel(
    const std::string& path, const std::string& recipe,
    const std::function<std::shared_ptr<const Model>()>& open) {
    if (sharingIsOff()) return open();
    // Never freed: models may be opened by whatever runs at exit.
    static auto& registry = *new SharedRegistry<ModelKey, const Model>;
    return registry.get({fileIdentity(path), folderIdentity(path), recipe}, open);
}

}  // namespace zorv
