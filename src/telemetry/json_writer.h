// JSON text, valid whatever goes into it.
#pragma once

#include <concepts>
#include <string>
#include <string_view>

namespace zorv::telemetry {

/// Appends values to a text; the caller's calls are the structure:
///
///     json.open('{');  json.key("n").value(1);  json.close('}');
class JsonWriter {
  public:
    JsonWriter& open(char bracket);
    JsonWriter& close(char bracket);
    JsonWriter& key(std::string_view name);

    /// Control characters are escaped; bytes that are not UTF-8 become U+FFFD.
    JsonWriter& value(std::string_view text);
    /// Null for what is not finite.
    JsonWriter& value(double number);
    JsonWriter& value(std::integral auto number) {
        separate();
        text_ += std::to_string(number);
        return *this;
    }

    const std::string& text() const { return text_; }
    std::string take() { return std::move(text_); }

  private:
    void separate();
    void quote(std::string_view text);

    std::string text_;
    bool fresh_ = true;  ///< nothing to set a comma after
};

}  // namespace zorv::telemetry
