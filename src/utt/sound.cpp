#include "utt/sound.h"

#include <algorithm>

namespace zorv {
namespace {

std::size_t bytesOf(const Sound::Piece& piece) {
    return piece.samples.capacity() * sizeof(std::int16_t);
}

}  // namespace

Sound::Pieces Sound::cut(const std::int16_t* pcm, std::size_t n) {
    Pieces pieces;
    for (std::size_t done = 0; done < n;) {
        const std::size_t size = std::min(n - done, kPieceSamples);
        std::vector<std::int16_t>& samples = pieces.emplace_back().samples;
        samples.reserve(kPieceSamples);
        samples.assign(pcm + done, pcm + done + size);
        done += size;
    }
    return pieces;
}

bool Sound::fits(std::size_t n) const {
    return !pieces_.empty() && pieces_.back().end() == size_ &&
           pieces_.back().samples.capacity() - pieces_.back().samples.size() >= n;
}

void Sound::append(const std::int16_t* pcm, std::size_t n) {
    std::vector<std::int16_t>& samples = pieces_.back().samples;
    samples.insert(samples.end(), pcm, pcm + n);
    size_ += static_cast<std::int64_t>(n);
}

void Sound::append(Pieces& pieces) noexcept {
    for (Piece& piece : pieces) {
        piece.begin = size_;
        size_ = piece.end();
        bytes_ += bytesOf(piece);
    }
    pieces_.splice(pieces_.end(), pieces);
}

void Sound::read(std::int64_t position, std::size_t n, std::int16_t* out) const {
    std::fill_n(out, n, std::int16_t{0});
    const std::int64_t end = position + static_cast<std::int64_t>(n);
    for (const Piece& piece : pieces_) {
        if (piece.begin >= end) return;
        const std::int64_t from = std::max(position, piece.begin);
        const std::int64_t to = std::min(end, piece.end());
        if (from < to) {
            std::copy_n(piece.samples.begin() + (from - piece.begin), to - from,
                        out + (from - position));
        }
    }
}

void Sound::releaseBefore(std::int64_t position, Pieces& freed) noexcept {
    while (!pieces_.empty() && pieces_.front().end() <= position) {
        bytes_ -= bytesOf(pieces_.front());
        freed.splice(freed.end(), pieces_, pieces_.begin());
    }
}

void Sound::releaseFrom(std::int64_t position, Pieces& freed) noexcept {
    while (!pieces_.empty() && pieces_.back().begin >= position) {
        bytes_ -= bytesOf(pieces_.back());
        freed.splice(freed.begin(), pieces_, std::prev(pieces_.end()));
    }
}

}  // namespace zorv
