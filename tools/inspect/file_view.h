// The bytes of a file, mapped for reading.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

namespace zorv::tools {

class FileView {
  public:
    /// Throws a Failure with the system's reason; a directory is one.
    explicit FileView(const std::string& path);
    ~FileView();
    FileView(const FileView&) = delete;
    FileView& operator=(const FileView&) = delete;

    const uint8_t* data() const { return static_cast<const uint8_t*>(base_); }
    size_t size() const { return size_; }

  private:
    void* base_ = nullptr;  // null for an empty file
    size_t size_ = 0;
};

/// The first `count` floats of a file; empty when it cannot be read or has fewer.
std::vector<float> readFloats(const std::string& path, size_t count);

}  // namespace zorv::tools
