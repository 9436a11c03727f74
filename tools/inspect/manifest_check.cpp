#include "manifest_check.h"

#include <fmt/format.h>

#include <algorithm>
#include <cmath>
#include <cstdlib>
#include <limits>
#include <nlohmann/json.hpp>

#include "bundle_files.h"
#include "failure.h"
#include "file_view.h"

namespace zorv::tools {
namespace {

constexpr const char* kFormat = "zorv-bundle-v0";
constexpr int kMaxCrop = 1024;           // the compositor refuses wider ones
constexpr int64_t kMaxPadded = 1 << 14;  // crop with the border of the sharpening kernel
constexpr double kMaxCache = 0x1p46;     // bytes of all frames; beyond it no address space is left
constexpr const char* kSpace = " \t\r\n";

int32_t cutToInt32(double value) {
    using Limits = std::numeric_limits<int32_t>;
    if (std::isnan(value)) return 0;
    if (value <= Limits::min()) return Limits::min();
    return value >= Limits::max() ? Limits::max() : static_cast<int32_t>(value);
}

int occurrences(const std::string& text, const std::string& needle) {
    int count = 0;
    for (size_t at = text.find(needle); at != text.npos; at = text.find(needle, at + 1)) ++count;
    return count;
}

/// Reads keys as the library does (the first occurrence of the quoted key anywhere in the text and
/// what follows the next colon) and reports what is wrong with each, and where that reading differs
/// from what a JSON parser would see.
class KeyReader {
  public:
    KeyReader(const std::string& text, FileReport& report) : text_(text), report_(report) {}

    std::optional<std::string> quoted(const std::string& key) {
        const auto at = place(key, true);
        if (!at) return std::nullopt;
        const size_t open = text_.find('"', *at);
        const size_t close = open == text_.npos ? open : text_.find('"', open + 1);
        if (close == text_.npos) {
            report_.fault(fmt::format("no quoted text follows key \"{}\"", key));
            return std::nullopt;
        }
        return text_.substr(open + 1, close - open - 1);
    }

    std::optional<double> number(const std::string& key, bool required = true) {
        const auto at = place(key, required);
        if (!at) return std::nullopt;
        const double value = std::strtod(text_.c_str() + *at, nullptr);
        const size_t start = text_.find_first_not_of(kSpace, *at);
        if (start == text_.npos || std::string("+-.0123456789").find(text_[start]) == text_.npos) {
            report_.warn(fmt::format("\"{}\" is {}, which reads as {}", key, excerpt(*at), value),
                         "a number");
        }
        return value;
    }

    /// A whole number of at least `least`; nothing, and a fault, when it is not.
    std::optional<int> whole(const std::string& key, int least) {
        const auto value = number(key);
        if (!value) return std::nullopt;
        const int32_t cut = cutToInt32(*value);
        if (cut < least) {
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
        const size_t at = text_.find(needle);
        if (at == text_.npos) {
            if (required) report_.fault(fmt::format("key {} is missing", needle));
            return std::nullopt;
        }
        const size_t end = at + needle.size(), colon = text_.find(':', end);
        if (colon == text_.npos) {
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
                                     count, excerpt(colon + 1)),
                         "one key of that name and no such text before it");
        }
        if (text_.find_first_not_of(kSpace, end) != colon) {
            report_.warn(fmt::format("{} is not followed by a colon; a later one is taken: {}",
                                     needle, excerpt(colon + 1)));
        }
        return colon + 1;
    }

    std::string excerpt(size_t from) const {
        const size_t start = std::min(text_.find_first_not_of(kSpace, from), text_.size());
        const size_t end = std::min(text_.find_first_of(",}\n", start), text_.size());
        return end == start ? "nothing" : text_.substr(start, std::min<size_t>(end - start, 40));
    }

    const std::string& text_;
    FileReport& report_;
};

void readSharpening(KeyReader& keys, BundleFacts& facts, FileReport& report) {
    facts.amount = keys.number("amount");
    facts.sigma = keys.number("sigma");
    if (!std::isfinite(facts.amount.value_or(0)) || !std::isfinite(facts.sigma.value_or(0))) {
        report.warn("\"amount\" or \"sigma\" is not finite", "finite numbers");
    }
    const auto ksize = keys.number("ksize");
    if (!ksize) return;
    const int size = cutToInt32(*ksize);
    const int64_t most = kMaxPadded - std::min(facts.crop.value_or(1), kMaxCrop) + 1;
    if (size < 1 || size % 2 == 0) {
        report.fault(fmt::format("\"ksize\" reads as {}", size), "an odd number of at least 1");
    } else if (size > most) {
        report.fault(fmt::format("\"ksize\" reads as {}", size), fmt::format("at most {}", most));
    } else {
        facts.ksize = size;
    }
}

void readPlacementSize(KeyReader& keys, BundleFacts& facts, FileReport& report) {
    const int width = facts.width.value_or(0), height = facts.height.value_or(0);
    facts.placementWidth = cutToInt32(keys.number("M_src_w", false).value_or(width));
    facts.placementHeight = cutToInt32(keys.number("M_src_h", false).value_or(height));
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
    const double bytes = 3.0 * *facts.targetFrames * *facts.width * *facts.height;
    if (bytes > kMaxCache) {
        report.fault(fmt::format("NT frames of W x H take {:.3g} bytes", bytes),
                     fmt::format("at most {:.3g}", kMaxCache));
    }
}

BundleFacts readFacts(const std::string& text, FileReport& report) {
    BundleFacts facts;
    KeyReader keys(text, report);
    const auto format = keys.quoted("format");
    if (format && *format != kFormat) {
        report.fault(fmt::format("\"format\" is \"{}\"", *format), fmt::format("\"{}\"", kFormat));
    }
    facts.agent = keys.quoted("agent").value_or("");
    facts.targetFrames = keys.whole("NT", 1);
    facts.height = keys.whole("H", 1);
    facts.width = keys.whole("W", 1);
    facts.crop = keys.whole("crop", 1);
    if (facts.crop && *facts.crop > kMaxCrop) {
        report.fault(fmt::format("\"crop\" is {}: such crops cannot be pasted", *facts.crop),
                     fmt::format("at most {}", kMaxCrop));
    }
    checkFrameCache(facts, report);
    facts.driveFrames = keys.whole("frames", 0);
    readSharpening(keys, facts, report);
    readPlacementSize(keys, facts, report);
    return facts;
}

}  // namespace

BundleFacts checkManifest(const std::string& directory, FileReport& report) {
    std::string text;
    try {
        if (!fileSizeOf(directory, report)) return {};
        const FileView file(directory + "/" + report.name);
        text.assign(reinterpret_cast<const char*>(file.data()), file.size());
    } catch (const Failure& error) {
        report.fault(fmt::format("cannot be read: {}", error.what()));
        return {};
    }
    report.content = fmt::format("{} bytes", text.size());
    if (!nlohmann::json::accept(text)) {
        report.warn("is no valid JSON; the keys are found all the same", "a JSON object");
    }
    return readFacts(text, report);
}

}  // namespace zorv::tools
