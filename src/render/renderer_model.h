// How a renderer's model is opened.
#pragma once

#include <memory>
#include <string>

#include "common/model.h"
#include "render/execution_provider.h"

namespace zorv {

/// Opens the model at `path` for renderers, or takes the one that an equal call opened and somebody
/// still holds. GridSample nodes become GridSampleFast nodes where the runtime accepts them; `key`
/// is the model's name for the lines that say so on standard error. `threads` is the runtime's
/// intra-op thread count. Throws with a one-line text.
std::shared_ptr<const Model> openRendererModel(const std::string& path, const std::string& key,
                                               int threads, const ExecutionProvider& provider);

/// An optional feature is on when its variable starts with '1'.
bool switchedOn(const char* variable);

}  // namespace zorv
