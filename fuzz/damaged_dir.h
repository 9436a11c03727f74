// Directories that every input damages in its own way, for targets that open them.
#pragma once

#include <cstddef>
#include <map>
#include <string>
#include <vector>

#include "fuzz_input.h"

namespace zorv::fuzz {

/// Makes temporary directories lie in memory where the system offers that. To be called before
/// the first one is made; a TMPDIR that is set already stays.
void keepTempDirsInMemory();

/// A directory of valid files, kept in memory so that it can be mended.
///
/// An operation is one byte for the file, one for the kind, and its arguments:
///     0 remove
///     1 directory    in the file's place
///     2 resize by    int16; zeros are appended
///     3 resize to    uint24 modulo 2^20
///     4 overwrite    uint24 place modulo the file's size, uint8 count, the bytes
///     5 append       uint8 count, the bytes
///     6 copy         uint8 file that takes the file's place
///     7 value        uint8 which colon, uint8 count, the text behind it up to a ',' or '}'
class DamagedDir {
  public:
    /// `files` are relative to `dir`; operations name them by their place, modulo their number. A
    /// file that is listed more than once is damaged more often.
    DamagedDir(std::string dir, std::vector<std::string> files);

    /// Carries out the operations that the rest of the input holds, but not more than eight.
    void damage(FuzzInput& input);
    /// Writes everything that was damaged as it was at first.
    void mend();

    /// Bytes of a file as it is now; 0 when there is none.
    std::size_t size(const std::string& name) const;

  private:
    void change(const std::string& name, FuzzInput& input);

    std::string dir_;
    std::vector<std::string> choice_;
    std::map<std::string, std::string> original_, changed_;
};

}  // namespace zorv::fuzz
