// Serialised ONNX models of one node, for timing an operator inside a session.
#pragma once

#include <cstdint>
#include <string>
#include <utility>
#include <vector>

#include "render/gridsample_rewrite.h"

namespace zorv::bench {

/// A protobuf message under construction.
class Message {
  public:
    Message& bytes(unsigned field, const std::string& payload) {
        gsPutVarint(text_, field << 3 | 2);
        gsPutVarint(text_, payload.size());
        text_ += payload;
        return *this;
    }
    Message& integer(unsigned field, std::uint64_t value) {
        gsPutVarint(text_, field << 3);
        gsPutVarint(text_, value);
        return *this;
    }
    const std::string& text() const { return text_; }

  private:
    std::string text_;
};

/// A ValueInfoProto: a float tensor of a fixed shape.
inline std::string floatTensor(const std::string& name, const std::vector<std::int64_t>& shape) {
    Message dimensions;
    for (const std::int64_t size : shape) {
        dimensions.bytes(1, Message().integer(1, static_cast<std::uint64_t>(size)).text());
    }
    const Message tensor = Message().integer(1, 1).bytes(2, dimensions.text());
    return Message().bytes(1, name).bytes(2, Message().bytes(1, tensor.text()).text()).text();
}

/// x [1, C, H, W], grid [1, H, W, 2] -> y, sampled linearly with repeated edges.
inline std::string gridSampleModel(std::int64_t C, std::int64_t H, std::int64_t W) {
    const auto text = [](const char* name, const char* value) {
        return Message().bytes(1, name).bytes(4, value).integer(20, 3).text();
    };
    Message node;
    node.bytes(1, "x").bytes(1, "grid").bytes(2, "y").bytes(4, "GridSample");
    node.bytes(5, text("mode", "bilinear")).bytes(5, text("padding_mode", "border"));
    Message graph;
    graph.bytes(1, node.text()).bytes(2, "bench");
    graph.bytes(11, floatTensor("x", {1, C, H, W})).bytes(11, floatTensor("grid", {1, H, W, 2}));
    graph.bytes(12, floatTensor("y", {1, C, H, W}));
    return Message()
        .integer(1, 8)
        .bytes(7, graph.text())
        .bytes(8, Message().bytes(1, "").integer(2, 16).text())
        .text();
}

}  // namespace zorv::bench
