#include "common/model_registry.h"

#include <sys/stat.h>

#include <cstdlib>
#include <filesystem>
#include <map>
#include <optional>
#include <tuple>
#include <utility>

#include "common/mutex.h"

namespace zorv {
namespace {

struct FileIdentity {
    dev_t device;
    ino_t inode;
    off_t size;
    time_t seconds;
    long nanoseconds;
    dev_t folderDevice;
    ino_t folderInode;
    auto operator<=>(const FileIdentity&) const = default;
};

/// None when the file cannot be looked at.
std::optional<FileIdentity> identify(const std::string& path) {
    struct stat file {};
    struct stat folder {};
    const std::string parent = std::filesystem::path(path).parent_path().string();
    if (::stat(path.c_str(), &file) != 0 ||
        ::stat(parent.empty() ? "." : parent.c_str(), &folder) != 0) {
        return std::nullopt;
    }
    return FileIdentity{file.st_dev,          file.st_ino,   file.st_size, file.st_mtim.tv_sec,
                        file.st_mtim.tv_nsec, folder.st_dev, folder.st_ino};
}

class Registry {
  public:
    using Open = std::function<std::shared_ptr<const Model>()>;
    using Key = std::pair<FileIdentity, std::string>;

    std::shared_ptr<const Model> get(const std::string& path, const Key& key, const Open& open)
        ZORV_EXCLUDES(mutex_) {
        if (auto model = findOrClaim(key)) return model;
        std::shared_ptr<const Model> model;
        try {
            model = open();
        } catch (...) {
            settle(key, nullptr);
            throw;
        }
        // A file that changed meanwhile: nobody knows which of the two this model is.
        const bool same = identify(path) == key.first;
        settle(key, same ? model : nullptr);
        return model;
    }

  private:
    struct Entry {
        std::weak_ptr<const Model> model;
        bool opening = false;
    };

    /// The model, or null: then the caller opens it and settles the entry.
    std::shared_ptr<const Model> findOrClaim(const Key& key) ZORV_EXCLUDES(mutex_) {
        const MutexLock lock(mutex_);
        std::erase_if(entries_, [](const auto& entry) {
            return !entry.second.opening && entry.second.model.expired();
        });
        while (true) {
            Entry& entry = entries_[key];
            if (auto model = entry.model.lock()) return model;
            if (!entry.opening) {
                entry.opening = true;
                return nullptr;
            }
            settled_.wait(mutex_);
        }
    }

    void settle(const Key& key, const std::shared_ptr<const Model>& model) ZORV_EXCLUDES(mutex_) {
        const MutexLock lock(mutex_);
        if (model) {
            entries_[key] = {model, false};
        } else {
            entries_.erase(key);
        }
        settled_.notifyAll();
    }

    Mutex mutex_;
    CondVar settled_;
    std::map<Key, Entry> entries_ ZORV_GUARDED_BY(mutex_);
};

bool sharingIsOff() {
    const char* value = std::getenv("ZORV_SHARE");
    return value && value[0] == '0';
}

}  // namespace

std::shared_ptr<const Model> sharedModel(
    const std::string& path, const std::string& recipe,
    const std::function<std::shared_ptr<const Model>()>& open) {
    const std::optional<FileIdentity> identity = identify(path);
    if (!identity || sharingIsOff()) return open();
    // Never freed: models may be opened by whatever runs at exit.
    static Registry& registry = *new Registry;
    return registry.get(path, {*identity, recipe}, open);
}

}  // namespace zorv
