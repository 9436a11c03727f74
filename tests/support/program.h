// The program `zorv` as a user meets it: a process, its files, its one line of advice.
//
// Tests that include this define ZORV_PROGRAM, the program's path.
#pragma once

#include <fcntl.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cmath>
#include <cstdint>
#include <filesystem>
#include <functional>
#include <string>
#include <vector>

#include "support/test_bundle.h"
#include "support/threads.h"

namespace zorv::test {

inline std::string wavOf(const std::vector<std::int16_t>& samples, int rate) {
    const auto bytes = static_cast<std::uint32_t>(samples.size() * 2);
    std::string text;
    const auto number = [&](std::uint32_t value, int size) {
        for (int i = 0; i < size; ++i) text += static_cast<char>(value >> (8 * i) & 0xff);
    };
    text += "RIFF", number(36 + bytes, 4), text += "WAVEfmt ", number(16, 4), number(1, 2);
    number(1, 2), number(static_cast<std::uint32_t>(rate), 4);
    number(static_cast<std::uint32_t>(rate) * 2, 4), number(2, 2), number(16, 2);
    text += "data", number(bytes, 4);
    return text.append(reinterpret_cast<const char*>(samples.data()), bytes);
}

struct Outcome {
    int code = -1;
    std::string out, err;
};

class ProgramTest : public testing::Test {
  protected:
    std::string path(const std::string& name) const { return work_.path() + "/" + name; }
    /// A file in the folder that the program may write to.
    std::string target(const std::string& name) {
        std::filesystem::create_directory(path("out"));
        return path("out/" + name);
    }
    std::string speech(double seconds, int rate = 22050) {
        std::vector<std::int16_t> samples(static_cast<size_t>(seconds * rate));
        for (size_t i = 0; i < samples.size(); ++i)
            samples[i] = static_cast<std::int16_t>(8000 * std::sin(static_cast<double>(i) * 0.05));
        writeFile(path("speech.wav"), wavOf(samples, rate));
        return path("speech.wav");
    }
    pid_t start(std::vector<std::string> arguments, const std::function<void()>& inChild = {}) {
        arguments.insert(arguments.begin(), ZORV_PROGRAM);
        std::vector<char*> words;
        for (std::string& word : arguments) words.push_back(word.data());
        words.push_back(nullptr);
        const std::string out = path("stdout"), err = path("stderr");
        const pid_t child = fork();
        if (child != 0) return child;
        // A run in the background may have left it ignored, which the program respects.
        signal(SIGINT, SIG_DFL);
        const int flags = O_WRONLY | O_CREAT | O_TRUNC;
        dup2(open(out.c_str(), flags, 0600), STDOUT_FILENO);
        dup2(open(err.c_str(), flags, 0600), STDERR_FILENO);
        if (inChild) inChild();
        execv(words[0], words.data());
        _exit(127);
    }

    /// Until `condition` holds; false when the program ended before.
    static bool waitWhileRuns(pid_t child, const std::function<bool()>& condition) {
        siginfo_t ended{};
        const auto over = [&] {
            waitid(P_PID, static_cast<id_t>(child), &ended, WEXITED | WNOHANG | WNOWAIT);
            return ended.si_pid != 0;
        };
        waitFor([&] { return condition() || over(); });
        return condition();
    }

    Outcome finish(pid_t child) {
        int status = 0;
        waitpid(child, &status, 0);
        return {WIFEXITED(status) ? WEXITSTATUS(status) : 1000 + WTERMSIG(status),
                readFile(path("stdout")), readFile(path("stderr"))};
    }

    Outcome run(const std::vector<std::string>& arguments,
                const std::function<void()>& inChild = {}) {
        return finish(start(arguments, inChild));
    }

    /// One line that names the program and holds `advice`; progress lines and the model runtime's
    /// own log before it are no fault.
    void expectAdvice(const Outcome& outcome, int code, const std::string& advice) {
        EXPECT_EQ(outcome.code, code) << outcome.err;
        std::string err = outcome.err;
        while (!err.empty() && (err[0] == '[' || err.find(" left\n") < err.find('\n')))
            err.erase(0, err.find('\n') + 1);
        while (err.starts_with("\x1b[")) err.erase(0, err.find('\n') + 1);
        EXPECT_EQ(err.rfind("zorv: ", 0), 0u) << outcome.err;
        EXPECT_EQ(err.find('\n'), err.size() - 1) << outcome.err;
        EXPECT_NE(err.find(advice), std::string::npos) << outcome.err;
    }
    void expectNothingWritten() {
        std::filesystem::create_directory(path("out"));
        for (const auto& entry : std::filesystem::directory_iterator(path("out")))
            ADD_FAILURE() << "left behind: " << entry.path();
    }

    TempDir work_;
};

}  // namespace zorv::test
