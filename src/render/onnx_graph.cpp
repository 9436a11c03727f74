#include "render/onnx_graph.h"

#include <algorithm>

namespace zorv {
namespace {

constexpr int kDeepest = 16;  ///< of subgraphs

std::string_view nameOf(const GsField& value) {
    std::string_view name;
    GsReader reader(value);
    for (GsField field; reader.next(field);) {
        if (field.isBytes(onnx::kValueName)) name = field.text();
    }
    return name;
}

}  // namespace

std::optional<OnnxGraph> OnnxGraph::of(std::string_view model) {
    std::optional<GsField> message;
    GsReader reader(model);
    for (GsField field; reader.next(field);) {
        if (!field.isBytes(onnx::kModelGraph)) continue;
        if (message) return std::nullopt;
        message = field;
    }
    std::optional<OnnxGraph> graph;
    if (message && !graph.emplace().add(*message, 0)) graph.reset();
    return graph;
}

/// Subgraphs count as readers of what they name. False when they lie too deep.
bool OnnxGraph::add(const GsField& graph, int depth) {
    if (depth > kDeepest) return false;
    GsReader reader(graph);
    for (GsField field; reader.next(field);) {
        if (field.isBytes(onnx::kGraphNode) && !addNode(field, depth)) return false;
        if (field.isBytes(onnx::kGraphOutput)) ++readers_[nameOf(field)];
        if (depth > 0) continue;
        if (field.isBytes(onnx::kGraphInput)) ++makers_[nameOf(field)].count;
        if (field.isBytes(onnx::kGraphInitializer)) {
            initializers_.emplace_back(field);
            Maker& maker = makers_[initializers_.back().name];
            ++maker.count, maker.initializer = initializers_.size() - 1;
        }
    }
    return true;
}

bool OnnxGraph::addNode(const GsField& field, int depth) {
    OnnxNode node(field);
    for (const std::string_view name : node.inputs) ++readers_[name];
    for (const OnnxAttribute& attribute : node.attributes) {
        for (const GsField& graph : attribute.graphs) {
            if (!add(graph, depth + 1)) return false;
        }
    }
    if (depth > 0) return true;
    for (const std::string_view name : node.outputs) {
        Maker& maker = makers_[name];
        ++maker.count, maker.node = nodes_.size();
    }
    nodes_.push_back(std::move(node));
    return true;
}

const OnnxGraph::Maker* OnnxGraph::soleMaker(std::string_view name) const {
    const auto found = makers_.find(name);
    return !name.empty() && found != makers_.end() && found->second.count == 1 ? &found->second
                                                                               : nullptr;
}

int OnnxGraph::readersOf(std::string_view name) const {
    const auto found = readers_.find(name);
    return found == readers_.end() ? 0 : found->second;
}

const OnnxNode* OnnxGraph::soleSource(std::string_view name) const {
    const Maker* const maker = soleMaker(name);
    if (!maker || maker->node == kNone || readersOf(name) != 1) return nullptr;
    const OnnxNode& node = nodes_[maker->node];
    return node.outputs.size() == 1 ? &node : nullptr;
}

std::optional<OnnxTensor> OnnxGraph::constant(std::string_view name) const {
    const Maker* const maker = soleMaker(name);
    if (!maker) return std::nullopt;
    if (maker->initializer != kNone) return initializers_[maker->initializer];
    if (maker->node == kNone || !nodes_[maker->node].isStandard("Constant")) return std::nullopt;
    const OnnxAttribute* const value = nodes_[maker->node].attribute("value");
    return value && value->tensor ? std::optional(OnnxTensor(*value->tensor)) : std::nullopt;
}

void OnnxGraph::finish(std::vector<WireEdit>& edits, const Readers& gone) const {
    for (const auto& [name, count] : gone) {
        const Maker* const maker = soleMaker(name);
        if (!maker || count != readersOf(name)) continue;
        if (maker->initializer != kNone) {
            const GsField& field = initializers_[maker->initializer].field;
            edits.push_back({field.raw, field.rawLength, {}});
        } else if (maker->node != kNone && nodes_[maker->node].isStandard("Constant") &&
                   nodes_[maker->node].outputs.size() == 1) {
            const GsField& field = nodes_[maker->node].field;
            edits.push_back({field.raw, field.rawLength, {}});
        }
    }
    std::sort(edits.begin(), edits.end(),
              [](const WireEdit& a, const WireEdit& b) { return a.at < b.at; });
}

bool saysNothingNew(const OnnxAttribute& ofResize) {
    return ofResize.name == "cubic_coeff_a" || ofResize.name == "extrapolation_value" ||
           ((ofResize.name == "exclude_outside" || ofResize.name == "antialias") &&
            ofResize.integer == 0) ||
           (ofResize.name == "keep_aspect_ratio_policy" && ofResize.text == "stretch");
}

}  // namespace zorv
