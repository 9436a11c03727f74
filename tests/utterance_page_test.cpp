// The host of docs/utterance.md as a process: what it writes is what a viewer sees and hears.
#include <random>
#include <thread>

#include "support/program.h"
#include "support/test_motion.h"

namespace zorv::test {
namespace {

constexpr std::size_t kFrameSamples = 1920;

class PageHostTest : public ProgramTest {
  protected:
    PageHostTest() {
        bundle_.useModel("b24_fp32", "render_b4");
        std::mt19937 random(6);
        for (auto& sample : pcm_) sample = static_cast<std::int16_t>(random() % 20000 - 10000);
    }

    std::string bytes(std::size_t samples) const {
        return {reinterpret_cast<const char*>(pcm_.data()), samples * 2};
    }

    pid_t startHost(const std::function<void()>& inChild) {
        return start({bundle_.dir(), motion_.dir(), path("video"), path("sound")}, inChild);
    }
    /// What was played: where speech began is a whole frame, and everything else is silence.
    void expectHeard(std::size_t samples) {
        const std::string bytes = readFile(path("sound"));
        std::vector<std::int16_t> heard(bytes.size() / 2);
        std::copy(bytes.begin(), bytes.end(), reinterpret_cast<char*>(heard.data()));
        ASSERT_EQ(heard.size() % kFrameSamples, 0u);
        const auto begin = std::find_if(heard.begin(), heard.end(), [](auto s) { return s != 0; });
        const std::size_t at =
            static_cast<std::size_t>(begin - heard.begin()) / kFrameSamples * kFrameSamples;
        ASSERT_GE(heard.size(), at + samples);
        std::vector<std::int16_t> expected(heard.size());
        std::copy_n(pcm_.begin(), samples, expected.begin() + static_cast<std::ptrdiff_t>(at));
        EXPECT_EQ(heard, expected);
        const std::string video = readFile(path("video"));
        const std::size_t frame = 6 + 48 * 40 * 3 / 2;
        EXPECT_EQ(video.size() - video.find('\n') - 1, heard.size() / kFrameSamples * frame);
    }

    TestBundle bundle_{{.nt = 5}};
    TestMotion motion_{{.nt = 5}};
    std::vector<std::int16_t> pcm_ = std::vector<std::int16_t>(kFrameSamples * 500);
};

TEST_F(PageHostTest, PlaysWhatItIsGiven) {
    constexpr std::size_t kSamples = 40 * kFrameSamples + 700;
    writeFile(path("pcm"), bytes(kSamples));
    const Outcome outcome =
        finish(startHost([this] { dup2(open(path("pcm").c_str(), O_RDONLY), STDIN_FILENO); }));
    EXPECT_EQ(outcome.code, 0) << outcome.err;
    EXPECT_EQ(outcome.out, "utterance 1: started at 1920\nutterance 1: finished at 77500\n");
    expectHeard(kSamples);
}

TEST_F(PageHostTest, StopsWhereItIsInterrupted) {
    int ends[2];
    ASSERT_EQ(pipe2(ends, O_CLOEXEC), 0);
    const pid_t host = startHost([&] { dup2(ends[0], STDIN_FILENO); });
    close(ends[0]);
    // 20 s, of which it will have shown the beginning; and then it goes on listening.
    std::jthread speaker([&] {
        const std::string sound = bytes(pcm_.size());
        EXPECT_EQ(write(ends[1], sound.data(), sound.size()), static_cast<ssize_t>(sound.size()));
    });
    EXPECT_TRUE(waitWhileRuns(host, [&] {
        return access(path("stdout").c_str(), F_OK) == 0 &&
               readFile(path("stdout")).find("started") != std::string::npos;
    }));
    speaker.join();
    kill(host, SIGUSR1);
    const Outcome outcome = finish(host);
    close(ends[1]);
    EXPECT_EQ(outcome.code, 0) << outcome.err;
    int at = 0;
    const std::size_t told = outcome.out.find("utterance 1: interrupted at ");
    ASSERT_NE(told, std::string::npos) << outcome.out;
    ASSERT_EQ(std::sscanf(outcome.out.c_str() + told, "utterance 1: interrupted at %d", &at), 1);
    EXPECT_EQ(static_cast<std::size_t>(at) % kFrameSamples, 0u);
    expectHeard(static_cast<std::size_t>(at));
}

}  // namespace
}  // namespace zorv::test
