// Any bytes as manifest.json, beside empty tensor files: loading gives a manifest with usable
// dimensions or a one-line text, and what it asks for is refused without touching memory.
#include <sys/stat.h>
#include <unistd.h>

#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <stdexcept>
#include <string>

#include "bundle/zorv_bundle.h"

namespace {

/// A bundle directory of this process with every file but the manifest, all empty.
class EmptyBundle {
  public:
    EmptyBundle() {
        char name[] = "/tmp/manifest_fuzz_XXXXXX";
        if (!::mkdtemp(name)) std::abort();
        dir_ = name;
        ::mkdir((dir_ + "/drive").c_str(), 0700);
        for (const char* file : kFiles) write(file, nullptr, 0);
    }
    ~EmptyBundle() {
        for (const char* file : kFiles) ::unlink((dir_ + "/" + file).c_str());
        ::unlink((dir_ + "/manifest.json").c_str());
        ::rmdir((dir_ + "/drive").c_str());
        ::rmdir(dir_.c_str());
    }

    const std::string& dir() const { return dir_; }

    void write(const char* name, const std::uint8_t* data, std::size_t size) const {
        std::FILE* file = std::fopen((dir_ + "/" + name).c_str(), "wb");
        if (!file) std::abort();
        if (size > 0) std::fwrite(data, 1, size, file);
        std::fclose(file);
    }

  private:
    static constexpr const char* kFiles[] = {"pooled64.f16", "P.f16",        "M.f32",
                                             "drive/xs.f32", "drive/xd.f32", "drive/si.i32"};
    std::string dir_;
};

void require(bool condition) {
    if (!condition) std::abort();
}

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
    static const EmptyBundle bundle;
    bundle.write("manifest.json", data, size);
    zorv::Manifest manifest;
    if (failsWithText([&] { manifest = zorv::loadManifest(bundle.dir()); })) return 0;
    require(manifest.NT >= 1 && manifest.H >= 1 && manifest.W >= 1 && manifest.crop >= 1);
    require(failsWithText([&] { zorv::Identity identity(manifest); }));
    const bool driveFails = failsWithText([&] { zorv::loadDrive(manifest); });
    require(driveFails == (manifest.frames != 0));
    return 0;
}
