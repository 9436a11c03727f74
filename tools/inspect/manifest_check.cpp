#include "manifest_check.h"

#include <fmt/format.h>

#include <algorithm>
#include <cmath>
#include <exception>
#include <nlohmann/json.hpp>

#include "bundle/zorv_bundle.h"
#include "bundle_files.h"
#include "common/file.h"
#include "common/key_finder.h"
#include "common/memory.h"
#include "paste/zorv_paste.h"

namespace zorv::tools {
namespace {

constexpr const char* kSpace = " \t\r\n";

int occurrences(const std::string& text, const std::string& needle) {
    int count = 0;
    for (size_t at = text.find(needle); at != text.npos; at = text.find(needle, at + 1)) ++count;
    return count;
}

/// Reads keys with the library's key finder and reports what is wrong with each, and where that
/// reading differs from what a JSON parser would see.
class KeyReader {
  public:
    KeyReader(const std::string& text, FileReport& report) : text_(text), report_(report) {}

    std::optional<std::string> quoted(const std::string& key) {
        const auto at = place(key, true);
        if (!at) return std::nullopt;
        auto text = quotedFrom(text_, *at);
        if (!text) report_.fault(fmt::format("no quoted text follows key \"{}\"", key));
        return text;
    }

    std::optional<double> number(const std::string& key, bool required = true) {
        const auto at = place(key, required);
        if (!at) return std::nullopt;
        const double value = numberFrom(text_, *at);
        const size_t start = text_.find_first_not_of(kSpace, *at);
        if (start == text_.npos || std::string("+-.0123456789").find(text_[start]) == text_.npos) {
            report_.warn(fmt::format("\"{}\" is {}, which reads as {}", key, excerpt(*at), value),
                         "a number");
        }
        return value;
    }

    /// A whole number that `accepts` takes; nothing, and a fault, when it does not.
    template <class Accepts>
    std::optional<int> whole(const std::string& key, int least, const Accepts& accepts) {
        const auto value = number(key);
        if (!value) return std::nullopt;
        const int32_t cut = toInt32(*value);
        if (!accepts(cut)) {
            report_.fault(fmt::format("\"{}\" reads as {}", key, cut),
                          fmt::format("a whole number of at least {}", least));
            return std::nullopt;
        }
        if (cut != *value) {
            report_.warn(fmt::format("\"{}\" is {}, which reads as {}", key, *value, cut),
                         "a whole number");
        }
        return cut;
    }

  private:
    std::optional<size_t> place(const std::string& key, bool required) {
        const std::string needle = '"' + key + '"';
        const KeyPosition found = findKeyPosition(text_, key);
        if (found.status == KeyStatus::kMissing) {
            if (required) report_.fault(fmt::format("key {} is missing", needle));
            return std::nullopt;
        }
        if (found.status == KeyStatus::kNoColon) {
            if (required) {
                report_.fault(fmt::format("no colon follows key {}", needle));
            } else {
                report_.warn(fmt::format("no colon follows key {}, which is ignored", needle));
            }
            return std::nullopt;
        }
        const int count = occurrences(text_, needle);
        if (count > 1) {
            report_.warn(fmt::format("{} is quoted {} times; the first one is read: {}", needle,
                                     count, excerpt(found.afterColon)),
                         "one key of that name and no such text before it");
        }
        const size_t end = text_.find(needle) + needle.size();
        if (text_.find_first_not_of(kSpace, end) + 1 != found.afterColon) {
            report_.warn(fmt::format("{} is not followed by a colon; a later one is taken: {}",
                                     needle, excerpt(found.afterColon)));
        }
        return found.afterColon;
    }

    std::string excerpt(size_t from) const {
        const size_t start = std::min(text_.find_first_not_of(kSpace, from), text_.size());
        const size_t end = std::min(text_.find_first_of(",}\n", start), text_.size());
        return end == start ? "nothing" : text_.substr(start, std::min<size_t>(end - start, 40));
    }

