// Checks of paths that several commands take, before any work begins.
#pragma once

#include <string>

namespace zorv::tools {

/// Fails unless `path` is a directory with a manifest.
void checkIsBundle(const std::string& path);

/// Fails when `output`, if there is one, is the file that holds the sound.
void checkIsNotSound(const std::string& output, const std::string& audio);

/// Whether the name ends in `extension` (".mp4"), in either case.
bool endsWith(const std::string& path, const std::string& extension);

/** Has the expression engines that are opened from now on use this speech encoder. Only while no
 *  other thread reads the environment. */
void nameEncoder(const std::string& path);

}  // namespace zorv::tools
