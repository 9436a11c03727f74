#include "report_writer.h"

#include <fmt/format.h>
#include <fmt/ranges.h>

#include <iterator>
#include <nlohmann/json.hpp>

#include "model_check.h"

namespace zorv::tools {
namespace {

using nlohmann::json;

constexpr double kFrameRate = 25.0;

const char* word(Severity severity) {
    switch (severity) {
        case Severity::kOk:
            return "ok";
        case Severity::kWarning:
            return "warning";
        default:
            return "FAULT";
    }
}

std::string number(const std::optional<int>& value) {
    return value ? std::to_string(*value) : "?";
}

std::string numbers(int64_t count, const char* wordForOne) {
    return fmt::format("{} {}{}", count, wordForOne, count == 1 ? "" : "s");
}

/// Names and excerpts come from anywhere: nothing in them may act on the terminal.
std::string plain(std::string text) {
    for (char& c : text) {
        if (static_cast<unsigned char>(c) < 0x20 || c == 0x7f) c = '?';
    }
    return text;
}

std::string label(const FileReport& file) {
    if (file.lastName.empty()) return file.name;
    const size_t base = file.lastName.rfind('/') + 1;
    return fmt::format("{} to {}", file.name, file.lastName.substr(base));
}

void writeFacts(const BundleReport& report, std::back_insert_iterator<std::string> out) {
    const BundleFacts& facts = report.facts;
    fmt::format_to(out, "bundle          {}\n", plain(report.directory));
    fmt::format_to(out, "subject         {}\n", facts.agent.empty() ? "?" : plain(facts.agent));
    fmt::format_to(out, "target frames   {} of {} x {}\n", number(facts.targetFrames),
                   number(facts.width), number(facts.height));
    fmt::format_to(out, "crop            {0} x {0}\n", number(facts.crop));
    fmt::format_to(out, "stored drive    {} frames", number(facts.driveFrames));
    if (facts.driveFrames) fmt::format_to(out, ", {:.2f} s", *facts.driveFrames / kFrameRate);
    fmt::format_to(out, "\n\n");
}

std::string names(const std::vector<std::string>& nodes) {
    return plain(fmt::format("{}: {}", numbers(static_cast<int64_t>(nodes.size()), "node"),
                             fmt::join(nodes, ", ")));
}

void writeOperators(const OperatorCensus& census, std::back_insert_iterator<std::string> out) {
    if (!census.rewritten.empty()) {
        fmt::format_to(out, "           GridSample, runs as GridSampleFast: {}\n",
                       names(census.rewritten));
    }
    for (const KeptNode& node : census.kept) {
        fmt::format_to(out, "           GridSample, left to the runtime: {}, since {}\n",
                       plain(node.name), node.why);
    }
    if (!census.fast.empty()) {
        fmt::format_to(out, "           GridSampleFast: {}\n", names(census.fast));
    }
    if (!census.int8.empty()) {
        fmt::format_to(out, "           Int8ConvVNNI: {}\n", names(census.int8));
    }
    for (const FoldedNode& node : census.folded) {
        fmt::format_to(out, "           {}, runs inside Int8ConvVNNI {}: {}\n", node.type,
                       plain(node.into), plain(node.name));
    }
    if (!census.resized.empty()) {
        fmt::format_to(out, "           Resize, runs as ResizeFast: {}\n", names(census.resized));
    }
    if (!census.depthToSpace.empty()) {
        fmt::format_to(out, "           DepthToSpace, runs as DepthToSpaceFast: {}\n",
                       names(census.depthToSpace));
    }
}

void writeModel(const ModelReport& model, std::back_insert_iterator<std::string> out) {
    fmt::format_to(out, "         {} graph", model.graph);
    if (model.graph != "delta") {
        fmt::format_to(out, ", batch {}", model.batch ? std::to_string(*model.batch) : "not fixed");
    }
    if (model.range) {
        fmt::format_to(out, ", rendered a crop of {:.2f} to {:.2f}", model.range->first,
                       model.range->second);
    }
    if (model.rewriteDifference) {
        fmt::format_to(out, ", {:.2g} from one without GridSampleFast", *model.rewriteDifference);
    }
    fmt::format_to(out, "\n");
    for (const auto* tensors : {&model.inputs, &model.outputs}) {
        for (const ModelTensor& tensor : *tensors) {
            fmt::format_to(out, "           {:<7}{:<12}{} {}\n",
                           tensors == &model.inputs ? "input" : "output", plain(tensor.name),
                           plain(shapeText(tensor)), tensor.type);
        }
    }
    if (model.operators) writeOperators(*model.operators, out);
}

void writeFile(const FileReport& file, std::back_insert_iterator<std::string> out) {
    fmt::format_to(out, "{:<9}{}", word(file.severity()), plain(label(file)));
    if (!file.content.empty()) fmt::format_to(out, ": {}", file.content);
    if (file.count > 1) fmt::format_to(out, " ({} files)", file.count);
    fmt::format_to(out, "\n");
    for (const Finding& finding : file.findings) {
        fmt::format_to(out, "         - {}", plain(finding.what));
        if (!finding.expected.empty()) {
            fmt::format_to(out, "; expected {}", plain(finding.expected));
        }
        fmt::format_to(out, "\n");
    }
    if (file.model) writeModel(*file.model, out);
}

template <typename T>
json orNull(const std::optional<T>& value) {
    return value ? json(*value) : json(nullptr);
}

json tensorsJson(const std::vector<ModelTensor>& tensors) {
    json list = json::array();
    for (const ModelTensor& tensor : tensors) {
        json shape = json::array();
        for (const auto& [size, symbol] : tensor.shape) {
            shape.push_back(size >= 0 ? json(size) : json(symbol));
        }
        list.push_back({{"name", tensor.name}, {"type", tensor.type}, {"shape", shape}});
    }
    return list;
}

json operatorsJson(const OperatorCensus& census) {
    json kept = json::array();
    for (const KeptNode& node : census.kept) {
        kept.push_back({{"node", node.name}, {"why", node.why}});
    }
    json folded = json::array();
    for (const FoldedNode& node : census.folded) {
        folded.push_back({{"node", node.name}, {"type", node.type}, {"into", node.into}});
    }
    return {{"grid_sample_rewritten", census.rewritten},
            {"grid_sample_kept", kept},
            {"grid_sample_fast", census.fast},
            {"int8_conv", census.int8},
            {"int8_conv_folded", folded},
            {"resize_rewritten", census.resized},
            {"depth_to_space_rewritten", census.depthToSpace}};
}

json modelJson(const ModelReport& model) {
    json result = {{"graph", model.graph},
                   {"inputs", tensorsJson(model.inputs)},
                   {"outputs", tensorsJson(model.outputs)}};
    if (model.graph != "delta") result["batch"] = orNull(model.batch);
    if (model.operators) result["operators"] = operatorsJson(*model.operators);
    if (model.rewriteDifference) result["rewrite_difference"] = *model.rewriteDifference;
    if (model.range) result["rendered_range"] = {model.range->first, model.range->second};
    return result;
}

json fileJson(const FileReport& file) {
    json findings = json::array();
    for (const Finding& finding : file.findings) {
        findings.push_back(
            {{"severity", finding.severity == Severity::kFault ? "fault" : "warning"},
             {"what", finding.what},
             {"expected", finding.expected}});
    }
    json result = {{"name", file.name},
                   {"count", file.count},
                   {"good", file.severity() != Severity::kFault},
                   {"content", file.content},
                   {"findings", findings}};
    if (!file.lastName.empty()) result["last_name"] = file.lastName;
    if (file.model) result["model"] = modelJson(*file.model);
    return result;
}

json factsJson(const BundleFacts& facts) {
    return {{"agent", facts.agent},
            {"NT", orNull(facts.targetFrames)},
            {"W", orNull(facts.width)},
            {"H", orNull(facts.height)},
            {"M_src_w", facts.placementWidth},
            {"M_src_h", facts.placementHeight},
            {"crop", orNull(facts.crop)},
            {"amount", orNull(facts.amount)},
            {"sigma", orNull(facts.sigma)},
            {"ksize", orNull(facts.ksize)},
            {"frames", orNull(facts.driveFrames)}};
}

}  // namespace

std::string reportText(const BundleReport& report) {
    std::string text;
    const auto out = std::back_inserter(text);
    writeFacts(report, out);
    for (const FileReport& file : report.files) writeFile(file, out);
    if (!report.others.empty()) {
        fmt::format_to(out, "\nnot looked into: {}\n",
                       plain(fmt::format("{}", fmt::join(report.others, ", "))));
    }
    fmt::format_to(out, "\n{}: {}\n", report.good() ? "good" : "NOT GOOD", countsText(report));
    return text;
}

std::string reportJson(const BundleReport& report) {
    json files = json::array();
    for (const FileReport& file : report.files) files.push_back(fileJson(file));
    const json result = {{"bundle", report.directory},
                         {"good", report.good()},
                         {"faults", report.count(Severity::kFault)},
                         {"warnings", report.count(Severity::kWarning)},
                         {"manifest", factsJson(report.facts)},
                         {"files", files},
                         {"other_files", report.others}};
    return result.dump(2, ' ', false, json::error_handler_t::replace) + "\n";
}

std::string countsText(const BundleReport& report) {
    return fmt::format("{}, {}", numbers(report.count(Severity::kFault), "fault"),
                       numbers(report.count(Severity::kWarning), "warning"));
}

}  // namespace zorv::tools
