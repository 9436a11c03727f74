#include "render/execution_provider.h"

#include <algorithm>
#include <climits>
#include <cstdlib>
#include <stdexcept>

#include "common/ort.h"

namespace zorv {
namespace {

int xnnpackThreads(const std::string& ep, int threads) {
    constexpr std::size_t kPrefix = 8;  // "xnnpack:"
    long n = threads;
    if (ep.size() > kPrefix) n = std::strtol(ep.c_str() + kPrefix, nullptr, 10);
    return n < 1 ? 4 : static_cast<int>(std::min<long>(n, INT_MAX));
}

}  // namespace

ExecutionProvider parseExecutionProvider(const std::string& ep, int threads,
                                         const std::string& bundleDir) {
    if (ep.empty()) return {};
    if (ep.starts_with("xnnpack")) {
        return {"XNNPACK", {{"intra_op_num_threads", std::to_string(xnnpackThreads(ep, threads))}}};
    }
    if (ep.starts_with("coreml")) {
        return {"CoreML", coreMlOptions(ep, bundleDir + "/.coreml_cache")};
    }
    throw std::runtime_error("Renderer: unknown ep '" + ep + "'");
}

}  // namespace zorv
