#include "inspect_command.h"

#include <cstdio>
#include <filesystem>
#include <optional>

#include "bundle_check.h"
#include "bundle_sheet.h"
#include "failure.h"
#include "image_writer.h"
#include "output_guard.h"
#include "report_writer.h"

namespace fs = std::filesystem;

namespace zorv::tools {

void inspect(const InspectOptions& options) {
    std::error_code error;
    if (!fs::is_directory(options.bundle, error)) {
        fail("no bundle directory '{}'; check the path", options.bundle);
    }
    std::optional<OutputGuard> sheetOutput;
    if (!options.sheet.empty()) sheetOutput.emplace(options.sheet, OutputGuard::Kind::kFile);

    const BundleReport report = checkBundle(options.bundle);
    const std::string text = options.json ? reportJson(report) : reportText(report);
    std::fwrite(text.data(), 1, text.size(), stdout);
    if (sheetOutput) {
        const auto sheet = drawBundle(report);
        if (!sheet) {
            fail("no sheet of '{}': its manifest does not tell NT, W and H; see the report",
                 options.bundle);
        }
        PngEncoder(sheet->width(), sheet->height()).save(sheetOutput->path(), sheet->rgb().data());
        sheetOutput->commit();
    }
    if (!report.good()) {
        fail("bundle '{}' has {}; see the report and prepare the subject again", options.bundle,
             countsText(report));
    }
}

}  // namespace zorv::tools
