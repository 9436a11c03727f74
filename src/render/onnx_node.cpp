#include "render/onnx_node.h"

#include <cstring>

namespace zorv {
namespace {

constexpr std::uint64_t kFloatType = 1, kInt64Type = 7;

/// A list of integers comes as a field for each or packed into one.
void append(std::vector<std::int64_t>& list, const GsField& field) {
    if (field.type == WireType::kVarint) list.push_back(static_cast<std::int64_t>(field.varint));
    if (field.type != WireType::kBytes) return;
    for (GsReader reader(field); !reader.atEnd();) {
        list.push_back(static_cast<std::int64_t>(reader.readVarint()));
    }
}

template <class T>
std::optional<std::vector<T>> copyOf(const GsField& bytes, std::size_t count) {
    if (bytes.payloadLength != count * sizeof(T)) return std::nullopt;
    std::vector<T> values(count);
    std::memcpy(values.data(), bytes.payload, bytes.payloadLength);
    return values;
}

}  // namespace

OnnxAttribute::OnnxAttribute(const GsField& message) {
    GsReader reader(message);
    for (GsField field; reader.next(field);) {
        if (field.isBytes(onnx::kAttributeName)) name = field.text();
        if (field.isBytes(onnx::kAttributeString)) text = field.text();
        if (field.isBytes(onnx::kAttributeTensor)) tensor = field;
        if (field.isBytes(onnx::kAttributeGraph) || field.isBytes(onnx::kAttributeGraphs)) {
            graphs.push_back(field);
        }
        if (field.number == onnx::kAttributeInts) append(integers, field);
        if (field.number == onnx::kAttributeInt && field.type == WireType::kVarint) {
            integer = field.varint;
        }
    }
}

OnnxNode::OnnxNode(std::string_view message) {
    GsReader reader(message);
    for (GsField part; reader.next(part);) {
        if (part.isBytes(onnx::kNodeInput)) inputs.push_back(part.text());
        if (part.isBytes(onnx::kNodeOutput)) outputs.push_back(part.text());
        if (part.isBytes(onnx::kNodeName)) name = part.text();
        if (part.isBytes(onnx::kNodeOpType)) opType = part.text();
        if (part.isBytes(onnx::kNodeDomain)) domain = part.text();
        if (part.isBytes(onnx::kNodeAttribute)) attributes.emplace_back(part);
    }
}

const OnnxAttribute* OnnxNode::attribute(std::string_view attributeName) const {
    const OnnxAttribute* found = nullptr;
    for (const OnnxAttribute& one : attributes) {
        if (one.name == attributeName) found = &one;
    }
    return found;
}

OnnxTensor::OnnxTensor(const GsField& message) : field(message) {
    GsReader reader(message);
    for (GsField part; reader.next(part);) {
        if (part.isBytes(onnx::kTensorName)) name = part.text();
        if (part.isBytes(onnx::kTensorRaw)) raw_ = part;
        if (part.isBytes(onnx::kTensorFloats)) floats_ = part;
        if (part.number == onnx::kTensorDims) append(dims, part);
        if (part.number == onnx::kTensorInts) append(integers_, part);
        if (part.type != WireType::kVarint) continue;
        if (part.number == onnx::kTensorType) type_ = part.varint;
        if (part.number == onnx::kTensorLocation) external_ = part.varint != 0;
    }
}

std::optional<std::vector<float>> OnnxTensor::floats(std::size_t count) const {
    if (type_ != kFloatType || external_) return std::nullopt;
    return copyOf<float>(raw_.payload ? raw_ : floats_, count);
}

std::optional<std::vector<std::int64_t>> OnnxTensor::integers(std::size_t count) const {
    if (type_ != kInt64Type || external_) return std::nullopt;
    if (raw_.payload) return copyOf<std::int64_t>(raw_, count);
    if (integers_.size() != count) return std::nullopt;
    return integers_;
}

}  // namespace zorv
