#include <cmath>
#include <utility>

#include "render/onnx_graph.h"
#include "render/resize/resize_fast.h"

namespace zorv {
namespace {

constexpr std::string_view kDomain = "com.velmarin";
using Ints = std::vector<std::int64_t>;

/// The name and the values of the new node's attribute; nothing when the node stays.
std::optional<std::pair<const char*, Ints>> targetOf(const OnnxGraph& graph, const OnnxNode& node) {
    const auto stated = [&](const char* name, std::string_view value) {
        const OnnxAttribute* const given = node.attribute(name);
        return given && given->text == value;
    };
    const bool fits =
        node.isStandard("Resize") && node.inputs.size() <= 4 && stated("mode", "linear") &&
        stated("coordinate_transformation_mode", "half_pixel") &&
        attributesFit(node, [](const OnnxAttribute& one) {
            return one.name == "mode" || one.name == "nearest_mode" ||
                   one.name == "coordinate_transformation_mode" || saysNothingNew(one);
        });
    if (!fits || node.input(2).empty() == node.input(3).empty()) return std::nullopt;
    if (!node.input(3).empty()) {
        const auto constant = graph.constant(node.input(3));
        const auto sizes = constant ? constant->integers(4) : std::nullopt;
        if (sizes) return std::pair("sizes", *sizes);
        return std::nullopt;
    }
    const auto constant = graph.constant(node.input(2));
    const auto scales = constant ? constant->floats(4) : std::nullopt;
    if (!scales || (*scales)[0] != 1 || (*scales)[1] != 1) return std::nullopt;
    Ints whole;
    for (std::size_t axis = 2; axis < 4; ++axis) {
        const float scale = (*scales)[axis];
        if (!(scale >= 1 && scale <= 64) || scale != std::floor(scale)) return std::nullopt;
        whole.push_back(static_cast<std::int64_t>(scale));
    }
    return std::pair("scales", whole);
}

std::string rebuilt(const OnnxNode& node, const char* name, const Ints& values) {
    std::string kept, attribute, out;
    bool first = true;
    GsReader reader(node.field);
    for (GsField field; reader.next(field);) {
        const bool dropped = (field.isBytes(onnx::kNodeInput) && !std::exchange(first, false)) ||
                             field.number == onnx::kNodeOpType ||
                             field.number == onnx::kNodeAttribute ||
                             field.number == onnx::kNodeDomain;
        if (!dropped) putRaw(kept, field);
    }
    putBytes(kept, onnx::kNodeOpType, "ResizeFast");
    putBytes(kept, onnx::kNodeDomain, kDomain);
    putBytes(attribute, onnx::kAttributeName, name);
    for (const std::int64_t value : values) {
        putInt(attribute, onnx::kAttributeInts, static_cast<std::uint64_t>(value));
    }
    putInt(attribute, onnx::kAttributeType, 7);  // a list of integers
    putBytes(kept, onnx::kNodeAttribute, attribute);
    putBytes(out, onnx::kGraphNode, kept);
    return out;
}

}  // namespace

std::vector<std::string> rewriteResizeToFast(std::string_view model, std::string& out) {
    if (model.find("Resize") == std::string_view::npos) return {};
    const auto graph = OnnxGraph::of(model);
    if (!graph) return {};
    std::vector<std::string> names;
    std::vector<WireEdit> edits;
    OnnxGraph::Readers gone;
    for (const OnnxNode& node : graph->nodes()) {
        const auto target = targetOf(*graph, node);
        if (!target) continue;
        for (std::size_t i = 1; i < node.inputs.size(); ++i) ++gone[node.inputs[i]];
        edits.push_back(
            {node.field.raw, node.field.rawLength, rebuilt(node, target->first, target->second)});
        names.emplace_back(node.label());
    }
    if (names.empty()) return {};
    graph->finish(edits, gone);
    writeEdited(model, edits, importsDomain(model, kDomain) ? "" : opsetImport(kDomain), out);
    return names;
}

}  // namespace zorv
