// Large values that are equal for all who ask with the same key, kept once per process.
#pragma once

#include <sys/stat.h>

#include <compare>
#include <cstdint>
#include <map>
#include <memory>
#include <string>
#include <utility>

#include "common/mutex.h"

namespace zorv {

/// Tells one state of a file from another without reading it.
struct FileIdentity {
    std::uint64_t device = 0;
    std::uint64_t inode = 0;
    std::int64_t size = -1;  ///< -1: no such file, or it cannot be looked at
    std::int64_t modifiedNs = 0;
    std::int64_t changedNs = 0;  ///< of the inode: tells copies that keep the time of the original
    // NOLINTNEXTLINE(modernize-use-nullptr): the check misreads a defaulted comparison
    auto operator<=>(const FileIdentity&) const = default;
};

inline FileIdentity fileIdentity(const std::string& path) {
    struct stat status {};
    if (::stat(path.c_str(), &status) != 0) return {};
    const auto ns = [](const timespec& t) {
        return t.tv_sec * std::int64_t{1000000000} + t.tv_nsec;
    };
    return {status.st_dev, status.st_ino, status.st_size, ns(status.st_mtim), ns(status.st_ctim)};
}

/// Weak references: the last owner of a value frees it. Any thread may ask. `Key` is ordered.
template <class Key, class Value>
class SharedRegistry {
  public:
    /// The value of `key`: the one that somebody owns, else a new one from make(), a
    /// std::shared_ptr<Value>. Only callers of the same key wait meanwhile. An exception of make()
    /// reaches its caller; the next caller makes it again.
    template <class Make>
    std::shared_ptr<Value> get(const Key& key, const Make& make) ZORV_EXCLUDES(mutex_) {
        const std::shared_ptr<Entry> entry = entryOf(key);
        const MutexLock lock(entry->mutex);
        std::shared_ptr<Value> value = entry->value.lock();
        if (!value) entry->value = value = make();
        return value;
    }

  private:
    struct Entry {
        Mutex mutex;  ///< taken alone or after the registry's
        std::weak_ptr<Value> value ZORV_GUARDED_BY(mutex);
    };

    std::shared_ptr<Entry> entryOf(const Key& key) ZORV_EXCLUDES(mutex_) {
        const MutexLock lock(mutex_);
        if (const auto at = entries_.find(key); at != entries_.end()) return at->second;
        forgetUnused();
        auto entry = std::make_shared<Entry>();
        entries_.emplace(key, entry);
        return entry;
    }

    /// Entries whose value nobody owns and that nobody is about to use.
    void forgetUnused() ZORV_REQUIRES(mutex_) {
        std::erase_if(entries_, [&](const auto& item) {
            Entry* const entry = item.second.get();
            // Others reach an entry through the registry alone, whose lock is held.
            if (item.second.use_count() > 1) return false;
            const MutexLock lock(entry->mutex);
            return entry->value.expired();
        });
    }

    Mutex mutex_;
    std::map<Key, std::shared_ptr<Entry>> entries_ ZORV_GUARDED_BY(mutex_);
};

}  // namespace zorv
