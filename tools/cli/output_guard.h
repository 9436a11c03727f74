// Output appears under its final name whole or not at all.
#pragma once

#include <string>

namespace zorv::tools {

/// A temporary file or directory beside the final one, on the same file system. commit() renames
/// it; the destructor, or removeUnfinishedOutput() from another thread, removes it otherwise.
class OutputGuard {
  public:
    enum class Kind { kFile, kDirectory };

    /// Fails when the final name cannot be written: no such folder, no permission, a device, a
    ///  directory that is not empty.
    OutputGuard(const std::string& finalPath, Kind kind);
    ~OutputGuard();
    OutputGuard(const OutputGuard&) = delete;
    OutputGuard& operator=(const OutputGuard&) = delete;

    const std::string& path() const { return temporary_; }
    const std::string& finalPath() const { return final_; }

    /// Makes the output appear under its final name.
    void commit();

  private:
    void checkTarget() const;
    void create();

    std::string final_, temporary_;
    Kind kind_;
    bool pending_ = false;
};

/// Removes every output that has not been committed, and stops later commits. Any thread.
void removeUnfinishedOutput();

}  // namespace zorv::tools
