#include "bundle_check.h"

#include <fmt/format.h>

#include <algorithm>
#include <filesystem>

#include "bundle_files.h"
#include "frame_check.h"
#include "manifest_check.h"
#include "model_check.h"

namespace fs = std::filesystem;

namespace zorv::tools {
namespace {

constexpr const char* kManifest = "manifest.json";
constexpr const char* kDeltaModel = "fca_stream.onnx";
constexpr const char* kBatchRenderer = "model_render.onnx";

bool startsWith(const std::string& text, const std::string& beginning) {
    return text.rfind(beginning, 0) == 0;
}

bool isRenderer(const std::string& name) {
    return startsWith(name, "model_") && fs::path(name).extension() == ".onnx";
}

std::string keyOf(const std::string& name) {
    const size_t prefix = sizeof "model_" - 1;
    return name.substr(prefix, name.size() - prefix - (sizeof ".onnx" - 1));
}

/// Every name in the bundle's folders but the target frames.
std::vector<std::string> namesIn(const std::string& directory) {
    std::vector<std::string> names;
    std::error_code error;
    for (const std::string folder : {"", "drive/"}) {
        for (fs::directory_iterator entry(fs::path(directory) / folder, error), end;
             !error && entry != end; entry.increment(error)) {
            names.push_back(folder + entry->path().filename().string());
        }
    }
    std::sort(names.begin(), names.end());
    return names;
}

class BundleCheck {
  public:
    explicit BundleCheck(const std::string& directory)
        : report_{directory, {}, {}, {}}, names_(namesIn(directory)) {}

    BundleReport run() {
        FileReport manifest{kManifest};
        report_.facts = checkManifest(report_.directory, manifest);
        report_.files.push_back(std::move(manifest));
        checkModels();
        checkTensors();
        tryRenderers();
        for (FileReport& run : checkFrames(report_.directory, report_.facts)) {
            report_.files.push_back(std::move(run));
        }
        std::move(models_.begin(), models_.end(), std::back_inserter(report_.files));
        listOthers();
        return std::move(report_);
    }

  private:
    bool has(const std::string& name) const {
        return std::binary_search(names_.begin(), names_.end(), name);
    }

    bool hasGraph(const char* graph) const {
        return std::any_of(models_.begin(), models_.end(), [&](const FileReport& file) {
            return file.model && file.model->graph == graph;
        });
    }

    void checkModels() {
        for (const std::string& name : names_) {
            if (!isRenderer(name)) continue;
            FileReport& model = models_.emplace_back(FileReport{name});
            checkRendererModel(report_.directory, report_.facts, model);
        }
        if (models_.empty()) {
            models_.emplace_back(FileReport{"model_<key>.onnx"})
                .fault("missing", "at least one renderer model");
        }
        if (!has(kBatchRenderer)) needForBatch(kBatchRenderer, "a renderer model");
        if (has(kDeltaModel)) {
            checkDeltaModel(report_.directory, models_.emplace_back(FileReport{kDeltaModel}));
        } else {
            needForBatch(kDeltaModel, "a delta model");
        }
    }

    /// A file that only the batch stream reads: a bundle without any of them is complete.
    void needForBatch(const std::string& name, const std::string& expected) {
        FileReport& file = models_.emplace_back(FileReport{name});
        if (has(kDeltaModel)) {
            file.fault("missing", expected);
        } else {
            file.warn("missing, so that the batch stream cannot be used", expected);
        }
    }

    void checkTensors() {
        for (const BundleFile& file : tensorFiles()) {
            if (!has(file.tensor.name) && !required(file)) {
                if (file.reader == Reader::kBatchStream) {
                    needForBatch(file.tensor.name, expectedContent(file, report_.facts));
                }
                continue;
            }
            FileReport& tensor = report_.files.emplace_back(FileReport{file.tensor.name});
            checkTensorFile(file, report_.directory, report_.facts, tensor);
        }
    }

    bool required(const BundleFile& file) const {
        switch (file.reader) {
            case Reader::kContext:
                return true;
            case Reader::kStandardGraph:  // the usual one, as long as no model says otherwise
                return hasGraph("standard") || !hasGraph("FeatSynth");
            case Reader::kFeatSynthGraph:
                return hasGraph("FeatSynth");
            default:
                return has(kDeltaModel);
        }
    }

    /// The library has the last word on models, once nothing else can be the reason.
    void tryRenderers() {
        const bool sound =
            std::all_of(report_.files.begin(), report_.files.end(), [](const FileReport& file) {
                return file.severity() != Severity::kFault ||
                       file.name == files::kTargetKeypoints.name;
            });
        for (FileReport& model : models_) {
            if (sound && model.model && model.model->graph != "delta" &&
                model.severity() != Severity::kFault) {
                tryRenderer(report_.directory, keyOf(model.name), model);
            }
        }
    }

    void listOthers() {
        for (const std::string& name : names_) {
            const bool known =
                name == "drive" || name == "target_frames" ||
                std::any_of(report_.files.begin(), report_.files.end(),
                            [&](const FileReport& file) { return file.name == name; });
            if (!known) report_.others.push_back(name);
        }
    }

    BundleReport report_;
    std::vector<std::string> names_;
    std::vector<FileReport> models_;
};

}  // namespace

BundleReport checkBundle(const std::string& directory) {
    return BundleCheck(directory).run();
}

}  // namespace zorv::tools
