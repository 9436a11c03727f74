// Speech features frame by frame: which window of the audio is due, and what it gives.
#pragma once

#include <cstdint>

#include "a2x/a2x_math.h"
#include "a2x/a2x_w2v.h"
#include "a2x/paged_rows.h"

namespace zorv::a2x {

/// The feature frames of one stream or clip. Frames from feat_ready on are zeros.
struct FeatureTrack {
    /// `rows`: frames that will ever be read; what a window gives beyond is dropped.
    explicit FeatureTrack(std::int64_t rows) : feat(rows, kFeatureFloats) {}

    void clear() {
        feat.clear();
        w2v_next = feat_ready = encoder_runs = 0;
    }

    PagedRows feat;
    std::int64_t w2v_next = 0;      ///< first frame of the next window or block
    std::int64_t feat_ready = 0;    ///< leading frames that are final
    std::int64_t encoder_runs = 0;  ///< runs of the legacy encoder or the trunk so far
};

/// The legacy window step: runs the window that is due, unless nothing new can come of it.
/// Returns whether the window is complete and the next one due. `lookAhead`: see planWindow.
bool legacyWindowStep(LegacyWindow& window, const AudioView& audio, std::int64_t lookAhead,
                      FeatureTrack& track);

/// Legacy window steps until `upto` frames are final or the audio does not reach further.
void fill_feat_legacy(LegacyWindow& window, const AudioView& audio, std::int64_t lookAhead,
                      std::int64_t upto, FeatureTrack& track);

/// Blocks of 8 frames from the short-window models until `upto` frames are final or the audio
/// does not reach further. `right`: frames of audio that a block hears behind its end.
void fill_feat_win(ShortWindow& window, const AudioView& audio, std::int64_t right,
                   std::int64_t upto, FeatureTrack& track);

}  // namespace zorv::a2x
