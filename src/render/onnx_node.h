// A node of an ONNX graph as the load-time rewrites see it. Views look into the model's bytes.
#pragma once

#include <optional>
#include <string_view>
#include <vector>

#include "render/onnx_wire.h"

namespace zorv {

struct OnnxAttribute {
    explicit OnnxAttribute(const GsField& message);

    std::string_view name, text;
    std::uint64_t integer = 0;
    std::vector<std::int64_t> integers;
    std::optional<GsField> tensor;
    std::vector<GsField> graphs;  ///< subgraphs
};

/// Throws like GsReader::next. Of a field that repeats without being a list, the last one counts.
struct OnnxNode {
    explicit OnnxNode(std::string_view message);
    explicit OnnxNode(const GsField& message) : OnnxNode(message.text()) { field = message; }

    /// Null when absent.
    const OnnxAttribute* attribute(std::string_view attributeName) const;
    bool isStandard(std::string_view type) const {
        return opType == type && (domain.empty() || domain == "ai.onnx");
    }
    /// Its name, or its first output when it has none.
    std::string_view label() const {
        return name.empty() && !outputs.empty() ? outputs.front() : name;
    }
    /// Empty when absent.
    std::string_view input(std::size_t index) const {
        return index < inputs.size() ? inputs[index] : std::string_view();
    }

    GsField field;  ///< empty when made from a message alone
    std::vector<std::string_view> inputs, outputs;
    std::string_view name, opType, domain;
    std::vector<OnnxAttribute> attributes;
};

/// A constant of a graph.
struct OnnxTensor {
    explicit OnnxTensor(const GsField& message);

    /// Its values, when it holds `count` of them, in the file, as floats or 64-bit integers.
    std::optional<std::vector<float>> floats(std::size_t count) const;
    std::optional<std::vector<std::int64_t>> integers(std::size_t count) const;

    GsField field;
    std::string_view name;
    std::vector<std::int64_t> dims;

  private:
    std::uint64_t type_ = 0;
    bool external_ = false;
    GsField raw_, floats_;
    std::vector<std::int64_t> integers_;
};

}  // namespace zorv
