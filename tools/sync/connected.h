// Connected cells of a raster.
#pragma once

#include <algorithm>
#include <cstddef>
#include <vector>

namespace zorv::tools {

/// The cells of a w x h raster that `inside` holds and that are connected with `seed` over sides or
/// corners. They become `taken`; those that are already are not looked at.
template <class Inside>
std::vector<int> connectedWith(int seed, int w, int h, std::vector<bool>& taken,
                               const Inside& inside) {
    std::vector<int> cells{seed};
    taken[static_cast<std::size_t>(seed)] = true;
    for (std::size_t next = 0; next < cells.size(); ++next) {
        const int x = cells[next] % w, y = cells[next] / w;
        for (int ny = std::max(0, y - 1); ny <= std::min(h - 1, y + 1); ++ny) {
            for (int nx = std::max(0, x - 1); nx <= std::min(w - 1, x + 1); ++nx) {
                const int cell = ny * w + nx;
                if (taken[static_cast<std::size_t>(cell)] || !inside(cell)) continue;
                taken[static_cast<std::size_t>(cell)] = true;
                cells.push_back(cell);
            }
        }
    }
    return cells;
}

}  // namespace zorv::tools
