#include "render/onnx_wire.h"

#include <algorithm>
#include <stdexcept>

namespace zorv {

std::uint64_t GsReader::readVarint() {
    constexpr int kMaxBytes = 10;
    std::uint64_t value = 0;
    for (int i = 0; i < kMaxBytes; ++i) {
        if (cursor_ == end_) break;
        const std::uint8_t byte = *cursor_++;
        value |= static_cast<std::uint64_t>(byte & 0x7f) << (7 * i);
        if (!(byte & 0x80)) return value;
    }
    throw std::runtime_error("onnx: bad varint");
}

const std::uint8_t* GsReader::skip(std::uint64_t bytes) {
    if (bytes > static_cast<std::uint64_t>(end_ - cursor_)) {
        throw std::runtime_error("onnx: truncated");
    }
    const std::uint8_t* start = cursor_;
    cursor_ += bytes;
    return start;
}

bool GsReader::next(GsField& field) {
    if (cursor_ >= end_) return false;
    field = GsField{};
    field.raw = cursor_;
    const std::uint64_t tag = readVarint();
    field.number = tag >> 3;
    field.type = static_cast<WireType>(tag & 7);
    switch (field.type) {
        case WireType::kVarint:
            field.varint = readVarint();
            break;
        case WireType::kFixed64:
            skip(8);
            break;
        case WireType::kFixed32:
            skip(4);
            break;
        case WireType::kBytes: {
            const std::uint64_t length = readVarint();
            field.payload = skip(length);
            field.payloadLength = static_cast<std::size_t>(length);
            break;
        }
        default:
            throw std::runtime_error("onnx: bad wire type");
    }
    field.rawLength = static_cast<std::size_t>(cursor_ - field.raw);
    return true;
}

void gsPutVarint(std::string& out, std::uint64_t value) {
    for (; value >= 0x80; value >>= 7) out.push_back(static_cast<char>((value & 0x7f) | 0x80));
    out.push_back(static_cast<char>(value));
}

void putRaw(std::string& out, const GsField& field) {
    out.append(reinterpret_cast<const char*>(field.raw), field.rawLength);
}

void putBytes(std::string& out, std::uint64_t number, std::string_view payload) {
    gsPutVarint(out, number << 3 | static_cast<std::uint64_t>(WireType::kBytes));
    gsPutVarint(out, payload.size());
    out.append(payload);
}

void putInt(std::string& out, std::uint64_t number, std::uint64_t value) {
    gsPutVarint(out, number << 3 | static_cast<std::uint64_t>(WireType::kVarint));
    gsPutVarint(out, value);
}

bool importsDomain(std::string_view model, std::string_view domain) {
    GsReader reader(model);
    for (GsField field; reader.next(field);) {
        if (!field.isBytes(onnx::kModelOpsetImport)) continue;
        bool imports = false;
        GsReader parts(field);
        for (GsField part; parts.next(part);) {
            if (part.isBytes(onnx::kOpsetDomain)) imports = part.text() == domain;
        }
        if (imports) return true;
    }
    return false;
}

std::string opsetImport(std::string_view domain) {
    std::string import, field;
    putBytes(import, onnx::kOpsetDomain, domain);
    putInt(import, onnx::kOpsetVersion, 1);
    putBytes(field, onnx::kModelOpsetImport, import);
    return field;
}

void writeEdited(std::string_view model, const std::vector<WireEdit>& edits,
                 std::string_view appended, std::string& out) {
    std::size_t most = model.size() + appended.size() + 16;
    for (const WireEdit& edit : edits) most += edit.with.size();
    out.clear();
    out.reserve(most);
    auto next = edits.begin();
    GsReader reader(model);
    for (GsField field; reader.next(field);) {
        if (!field.isBytes(onnx::kModelGraph)) {
            putRaw(out, field);
            continue;
        }
        const std::uint8_t* at = field.payload;
        const std::uint8_t* const end = at + field.payloadLength;
        const auto last =
            std::find_if(next, edits.end(), [&](const WireEdit& edit) { return edit.at >= end; });
        std::size_t length = field.payloadLength;
        for (auto edit = next; edit != last; ++edit) length += edit->with.size() - edit->length;
        gsPutVarint(out, onnx::kModelGraph << 3 | static_cast<std::uint64_t>(WireType::kBytes));
        gsPutVarint(out, length);
        const auto keepUpTo = [&](const std::uint8_t* stop) {
            out.append(reinterpret_cast<const char*>(at), static_cast<std::size_t>(stop - at));
        };
        for (; next != last; ++next) {
            keepUpTo(next->at);
            out.append(next->with);
            at = next->at + next->length;
        }
        keepUpTo(end);
    }
    out.append(appended);
}
}  // namespace zorv
