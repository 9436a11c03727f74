// Keypoints of frames that are shown later than planned, and of the lips' way back to rest.
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <vector>

#include "bundle/zorv_bundle.h"

namespace zorv {

using Keypoints = std::array<float, kKeypointFloats>;

/// The bundle frames' own keypoints, and the body's walk through them: forward, in a loop.
class KeypointWalk {
  public:
    /// `rows`: NT x 63 floats, or empty when they are not known.
    KeypointWalk(const std::vector<float>& rows, int nt) : rows_(rows), nt_(nt) {}

    bool known() const { return !rows_.empty(); }
    /// REQUIRES: known().
    const float* row(int index) const {
        return rows_.data() + static_cast<std::size_t>(index) * kKeypointFloats;
    }
    int after(int index, int steps = 1) const { return (index + steps) % nt_; }

    /// Moves a speech frame by 0 <= steps < NT bundle frames: its index, its source keypoints (63
    /// floats) and, by the difference of the rows, its driving keypoints. Without rows it stays.
    void shift(int steps, std::int32_t& index, float* source, float* driving) const;

    /// How far `driving` is from rest on bundle frame `index`.
    Keypoints offset(int index, const float* driving) const;
    /// Rest on bundle frame `index` plus weight x offset.
    Keypoints displaced(int index, float weight, const Keypoints& offset) const;

  private:
    const std::vector<float>& rows_;
    const int nt_;
};

}  // namespace zorv
