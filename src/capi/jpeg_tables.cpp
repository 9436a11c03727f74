#include "capi/jpeg_tables.h"

#include <cstddef>

namespace zorv {
namespace {

constexpr int kStart = 0xd8, kEnd = 0xd9;
constexpr int kFirstRestart = 0xd0;  // and the seven after it
constexpr int kHuffmanTables = 0xc4;
constexpr int kSymbols = 256;

/// A file as the decoder reads it: zeros behind its end.
class Bytes {
  public:
    explicit Bytes(std::string_view file) : file_(file) {}

    bool ended() const { return at_ >= file_.size(); }
    int next() {
        const std::size_t at = at_++;
        return at < file_.size() ? static_cast<unsigned char>(file_[at]) : 0;
    }
    int next16() {
        const int high = next();
        return high << 8 | next();
    }
    void skip(int count) { at_ += static_cast<std::size_t>(count); }

    /// The code of the next marker: the byte after 0xff that, within image data, is not 0.
    int nextMarker() {
        while (!ended()) {
            int byte = next();
            if (byte != 0xff) continue;
            while (byte == 0xff) byte = next();
            if (byte != 0) return byte;
        }
        return kEnd;
    }

  private:
    std::string_view file_;
    std::size_t at_ = 0;
};

/// The tables of one segment. The last one may reach past the segment's end.
bool tablesFit(Bytes& bytes, int length) {
    while (length > 0) {
        bytes.next();  // class and number
        int symbols = 0;
        for (int bits = 1; bits <= 16; ++bits) symbols += bytes.next();
        if (symbols > kSymbols) return false;
        bytes.skip(symbols);
        length -= 1 + 16 + symbols;
    }
    return true;
}

}  // namespace

bool jpegTablesFit(std::string_view file) {
    Bytes bytes(file);
    if (!file.starts_with('\xff') || bytes.nextMarker() != kStart) return true;
    for (int marker = bytes.nextMarker(); marker != kEnd; marker = bytes.nextMarker()) {
        if (marker >= kFirstRestart && marker <= kStart) continue;  // without a segment
        const int length = bytes.next16() - 2;
        if (length < 0) return true;  // every decoder stops here
        if (marker != kHuffmanTables) {
            bytes.skip(length);
        } else if (!tablesFit(bytes, length)) {
            return false;
        }
    }
    return true;
}

}  // namespace zorv
