// A picture of up to 4 x 3 small frames, evenly spaced over a clip.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "av.h"

namespace zorv::tools {

class ContactSheet {
  public:
    ContactSheet(int width, int height, int totalFrames);
    /// Keeps frame `index` when it is one of the chosen; W x H x 3 RGB bytes.
    void add(int index, const uint8_t* rgb);
    void save(const std::string& path) const;

  private:
    static constexpr int kColumns = 4, kRows = 3, kCellWidth = 320, kGap = 4;

    int sourceWidth_, sourceHeight_, cellHeight_;
    int columns_, rows_, sheetWidth_, sheetHeight_;
    std::vector<int> chosen_;
    std::vector<uint8_t> pixels_;
    av::Owner<SwsContext> scaler_;
};

}  // namespace zorv::tools
