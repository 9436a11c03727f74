#include "render/onnx_wire.h"

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

}  // namespace zorv
