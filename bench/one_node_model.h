// Serialised ONNX models of one node, for timing an operator inside a session.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "support/onnx_message.h"

namespace zorv::bench {

/// A ValueInfoProto: a float tensor of a fixed shape.
inline test::Message floatTensor(const std::string& name, const std::vector<std::int64_t>& shape) {
    test::Message dimensions;
    for (const std::int64_t size : shape) {
        dimensions.bytes(1, test::Message().integer(1, static_cast<std::uint64_t>(size)));
    }
    const test::Message tensor = test::Message().integer(1, 1).bytes(2, dimensions);
    return test::Message().bytes(1, name).bytes(2, test::Message().bytes(1, tensor));
}

/// x [1, C, H, W], grid [1, H, W, 2] -> y, sampled linearly with repeated edges.
inline std::string gridSampleModel(std::int64_t C, std::int64_t H, std::int64_t W) {
    test::Message node = test::gridSampleNode();
    node.bytes(5, test::textAttribute("mode", "bilinear"));
    node.bytes(5, test::textAttribute("padding_mode", "border"));
    test::Message graph;
    graph.bytes(1, node).bytes(2, "bench");
    graph.bytes(11, floatTensor("x", {1, C, H, W})).bytes(11, floatTensor("grid", {1, H, W, 2}));
    graph.bytes(12, floatTensor("y", {1, C, H, W}));
    const test::Message opset = test::Message().bytes(1, "").integer(2, 16);
    return test::Message().integer(1, 8).bytes(7, graph).bytes(8, opset).text();
}

}  // namespace zorv::bench
