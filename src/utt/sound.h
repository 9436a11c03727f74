// The sound of one utterance as it was pushed.
#pragma once

#include <cstddef>
#include <cstdint>
#include <list>
#include <vector>

namespace zorv {

/// Positions count samples from the utterance's first one. What is no longer needed leaves at the
/// front, a piece at a time, while positions go on counting. Nothing but cut() and copying a piece
/// allocates, so whoever holds a lock prepares the pieces before it. Not thread-safe.
class Sound {
  public:
    /// A piece of its own for every kPieceSamples; short pushes fill one up together.
    static constexpr std::size_t kPieceSamples = 16384;

    struct Piece {
        std::int64_t begin = 0;
        std::vector<std::int16_t> samples;  ///< with room for kPieceSamples
        std::int64_t end() const { return begin + static_cast<std::int64_t>(samples.size()); }
    };
    using Pieces = std::list<Piece>;

    static Pieces cut(const std::int16_t* pcm, std::size_t n);

    /// n samples can be appended to the last piece.
    bool fits(std::size_t n) const;
    /// REQUIRES: fits(n).
    void append(const std::int16_t* pcm, std::size_t n);
    void append(Pieces& pieces) noexcept;

    /// The number of samples ever appended.
    std::int64_t size() const { return size_; }
    /// Of the memory that holds samples now.
    std::size_t bytes() const { return bytes_; }

    /// Copies [position, position + n); what is not there is 0.
    void read(std::int64_t position, std::size_t n, std::int16_t* out) const;

    /// No sample before `position` (or from it on) will be read again. Pieces that hold only such
    /// samples move to `freed`, for the caller to destroy where no lock is held.
    void releaseBefore(std::int64_t position, Pieces& freed) noexcept;
    void releaseFrom(std::int64_t position, Pieces& freed) noexcept;

  private:
    Pieces pieces_;
    std::int64_t size_ = 0;
    std::size_t bytes_ = 0;
};

}  // namespace zorv
