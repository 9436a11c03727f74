#include "bundle/zorv_bundle.h"

#include <sys/mman.h>
#include <sys/stat.h>
#include <unistd.h>

#include <limits>
#include <stdexcept>
#include <utility>

#include "common/fault.h"
#include "common/file.h"
#include "common/key_finder.h"
#include "common/memory.h"

namespace zorv {
namespace {

std::size_t findKey(const std::string& text, const std::string& key) {
    const KeyPosition position = findKeyPosition(text, key);
    switch (position.status) {
        case KeyStatus::kMissing:
            throw std::runtime_error("manifest: missing key " + key);
        case KeyStatus::kNoColon:
            throw std::runtime_error("manifest: malformed key " + key);
        case KeyStatus::kFound:
            break;
    }
    return position.afterColon;
}

std::string strField(const std::string& text, const std::string& key) {
    const auto value = quotedFrom(text, findKey(text, key));
    if (!value) throw std::runtime_error("manifest: bad string " + key);
    return *value;
}

double numField(const std::string& text, const std::string& key) {
    return numberFrom(text, findKey(text, key));
}

double numFieldOpt(const std::string& text, const std::string& key, double fallback) {
    const KeyPosition position = findKeyPosition(text, key);
    return position.status == KeyStatus::kFound ? numberFrom(text, position.afterColon) : fallback;
}

bool canOpen(const std::string& path) {
    const int fd = openForReading(path);
    if (fd < 0) return false;
    ::close(fd);
    return true;
}

/// A file to be mapped.
class OpenFile {
  public:
    explicit OpenFile(const std::string& path) : path_(path), fd_(openForReading(path)) {
        if (fd_ < 0 || ::fstat(fd_, &status_) != 0 || S_ISDIR(status_.st_mode)) {
            close();
            throw std::runtime_error("cannot open " + path);
        }
    }
    ~OpenFile() { close(); }
    OpenFile(const OpenFile&) = delete;
    OpenFile& operator=(const OpenFile&) = delete;

    std::size_t size() const { return static_cast<std::size_t>(status_.st_size); }
    /// All of it; the mapping keeps the file when this object is gone.
    MappedFile map() const {
        void* base = fault::fails(fault::Kind::kMap)
                         ? MAP_FAILED
                         : ::mmap(nullptr, size(), PROT_READ, MAP_PRIVATE, fd_, 0);
        if (base == MAP_FAILED) throw std::runtime_error("mmap failed " + path_);
        return {base, size()};
    }

  private:
    void close() {
        if (fd_ >= 0) ::close(fd_);
    }

