// Any bytes as manifest.json, beside empty tensor files: loading gives a manifest with usable
// dimensions or a one-line text, and what it asks for is refused without touching memory.
#include <cstdint>
#include <exception>
#include <filesystem>
#include <string>

#include "bundle/zorv_bundle.h"
#include "damaged_dir.h"
#include "fuzz_input.h"
#include "support/test_bundle.h"

namespace {

using zorv::fuzz::require;

/// A bundle directory with every file but the manifest, all empty.
class EmptyBundle {
  public:
    EmptyBundle() {
        std::filesystem::create_directory(dir() + "/drive");
        for (const char* file :
             {"pooled64.f16", "P.f16", "M.f32", "drive/xs.f32", "drive/xd.f32", "drive/si.i32"}) {
            write(file, "");
        }
    }
    const std::string& dir() const { return dir_.path(); }
    void write(const std::string& name, const std::string& bytes) const {
        zorv::test::writeFile(dir() + "/" + name, bytes);
    }

  private:
    zorv::test::TempDir dir_;
};

template <class Body>
bool failsWithText(Body&& body) {
    try {
        body();
        return false;
    } catch (const std::exception& error) {
        require(*error.what() != '\0');
        return true;
    }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    zorv::fuzz::keepTempDirsInMemory();
    static const EmptyBundle bundle;
    bundle.write("manifest.json", {reinterpret_cast<const char*>(data), size});
    zorv::Manifest manifest;
    if (failsWithText([&] { manifest = zorv::loadManifest(bundle.dir()); })) return 0;
    require(manifest.NT >= 1 && manifest.H >= 1 && manifest.W >= 1 && manifest.crop >= 1);
    require(failsWithText([&] { zorv::Identity identity(manifest); }));
    const bool driveFails = failsWithText([&] { zorv::loadDrive(manifest); });
    require(driveFails == (manifest.frames != 0));
    return 0;
}
