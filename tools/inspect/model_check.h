// The models of a bundle: do they load, and do they have the inputs that the library feeds?
#pragma once

#include <string>

#include "bundle_report.h"

namespace zorv::tools {

/// Fills report.model and reports what is wrong with the renderer model report.name.
void checkRendererModel(const std::string& directory, const BundleFacts& facts, FileReport& report);

/// The same for the delta model of the batch stream, with one run on zeros.
void checkDeltaModel(const std::string& directory, FileReport& report);

/// Opens the bundle with renderer `key` in the library and renders one frame, and once more without
/// the rewrite of its GridSample nodes, if it has any. Only for a bundle whose files are all right:
/// a failure is the model's.
void tryRenderer(const std::string& directory, const std::string& key, FileReport& report);

/// "4 x 64 x N x 32"
std::string shapeText(const ModelTensor& tensor);

}  // namespace zorv::tools
