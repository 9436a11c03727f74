// A minimal reader and writer of the protobuf wire format: enough to look into an ONNX file, to
// copy what is not looked at byte for byte and to replace the rest.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

namespace zorv {

/// Field numbers, after the message that they belong to.
namespace onnx {
inline constexpr std::uint64_t kModelGraph = 7, kModelOpsetImport = 8;
inline constexpr std::uint64_t kOpsetDomain = 1, kOpsetVersion = 2;
inline constexpr std::uint64_t kGraphNode = 1, kGraphInitializer = 5, kGraphInput = 11,
                               kGraphOutput = 12;
inline constexpr std::uint64_t kValueName = 1;
inline constexpr std::uint64_t kNodeInput = 1, kNodeOutput = 2, kNodeName = 3, kNodeOpType = 4,
                               kNodeAttribute = 5, kNodeDomain = 7;
inline constexpr std::uint64_t kAttributeName = 1, kAttributeInt = 3, kAttributeString = 4,
                               kAttributeTensor = 5, kAttributeGraph = 6, kAttributeInts = 8,
                               kAttributeGraphs = 11, kAttributeType = 20;
inline constexpr std::uint64_t kTensorDims = 1, kTensorType = 2, kTensorFloats = 4, kTensorInts = 7,
                               kTensorName = 8, kTensorRaw = 9, kTensorLocation = 14;
}  // namespace onnx

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
    explicit GsReader(std::string_view message)
        : GsReader(reinterpret_cast<const std::uint8_t*>(message.data()),
                   reinterpret_cast<const std::uint8_t*>(message.data()) + message.size()) {}

    /// Reads the next field; false at the end of the range. Throws std::runtime_error
    /// "onnx: bad varint", "onnx: truncated" or "onnx: bad wire type".
    bool next(GsField& field);

    bool atEnd() const { return cursor_ >= end_; }
    std::uint64_t readVarint();  ///< throws as next() does

  private:
    const std::uint8_t* skip(std::uint64_t bytes);

    const std::uint8_t* cursor_;
    const std::uint8_t* end_;
};

/// Appends `value` as a protobuf varint.
void gsPutVarint(std::string& out, std::uint64_t value);
void putRaw(std::string& out, const GsField& field);
void putBytes(std::string& out, std::uint64_t number, std::string_view payload);
void putInt(std::string& out, std::uint64_t number, std::uint64_t value);

/// Whether the model imports an operator set of `domain`.
bool importsDomain(std::string_view model, std::string_view domain);
/// The field of a model that imports version 1 of `domain`.
std::string opsetImport(std::string_view domain);

/// Whole fields of a model's graph, and what comes in their place.
struct WireEdit {
    const std::uint8_t* at;
    std::size_t length;
    std::string with;
};

/// Writes `model` into `out` with `edits`, in the order of their places, done to its graphs, and
/// `appended` behind it; all into one allocation. Throws like GsReader::next.
void writeEdited(std::string_view model, const std::vector<WireEdit>& edits,
                 std::string_view appended, std::string& out);

}  // namespace zorv
