// Protobuf messages under construction, for models that are written by hand.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

namespace zorv::test {

class Message {
  public:
    Message& bytes(unsigned field, const std::string& payload) {
        varint(field << 3 | 2);
        varint(payload.size());
        text_ += payload;
        return *this;
    }
    Message& bytes(unsigned field, const Message& payload) { return bytes(field, payload.text_); }
    Message& integer(unsigned field, std::uint64_t value) {
        varint(field << 3);
        varint(value);
        return *this;
    }
    /// Bytes as they are.
    Message& raw(const std::string& fields) {
        text_ += fields;
        return *this;
    }
    const std::string& text() const { return text_; }

  private:
    void varint(std::uint64_t value) {
        for (; value >= 0x80; value >>= 7) text_ += static_cast<char>((value & 0x7f) | 0x80);
        text_ += static_cast<char>(value);
    }

    std::string text_;
};

/// An AttributeProto that holds a string.
inline Message textAttribute(const std::string& name, const std::string& value) {
    return Message().bytes(1, name).bytes(4, value).integer(20, 3);
}

/// An AttributeProto that holds an integer.
inline Message intAttribute(const std::string& name, std::uint64_t value) {
    return Message().bytes(1, name).integer(3, value).integer(20, 2);
}

using Ints = std::vector<std::int64_t>;

/// An AttributeProto that holds a list of integers.
inline Message intsAttribute(const std::string& name, const Ints& values) {
    Message message = Message().bytes(1, name).integer(20, 7);
    for (const std::int64_t value : values) message.integer(8, static_cast<std::uint64_t>(value));
    return message;
}

/// A TensorProto; `type` is 1 for float, 3 for int8, 7 for 64-bit integers.
template <class T>
Message tensor(std::uint64_t type, const Ints& dims, const std::vector<T>& values) {
    Message message = Message().integer(2, type);
    for (const std::int64_t dim : dims) message.integer(1, static_cast<std::uint64_t>(dim));
    return message.bytes(
        9, std::string(reinterpret_cast<const char*>(values.data()), values.size() * sizeof(T)));
}

/// A ValueInfoProto of floats; without dimensions it leaves the shape open.
inline Message value(const std::string& name, const Ints& dims = {}) {
    Message type = Message().integer(1, 1), shape;
    for (const std::int64_t dim : dims) {
        shape.bytes(1, Message().integer(1, static_cast<std::uint64_t>(dim)));
    }
    if (!dims.empty()) type.bytes(2, shape);
    return Message().bytes(1, name).bytes(2, Message().bytes(1, type));
}

/// A NodeProto x, grid -> y, without attributes.
inline Message gridSampleNode() {
    return Message().bytes(1, "x").bytes(1, "grid").bytes(2, "y").bytes(4, "GridSample");
}

}  // namespace zorv::test