    const std::string& path_;
    const int fd_;
    struct stat status_ {};
};

/// a x b, or the largest size when that overflows: no file is so large.
std::size_t fileSize(std::size_t a, std::size_t b) {
    std::size_t product = 0;
    return __builtin_mul_overflow(a, b, &product) ? std::numeric_limits<std::size_t>::max()
                                                  : product;
}

/// Reads n elements of T; the file must end there.
template <class T>
std::vector<T> readElements(const std::string& path, std::size_t n) {
    struct stat status {};
    // Ask for the size first: an absurd count must not allocate before the file proves it.
    if (::stat(path.c_str(), &status) != 0 || !canOpen(path)) {
        throw std::runtime_error("cannot open " + path);
    }
    const std::size_t bytes = checkedProduct(n, sizeof(T));
    if (S_ISREG(status.st_mode) && static_cast<std::size_t>(status.st_size) != bytes) {
        throw std::runtime_error("size mismatch " + path);
    }
    std::vector<T> values(n);
    switch (readExactly(path, values.data(), bytes)) {
        case ReadStatus::kOk:
            return values;
        case ReadStatus::kCannotOpen:
            throw std::runtime_error("cannot open " + path);
        default:
            throw std::runtime_error("size mismatch " + path);
    }
}

template <class T>
std::vector<T> readTensor(const Manifest& manifest, const TensorFile& file) {
    return readElements<T>(manifest.dir + "/" + file.name, file.elements(manifest));
}

}  // namespace

std::string Manifest::modelPath(const std::string& key) const {
    return dir + "/model_" + key + ".onnx";
}

Manifest loadManifest(const std::string& dir) {
    const std::string path = dir + "/manifest.json";
    std::string text;
    switch (readWholeFile(path, text)) {
        case ReadStatus::kOk:
            break;
        case ReadStatus::kCannotOpen:
            throw std::runtime_error("cannot open " + path);
        default:
            throw std::runtime_error("short read " + path);
    }
    if (strField(text, "format") != kBundleFormat) {
        throw std::runtime_error("not an zorv-bundle-v0: " + dir);
    }
    Manifest manifest;
    manifest.dir = dir;
    manifest.agent = strField(text, "agent");
    manifest.NT = toInt32(numField(text, "NT"));
    manifest.H = toInt32(numField(text, "H"));
    manifest.W = toInt32(numField(text, "W"));
    manifest.crop = toInt32(numField(text, "crop"));
    manifest.unsharp.amount = static_cast<float>(numField(text, "amount"));
    manifest.unsharp.sigma = static_cast<float>(numField(text, "sigma"));
    manifest.unsharp.ksize = toInt32(numField(text, "ksize"));
    manifest.frames = toInt32(numField(text, "frames"));
    manifest.M_src_w = toInt32(numFieldOpt(text, "M_src_w", manifest.W));
    manifest.M_src_h = toInt32(numFieldOpt(text, "M_src_h", manifest.H));
    if (!isBundleSize(manifest.NT) || !isBundleSize(manifest.H) || !isBundleSize(manifest.W) ||
        !isBundleSize(manifest.crop)) {
        throw std::runtime_error("manifest: bad dims");
    }
    return manifest;
}

std::size_t TensorFile::elements(const Manifest& manifest, std::size_t first) const {
    std::size_t count = 1;
    for (std::size_t i = first; i < shape.size() && shape[i] != 0; ++i) {
        const std::int32_t size = shape[i] == kNT       ? manifest.NT
                                  : shape[i] == kFrames ? manifest.frames
                                  : shape[i] == kCrop   ? manifest.crop
                                                        : shape[i];
        count = fileSize(count, toCount(size));
    }
    return count;
}

std::size_t TensorFile::bytes(const Manifest& manifest, std::size_t first) const {
    return fileSize(elementBytes, elements(manifest, first));
}

MappedFile::~MappedFile() {
    if (base_) ::munmap(base_, length_);
}

MappedFile::MappedFile(MappedFile&& other) noexcept
    : base_(std::exchange(other.base_, nullptr)), length_(std::exchange(other.length_, 0)) {}

MappedFile& MappedFile::operator=(MappedFile&& other) noexcept {
    std::swap(base_, other.base_);
    std::swap(length_, other.length_);
    return *this;
}

MappedFile mapFile(const std::string& path, std::size_t length) {
    const OpenFile file(path);
    if (file.size() != length) throw std::runtime_error("size mismatch " + path);
    return file.map();
}

MappedFile mapFile(const std::string& path) {
    const OpenFile file(path);
    return file.size() == 0 ? MappedFile() : file.map();
}

std::vector<float> loadPlacements(const Manifest& manifest) {
    std::vector<float> all = readTensor<float>(manifest, files::kPlacements);
    if (manifest.M_src_w < 1 || manifest.M_src_h < 1) return all;
    if (manifest.M_src_w == manifest.W && manifest.M_src_h == manifest.H) return all;
    const double sx = static_cast<double>(manifest.W) / manifest.M_src_w;
    const double sy = static_cast<double>(manifest.H) / manifest.M_src_h;
    for (std::size_t k = 0; k < all.size(); ++k) {
        const double scale = k % 6 < 3 ? sx : sy;  // a, b, tx across; c, d, ty down
        all[k] = static_cast<float>(all[k] * scale);
    }
    return all;
}

Identity::Identity(const Manifest& manifest) : pooled64_(mapRows(manifest, files::kPooled)) {
    const auto mapIfThere = [&](const TensorFile& file) {
        return canOpen(manifest.dir + "/" + file.name) ? mapRows(manifest, file) : Rows();
    };
    p_ = mapIfThere(files::kImages);
    fsRed_ = mapIfThere(files::kReduced);
    mVec_ = loadPlacements(manifest);
}

Identity::Rows Identity::mapRows(const Manifest& manifest, const TensorFile& file) {
    return {mapFile(manifest.dir + "/" + file.name, file.bytes(manifest)), file.bytes(manifest, 1)};
}

Drive loadDrive(const Manifest& manifest) {
    Drive drive;
    drive.frames = manifest.frames;
    drive.xs = readTensor<float>(manifest, files::kDriveSource);
    drive.xd = readTensor<float>(manifest, files::kDriveDriving);
    drive.si = readTensor<std::int32_t>(manifest, files::kDriveTargets);
    for (const std::int32_t target : drive.si) {
        if (target < 0 || target >= manifest.NT) {
            throw std::runtime_error("drive: si out of range");
        }
    }
    return drive;
}

}  // namespace zorv
