// The bundle's headerless files: what each must hold, and the check against it.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "bundle/zorv_bundle.h"
#include "bundle_report.h"

namespace zorv::tools {

/// The size of directory/report.name; nothing, and a fault, unless it is a regular file.
std::optional<uint64_t> fileSizeOf(const std::string& directory, FileReport& report);

/// Which part of the library reads a file.
enum class Reader { kContext, kStandardGraph, kFeatSynthGraph, kBatchStream };

struct BundleFile {
    const TensorFile& tensor;
    Reader reader;
    bool mayBeLonger = false;  // the library reads what it needs and ignores the rest
};
/// Every file of this kind, in the order of the report.
const std::vector<BundleFile>& tensorFiles();

/// "3 x 3 x 16 x 16 float16 = 4608 bytes", as far as the manifest tells.
std::string expectedContent(const BundleFile& file, const BundleFacts& facts);

/// Size and values of `file`; what is wrong goes to `report`, which carries its name.
void checkTensorFile(const BundleFile& file, const std::string& directory, const BundleFacts& facts,
                     FileReport& report);

/// The placements of M.f32 in pixels of the W x H frames, 6 each; empty when they are not there.
std::vector<float> readPlacements(const std::string& directory, const BundleFacts& facts);

/// The first `count` floats of a file; empty when it cannot be read or has fewer.
std::vector<float> readFloats(const std::string& path, size_t count);

}  // namespace zorv::tools