    const std::string& text_;
    FileReport& report_;
};

/// Why the compositor takes no such kernel; "" when it does.
std::string kernelFault(const BundleFacts& facts, int ksize) try {
    const int side = std::min(facts.crop.value_or(1), Paste::kMaxSide);
    const size_t pixels = static_cast<size_t>(side) * static_cast<size_t>(side);
    const Paste taken(std::vector<uint8_t>(pixels), side, {1, 1, ksize});
    return "";
} catch (const std::exception& error) {
    return error.what();
}

void readSharpening(KeyReader& keys, BundleFacts& facts, FileReport& report) {
    facts.amount = keys.number("amount");
    facts.sigma = keys.number("sigma");
    if (!std::isfinite(facts.amount.value_or(0)) || !std::isfinite(facts.sigma.value_or(0))) {
        report.warn("\"amount\" or \"sigma\" is not finite", "finite numbers");
    }
    if (facts.sigma == 0) {
        report.warn("\"sigma\" is 0, so that crops are not sharpened", "a number above 0");
    }
    const auto ksize = keys.number("ksize");
    if (!ksize) return;
    const int size = toInt32(*ksize);
    if (const std::string why = kernelFault(facts, size); !why.empty()) {
        report.fault(fmt::format("\"ksize\" reads as {}: {}", size, why),
                     "an odd number of at least 1 that leaves room for the crop");
    } else {
        facts.ksize = size;
    }
}

void readPlacementSize(KeyReader& keys, BundleFacts& facts, FileReport& report) {
    const int width = facts.width.value_or(0), height = facts.height.value_or(0);
    facts.placementWidth = toInt32(keys.number("M_src_w", false).value_or(width));
    facts.placementHeight = toInt32(keys.number("M_src_h", false).value_or(height));
    if (!facts.width || !facts.height) return;
    const std::string size =
        fmt::format("M_src_w x M_src_h is {} x {}", facts.placementWidth, facts.placementHeight);
    const std::string frames = fmt::format("the proportions of W x H, {} x {}", width, height);
    if (facts.placementWidth < 1 || facts.placementHeight < 1) {
        report.warn(size + ", so placements are taken as they are", frames);
        return;
    }
    const double across = 1.0 * width / facts.placementWidth;
    const double down = 1.0 * height / facts.placementHeight;
    if (std::abs(across / down - 1) > 0.02) {  // rounding of either size is no distortion
        report.warn(fmt::format("{}, which scales placements by {:.3f} across and {:.3f} down",
                                size, across, down),
                    frames);
    }
}

void checkFrameCache(const BundleFacts& facts, FileReport& report) {
    if (!facts.targetFrames || !facts.width || !facts.height) return;
    try {
        const ZeroedArray<uint8_t> cache(
            checkedProduct(checkedProduct(toCount(*facts.targetFrames), toCount(*facts.width)),
                           checkedProduct(toCount(*facts.height), 3)));
    } catch (const std::bad_alloc&) {
        report.fault(fmt::format("NT frames of W x H take {:.3g} bytes",
                                 3.0 * *facts.targetFrames * *facts.width * *facts.height),
                     "what fits into the address space");
    }
}

BundleFacts readFacts(const std::string& text, FileReport& report) {
    BundleFacts facts;
    KeyReader keys(text, report);
    const auto format = keys.quoted("format");
    if (format && *format != kBundleFormat) {
        report.fault(fmt::format("\"format\" is \"{}\"", *format),
                     fmt::format("\"{}\"", kBundleFormat));
    }
    facts.agent = keys.quoted("agent").value_or("");
    facts.targetFrames = keys.whole("NT", 1, isBundleSize);
    facts.height = keys.whole("H", 1, isBundleSize);
    facts.width = keys.whole("W", 1, isBundleSize);
    facts.crop = keys.whole("crop", 1, isBundleSize);
    if (facts.crop && *facts.crop > Paste::kMaxSide) {
        report.fault(fmt::format("\"crop\" is {}: such crops cannot be pasted", *facts.crop),
                     fmt::format("at most {}", Paste::kMaxSide));
    }
    checkFrameCache(facts, report);
    facts.driveFrames = keys.whole("frames", 0, [](int32_t count) { return count >= 0; });
    readSharpening(keys, facts, report);
    readPlacementSize(keys, facts, report);
    return facts;
}

}  // namespace

BundleFacts checkManifest(const std::string& directory, FileReport& report) {
    if (!fileSizeOf(directory, report)) return {};
    std::string text;
    if (readWholeFile(directory + "/" + report.name, text) != ReadStatus::kOk) {
        report.fault("cannot be read");
        return {};
    }
    report.content = fmt::format("{} bytes", text.size());
    if (!nlohmann::json::accept(text)) {
        report.warn("is no valid JSON; the keys are found all the same", "a JSON object");
    }
    return readFacts(text, report);
}

}  // namespace zorv::tools
