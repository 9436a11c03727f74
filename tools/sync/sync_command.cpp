#include "sync_command.h"

#include <cstdio>
#include <nlohmann/json.hpp>
#include <optional>

#include "failure.h"
#include "lip_sync.h"

namespace zorv::tools {
namespace {

Region parseRegion(const std::string& text) {
    Region region;
    char rest = 0;
    if (std::sscanf(text.c_str(), "%d,%d,%d,%d%c", &region.x, &region.y, &region.w, &region.h,
                    &rest) != 4) {
        fail("--region '{}' is not x,y,w,h in whole pixels; write for example 500,400,280,160",
             text);
    }
    return region;
}

}  // namespace

void sync(const SyncOptions& options) {
    std::optional<Region> region;
    if (!options.region.empty()) region = parseRegion(options.region);
    const LipSync found = measureLipSync(options.video, options.audio, options.shiftFrames, region);

    if (!options.json) {
        fmt::print("lag {} frames, correlation {:.3f}, opening {:.1f} px, mouth width {:.0f} px, ",
                   found.lag, found.correlation, found.opening, found.width);
        if (found.silentFrames > 0) {
            fmt::print("movement in {} silent frames {:.2f} px\n", found.silentFrames,
                       found.silentMovement);
        } else {
            fmt::print("no digital silence\n");
        }
        return;
    }
    const Region& place = found.region;
    nlohmann::json result = {
        {"frames", found.frames},
        {"lag_frames", found.lag},
        {"correlation", found.correlation},
        {"opening_range_px", found.opening},
        {"closed_height_px", found.closed},
        {"mouth_width_px", found.width},
        {"silent_frames", found.silentFrames},
        {"silence_movement_px", nullptr},
        {"silence_drift_px", nullptr},
        {"region", {place.x, place.y, place.w, place.h}},
    };
    if (found.silentFrames > 0) {
        result["silence_movement_px"] = found.silentMovement;
        result["silence_drift_px"] = found.silentDrift;
    }
    fmt::print("{}\n", result.dump(2));
}

}  // namespace zorv::tools
