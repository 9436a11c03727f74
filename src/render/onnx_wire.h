// A minimal reader of the protobuf wire format: enough to look into an ONNX file and
// to copy what is not looked at byte for byte.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string_view>

namespace zorv {

enum class WireType : std::uint8_t { kVarint = 0, kFixed64 = 1, kBytes = 2, kFixed32 = 5 };

/// One protobuf field as read. Pointers look into the reader's range.
struct GsField {
    std::uint64_t number = 0;
    WireType type = WireType::kVarint;
    std::uint64_t varint = 0;               ///< kVarint only
    const std::uint8_t* payload = nullptr;  ///< kBytes only
    std::size_t payloadLength = 0;
    const std::uint8_t* raw = nullptr;  ///< the whole field, tag included
    std::size_t rawLength = 0;

    /// Whether this is length-delimited field `n`.
    bool isBytes(std::uint64_t n) const { return number == n && type == WireType::kBytes; }
    std::string_view text() const {
        return {reinterpret_cast<const char*>(payload), payloadLength};
    }
};

/// A cursor over the fields of one message in [begin, end).
class GsReader {
  public:
    GsReader(const std::uint8_t* begin, const std::uint8_t* end) : cursor_(begin), end_(end) {}
    explicit GsReader(const GsField& message)
        : GsReader(message.payload, message.payload + message.payloadLength) {}

    /// Reads the next field; false at the end of the range. Throws std::runtime_error
    /// "onnx: bad varint", "onnx: truncated" or "onnx: bad wire type".
    bool next(GsField& field);

  private:
    std::uint64_t readVarint();
    const std::uint8_t* skip(std::uint64_t bytes);

    const std::uint8_t* cursor_;
    const std::uint8_t* end_;
};

}  // namespace zorv
