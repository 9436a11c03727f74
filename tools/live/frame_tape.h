// Frames kept as they are until there is time to encode them.
#pragma once

#include <condition_variable>
#include <cstddef>
#include <cstdint>
#include <deque>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

namespace zorv::tools {

/// A file without a name beside the final output; it is gone with the program, however that ends.
/// A thread of its own writes, so that whoever hands frames over never waits for the disk, unless
/// it is two seconds behind.
class FrameTape {
  public:
    /// Fails when there is no room for `frames` frames of `frameBytes` beside `output`.
    FrameTape(const std::string& output, size_t frameBytes, int64_t frames);
    ~FrameTape();
    FrameTape(const FrameTape&) = delete;
    FrameTape& operator=(const FrameTape&) = delete;

    /// Takes the next frame, frameBytes long; `frame` becomes a used buffer of that size. Fails
    ///  when an earlier one could not be written.
    void add(std::vector<uint8_t>& frame);
    /// All frames have been added: returns when they are written.
    void finish();
    /// Reads frame `number`, counted from 0. After finish().
    void read(int64_t number, std::vector<uint8_t>& frame);

  private:
    void writeQueue();
    void stop();
    void check();

    size_t frameBytes_;
    int file_ = -1;
    std::thread writer_;

    std::mutex mutex_;  // guards what follows
    std::condition_variable changed_;
    std::deque<std::vector<uint8_t>> queue_, spare_;
    bool stopping_ = false;
    int error_ = 0;
};

}  // namespace zorv::tools
