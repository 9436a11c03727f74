#include "operator_census.h"

#include "render/gridsample/rewrite.h"
#include "render/onnx_wire.h"

namespace zorv::tools {
namespace {

constexpr uint64_t kModelGraph = 7;
constexpr uint64_t kGraphNode = 1;
constexpr uint64_t kNodeOutput = 2, kNodeName = 3, kNodeOpType = 4, kNodeAttribute = 5;
constexpr uint64_t kNodeDomain = 7;
constexpr uint64_t kAttributeGraph = 6, kAttributeGraphs = 11;

/// Subgraphs deeper than this are not looked into.
constexpr int kDeepest = 16;

void countGraph(const GsField& graph, int depth, OperatorCensus& census);

void countSubgraphs(const GsField& attribute, int depth, OperatorCensus& census) {
    GsReader reader(attribute);
    for (GsField field; reader.next(field);) {
        if (field.isBytes(kAttributeGraph) || field.isBytes(kAttributeGraphs)) {
            countGraph(field, depth + 1, census);
        }
    }
}

void countNode(const GsField& node, int depth, OperatorCensus& census) {
    std::string name, output, type, domain;
    GsReader reader(node);
    for (GsField field; reader.next(field);) {
        if (field.isBytes(kNodeName)) name = field.text();
        if (field.isBytes(kNodeOutput) && output.empty()) output = field.text();
        if (field.isBytes(kNodeOpType)) type = field.text();
        if (field.isBytes(kNodeDomain)) domain = field.text();
        if (field.isBytes(kNodeAttribute) && depth < kDeepest) {
            countSubgraphs(field, depth, census);
        }
    }
    if (name.empty()) name = output;
    if (type == "GridSampleFast" && domain == "com.velmarin") census.fast.push_back(name);
    if (type == "Int8ConvVNNI" && domain == "com.velmarin.int8") census.int8.push_back(name);
    const GridSampleVerdict verdict = judgeGridSample(node.text());
    if (verdict == GridSampleVerdict::kOtherNode) return;
    if (verdict != GridSampleVerdict::kRewritable) {
        census.kept.push_back({name, zorv::describe(verdict)});
    } else if (depth > 0) {
        census.kept.push_back({name, "inside a subgraph"});
    } else {
        census.rewritten.push_back(name);
    }
}

void countGraph(const GsField& graph, int depth, OperatorCensus& census) {
    GsReader reader(graph);
    for (GsField field; reader.next(field);) {
        if (field.isBytes(kGraphNode)) countNode(field, depth, census);
    }
}

}  // namespace

OperatorCensus countOperators(std::string_view model) {
    OperatorCensus census;
    const auto* begin = reinterpret_cast<const uint8_t*>(model.data());
    GsReader reader(begin, begin + model.size());
    for (GsField field; reader.next(field);) {
        if (field.isBytes(kModelGraph)) countGraph(field, 0, census);
    }
    return census;
}

}  // namespace zorv::tools
