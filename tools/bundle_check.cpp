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

bool starts_with(const std::string& text, const std::string& beginning) {
    return text.rfind(beginning, 0) == 0;
}

bool is_renderer(const std::string& name) {
    return starts_with(name, "model_") && fs::path(name).extension() == ".onnx";
}

std::string key_of(const std::string& name) {
    const size_t prefix = sizeof "model_" - 1;
    return name.substr(prefix, name.size() - prefix - (sizeof ".onnx" - 1));
}

/** Every name in the bundle's folders but the target frames. */
std::vector<std::string> names_in(const std::string& directory) {
    std::vector<std::string> names;
    std::error_code error;
    for (const std::string folder : {"", "drive/"})
        for (fs::directory_iterator entry(fs::path(directory) / folder, error), end;
             !error && entry != end; entry.increment(error))
            names.push_back(folder + entry->path().filename().string());
    std::sort(names.begin(), names.end());
    return names;
}

class BundleCheck {
  public:
    explicit BundleCheck(const std::string& directory)
        : report_{directory, {}, {}, {}}, names_(names_in(directory)) {}

    BundleReport run() {
        FileReport manifest{kManifest};
        report_.facts = check_manifest(report_.directory, manifest);
        report_.files.push_back(std::move(manifest));
        check_models();
        check_tensors();
        try_renderers();
        for (FileReport& run : check_frames(report_.directory, report_.facts))
            report_.files.push_back(std::move(run));
        std::move(models_.begin(), models_.end(), std::back_inserter(report_.files));
        list_others();
        return std::move(report_);
    }

  private:
    bool has(const std::string& name) const {
        return std::binary_search(names_.begin(), names_.end(), name);
    }

    bool has_graph(const char* graph) const {
        return std::any_of(models_.begin(), models_.end(), [&](const FileReport& file) {
            return file.model && file.model->graph == graph;
        });
    }

    void check_models() {
        for (const std::string& name : names_) {
            if (!is_renderer(name)) continue;
            FileReport& model = models_.emplace_back(FileReport{name});
            check_renderer_model(report_.directory, report_.facts, model);
        }
        if (models_.empty())
            models_.emplace_back(FileReport{"model_<key>.onnx"})
                .fault("missing", "at least one renderer model");
        if (!has(kBatchRenderer)) need_for_batch(kBatchRenderer, "a renderer model");
        if (has(kDeltaModel))
            check_delta_model(report_.directory, models_.emplace_back(FileReport{kDeltaModel}));
        else
            need_for_batch(kDeltaModel, "a delta model");
    }

    /** A file that only the batch stream reads: without any of them the bundle is whole. */
    void need_for_batch(const std::string& name, const std::string& expected) {
        FileReport& file = models_.emplace_back(FileReport{name});
        if (has(kDeltaModel))
            file.fault("missing", expected);
        else
            file.warn("missing, so that the batch stream cannot be used", expected);
    }

    void check_tensors() {
        for (const TensorFile& file : tensor_files()) {
            if (!has(file.name) && !required(file)) {
                if (file.reader == Reader::kBatchStream)
                    need_for_batch(file.name, expected_content(file, report_.facts));
                continue;
            }
            FileReport& tensor = report_.files.emplace_back(FileReport{file.name});
            check_tensor_file(file, report_.directory, report_.facts, tensor);
        }
    }

    bool required(const TensorFile& file) const {
        switch (file.reader) {
            case Reader::kContext:
                return true;
            case Reader::kStandardGraph:  // the usual one, as long as no model says otherwise
                return has_graph("standard") || !has_graph("FeatSynth");
            case Reader::kFeatSynthGraph:
                return has_graph("FeatSynth");
            default:
                return has(kDeltaModel);
        }
    }

    /** The library has the last word on models, once nothing else can be the reason. */
    void try_renderers() {
        const bool sound =
            std::all_of(report_.files.begin(), report_.files.end(), [](const FileReport& file) {
                return file.severity() != Severity::kFault || file.name == "xs_target.bin";
            });
        for (FileReport& model : models_)
            if (sound && model.model && model.model->graph != "delta" &&
                model.severity() != Severity::kFault)
                try_renderer(report_.directory, key_of(model.name), model);
    }

    void list_others() {
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

BundleReport check_bundle(const std::string& directory) {
    return BundleCheck(directory).run();
}

}  // namespace zorv::tools
