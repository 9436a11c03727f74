#include "operator_census.h"

#include "render/gridsample/rewrite.h"
#include "render/int8conv/fold.h"
#include "render/onnx_node.h"
#include "render/resize/resize_fast.h"

namespace zorv::tools {
namespace {

/// Subgraphs deeper than this are not looked into.
constexpr int kDeepest = 16;

void countGraph(const GsField& graph, int depth, OperatorCensus& census);

void countNode(const GsField& field, int depth, OperatorCensus& census) {
    const OnnxNode node(field);
    for (const OnnxAttribute& attribute : node.attributes) {
        if (depth == kDeepest) break;
        for (const GsField& graph : attribute.graphs) countGraph(graph, depth + 1, census);
    }
    const std::string name(node.label());
    if (node.opType == "GridSampleFast" && node.domain == "com.velmarin")
        census.fast.push_back(name);
    if (node.opType == "Int8ConvVNNI" && node.domain == "com.velmarin.int8") {
        census.int8.push_back(name);
    }
    const GridSampleVerdict verdict = judgeGridSample(field.text());
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
        if (field.isBytes(onnx::kGraphNode)) countNode(field, depth, census);
    }
}

}  // namespace

OperatorCensus countOperators(std::string_view model) {
    OperatorCensus census;
    GsReader reader(model);
    for (GsField field; reader.next(field);) {
        if (field.isBytes(onnx::kModelGraph)) countGraph(field, 0, census);
    }
    std::string folded;
    census.resized = rewriteResizeToFast(model, folded);
    for (const Int8Fold& fold : foldIntoInt8Conv(model, folded)) {
        if (fold.kind == Int8Fold::Kind::kDepthToSpace) {
            census.depthToSpace.push_back(fold.node);
        } else {
            const char* const type = fold.kind == Int8Fold::Kind::kResize ? "Resize" : "Pad";
            census.folded.push_back({type, fold.node, fold.into});
        }
    }
    return census;
}

}  // namespace zorv::tools
