// Reading small files whole. Large tensors are mapped instead (bundle/).
#pragma once

#include <cstddef>
#include <string>

namespace zorv {

enum class ReadStatus {
    kOk,
    kCannotOpen,  ///< missing, unreadable or a directory
    kShort,       ///< fewer bytes than wanted
    kLong,        ///< all wanted bytes were read and more follow
    kFailed,      ///< a read error
};

/// A descriptor of the file, -1 when it cannot be opened.
int openForReading(const std::string& path);

/// Reads the whole file into `content`, or as much of it as can be read: kOk, kCannotOpen, kShort
/// (it shrank while being read) or kFailed.
ReadStatus readWholeFile(const std::string& path, std::string& content);

/// Reads the first `bytes` bytes into `destination` and says whether the file ends there.
ReadStatus readExactly(const std::string& path, void* destination, std::size_t bytes);

}  // namespace zorv
