// zorv inspect: is everything in a bundle, and is it what the library expects?
#include <cstdio>
#include <filesystem>
#include <optional>

#include "bundle_check.h"
#include "bundle_sheet.h"
#include "commands.h"
#include "failure.h"
#include "image_writer.h"
#include "output_guard.h"
#include "report_writer.h"

namespace fs = std::filesystem;

namespace zorv::tools {

void inspect(const InspectOptions& options) {
    std::error_code error;
    if (!fs::is_directory(options.bundle, error))
        fail("no bundle directory '{}'; check the path", options.bundle);
    std::optional<OutputGuard> sheet_output;
    if (!options.sheet.empty()) sheet_output.emplace(options.sheet, OutputGuard::Kind::kFile);

    const BundleReport report = check_bundle(options.bundle);
    const std::string text = options.json ? report_json(report) : report_text(report);
    std::fwrite(text.data(), 1, text.size(), stdout);
    if (sheet_output) {
        const auto sheet = draw_bundle(report);
        if (!sheet)
            fail("no sheet of '{}': its manifest does not tell NT, W and H; see the report",
                 options.bundle);
        PngEncoder(sheet->width(), sheet->height()).save(sheet_output->path(), sheet->rgb());
        sheet_output->commit();
    }
    if (!report.good())
        fail("bundle '{}' has {}; see the report and prepare the subject again", options.bundle,
             counts_text(report));
}

}  // namespace zorv::tools
