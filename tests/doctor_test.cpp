// zorv doctor: facts, verdicts and advice. What the machine measures is reported, never judged
// here.
#include <gtest/gtest.h>
#include <zorv_core.h>

#include <algorithm>
#include <cstdlib>
#include <filesystem>
#include <map>
#include <nlohmann/json.hpp>
#include <string>
#include <vector>

#include "cgroup_limits.h"
#include "doctor_report.h"
#include "environment_check.h"
#include "session_verdict.h"
#include "support/program.h"
#include "support/test_bundle.h"
#include "support/test_motion.h"

namespace fs = std::filesystem;

namespace zorv {
namespace {

using nlohmann::json;
using test::Outcome;
using tools::SessionsRun;

const std::vector<std::string> kKernels = {"compositor",       "grid_sampler",  "half_conversion",
                                           "int8_convolution", "pixel_packing", "speech_spectrum",
                                           "yuv_conversion"};

class DoctorCommand : public test::ProgramTest {
  protected:
    /// The report of a machine without a subject, which is an error of its own.
    json facts(const char* simd) {
        const Outcome outcome = run({"doctor", "--subject", path("nothing"), "--json"}, [simd] {
            if (simd) {
                setenv("ZORV_SIMD", simd, 1);
            } else {
                unsetenv("ZORV_SIMD");
            }
        });
        expectAdvice(outcome, 2, "make the demo subject with scripts/demo.sh");
        return json::parse(outcome.out, nullptr, false);
    }
};

bool has(const json& list, const std::string& value) {
    return std::find(list.begin(), list.end(), value) != list.end();
}

TEST_F(DoctorCommand, TellsTheMachineWithoutASubject) {
    const json report = facts(nullptr);
    const json& machine = report["machine"];
    const json& sets = machine["instruction_sets"];
    const std::string best = has(sets, "avx512") ? "avx512"
                             : has(sets, "avx2") ? "avx2"
                                                 : "portable";
    const std::string two = has(sets, "avx2") ? "avx2" : "portable";
    const std::string dot = has(sets, "avx512_vnni") ? "avx512"
                            : has(sets, "avx_vnni")  ? "avxvnni"
                                                     : two;
    const json expected = {{"compositor", best},      {"grid_sampler", best},
                           {"int8_convolution", dot}, {"speech_spectrum", best},
                           {"half_conversion", two},  {"pixel_packing", two},
                           {"yuv_conversion", two}};
    EXPECT_EQ(machine["kernels"], expected);
    EXPECT_GT(machine["cores_usable"], 0);
    EXPECT_LE(machine["cores_usable"], machine["cores_allowed"]);
    EXPECT_GT(machine["memory_available_bytes"], 1 << 20);
    EXPECT_LE(machine["memory_available_bytes"], machine["memory_bytes"]);
    EXPECT_TRUE(report["onnxruntime"]["matches"]);
    EXPECT_TRUE(fs::is_regular_file(report["onnxruntime"]["path"].get<std::string>()));
    EXPECT_TRUE(report["live"].is_null());
    EXPECT_TRUE(report["verdict"].is_null());
    const Outcome text = run({"doctor", "--subject", path("nothing")});
    EXPECT_NE(text.out.find("kernels: compositor "), std::string::npos) << text.out;
}

TEST_F(DoctorCommand, ShowsALoweredInstructionSet) {
    const json report = facts("portable");
    for (const std::string& kernel : kKernels) {
        EXPECT_EQ(report["machine"]["kernels"][kernel], "portable") << kernel;
    }
    EXPECT_EQ(zorv_kernel_path("no such kernel"), nullptr);
    EXPECT_EQ(zorv_kernel_path(nullptr), nullptr);
}

TEST_F(DoctorCommand, MistakesEndInOneLineOfAdvice) {
    test::TestBundle bundle;
    const test::TestMotion motion;
    const auto with = [&](const std::string& dir, const std::string& models,
                          const std::string& encoder) {
        return run({"doctor", "--bundle", dir, "--motion-dir", models, "--encoder", encoder,
                    "--speech", "1", "--most", "1"});
    };
    const std::string encoder = test::modelFile("encoder");
    expectAdvice(with(work_.path(), motion.dir(), encoder), 2, "holds no manifest.json");
    expectAdvice(with(bundle.dir(), path("nothing"), encoder), 2, "with --motion-dir");
    expectAdvice(with(bundle.dir(), motion.dir(), path("nothing")), 2, "with --encoder");
    bundle.truncate("P.f16");
    expectAdvice(with(bundle.dir(), motion.dir(), encoder), 2, "P.f16");
    expectAdvice(run({"doctor", "--speech", "0"}), 2, "--speech");
}

TEST_F(DoctorCommand, ARuntimeThatIsTooOldIsNamed) {
    const Outcome outcome =
        run({"doctor", "--json"}, [] { setenv("LD_LIBRARY_PATH", ZORV_OLD_RUNTIME, 1); });
    EXPECT_EQ(outcome.code, 1) << outcome.err;
    const json report = json::parse(outcome.out, nullptr, false);
    EXPECT_EQ(report["onnxruntime"]["version"], "1.2.3");
    EXPECT_FALSE(report["onnxruntime"]["matches"]);
    EXPECT_EQ(report["verdict"]["sessions"], 0);
    const std::string text = report["verdict"].value("text", "");
    for (const char* words : {"1.2.3", ZORV_OLD_RUNTIME, "install that version"}) {
        EXPECT_NE(text.find(words), std::string::npos) << text;
    }
}

TEST_F(DoctorCommand, MeasuresTheWholeWay) {
    test::TestBundle bundle;
    bundle.useModel("b24_fp32", "render_b4");
    fs::copy_file(test::modelFile("fca_stream"), bundle.path("fca_stream.onnx"),
                  fs::copy_options::overwrite_existing);
    const test::TestMotion motion;
    const Outcome outcome =
        run({"doctor", "--bundle", bundle.dir(), "--motion-dir", motion.dir(), "--encoder",
             test::modelFile("encoder"), "--speech", "1", "--most", "2", "--json"});
    const json report = json::parse(outcome.out, nullptr, false);
    ASSERT_TRUE(report.is_object()) << outcome.out << outcome.err;
    EXPECT_EQ(report["subject"], bundle.dir());
    const json& live = report["live"];
    EXPECT_EQ(live["due_speech_frames"], 25);
    EXPECT_EQ(live["shown_speech_frames"], 25);
    for (const char* name : {"ready_seconds", "first_frame_finished_ms", "first_frame_pulled_ms",
                             "interrupt_to_frame_ms", "render_ms", "cpu_per_second",
                             "cpu_ms_per_speech_frame", "session_cores", "session_memory_bytes"}) {
        EXPECT_GT(live[name], 0) << name;
    }
    EXPECT_GE(live["late_frames"], live["late_after_first_second"]);
    EXPECT_EQ(report["batch"]["frames"].get<int>() % 100, 0) << "whole clips of 4 s";
    EXPECT_GT(report["batch"]["fps"], 0);
    EXPECT_GT(report["batch"]["cpu_ms_per_frame"], 0);
    ASSERT_GE(report["sessions_run"].size(), 1u);
    EXPECT_GT(report["sessions_run"].back()["frames_due"], 25 * report["sessions_run"].size());
    const int sessions = report["verdict"]["sessions"];
    EXPECT_EQ(outcome.code, sessions > 0 ? 0 : 1);
}

TEST(SessionVerdict, FollowsTheScarcerOfCoresAndMemory) {
    const double gib = 1 << 30;
    EXPECT_EQ(tools::estimatedSessions({0.3, gib / 2}, {2, 100 * gib}), 4) << "0.7 x 2 / 0.3";
    EXPECT_EQ(tools::estimatedSessions({0.3, 2 * gib}, {2, 8 * gib}), 3) << "0.8 x 8 / 2";
    EXPECT_EQ(tools::estimatedSessions({0.7, 0}, {1, 0}), 1) << "just so, memory unknown";
    EXPECT_EQ(tools::estimatedSessions({0.71, 0}, {1, gib}), 0);
    EXPECT_EQ(tools::estimatedSessions({0, gib}, {8, 8 * gib}), 0) << "nothing was measured";
    EXPECT_EQ(tools::estimatedSessions({1e-12, 1}, {8, 8 * gib}), 10000) << "no overflow";
}

SessionsRun runOf(int sessions, int due, int late, const std::string& failure = "") {
    SessionsRun run;
    run.sessions = sessions;
    run.due = due;
    run.late = late;
    run.failures = failure.empty() ? 0 : 1;
    run.failure = failure;
    return run;
}

TEST(SessionVerdict, RunsWhatItEstimatesAndHalfOfItWhenThatFails) {
    const SessionsRun one = runOf(1, 200, 2), slow = runOf(6, 1200, 13), good = runOf(6, 1200, 12);
    EXPECT_FALSE(runOf(1, 200, 3).keptUp());
    EXPECT_FALSE(runOf(1, 0, 0).keptUp());
    EXPECT_EQ(tools::nextRun(6, 16, {one}), 6);
    EXPECT_EQ(tools::nextRun(60, 16, {one}), 16);
    EXPECT_EQ(tools::nextRun(1, 16, {one}), 0);
    EXPECT_EQ(tools::nextRun(6, 16, {runOf(1, 200, 9)}), 0);
    EXPECT_EQ(tools::nextRun(6, 16, {one, good}), 0);
    EXPECT_EQ(tools::nextRun(6, 16, {one, slow}), 3);
    EXPECT_EQ(tools::nextRun(3, 16, {one, runOf(3, 600, 60)}), 0) << "one ran already";
    EXPECT_EQ(tools::nextRun(6, 16, {one, slow, runOf(3, 600, 60)}), 0);
}

TEST(SessionVerdict, SaysWhatWasSeenAndWhatIsAnEstimate) {
    const tools::Capacity two = {2, 4.0 * (1 << 30)}, sixty = {60, 64.0 * (1 << 30)};
    const SessionsRun one = runOf(1, 200, 0), late = runOf(4, 800, 100);
    const auto judge = [&](const tools::Capacity& capacity, const std::vector<SessionsRun>& runs,
                           const std::string& words) {
        const tools::Verdict verdict = tools::judge({0.3, 1 << 28}, capacity, runs);
        EXPECT_NE(verdict.text.find(words), std::string::npos) << verdict.text;
        return std::pair(verdict.sessions, verdict.confirmed);
    };
    using P = std::pair<int, bool>;
    EXPECT_EQ(judge(two, {one, runOf(4, 800, 3)}, "carries 4 live sessions"), P(4, true));
    EXPECT_EQ(judge(sixty, {one, runOf(16, 3200, 0)}, "by estimate"), P(140, false));
    EXPECT_EQ(judge(two, {one, late, runOf(2, 400, 0)}, "100 of 800"), P(2, true));
    EXPECT_EQ(judge(two, {one, late, runOf(2, 400, 40)}, "1 live session of"), P(1, true));
    EXPECT_EQ(judge({0.4, 1e9}, {one}, "nothing to spare"), P(1, true));
    EXPECT_EQ(judge(two, {runOf(1, 200, 50)}, "50 were late"), P(0, false));
    EXPECT_EQ(judge(two, {runOf(1, 200, 0, "bad model")}, "bad model"), P(0, false));
}

TEST(CgroupLimits, TheTightestOfAllLevelsHolds) {
    const test::TempDir dir;
    const auto put = [&dir](const std::string& name, const std::string& text) {
        fs::create_directories((fs::path(dir.path()) / name).parent_path());
        test::writeFile(dir.path() + "/" + name, text);
    };
    put("a/b/cpu.max", "max 100000\n");
    put("a/cpu.max", "150000 100000\n");
    put("cpu.max", "400000 100000\n");
    put("a/b/memory.max", "1000000\n");
    put("a/memory.max", "max\n");
    auto limits = tools::readCgroupLimits("0::/a/b\n", dir.path());
    EXPECT_EQ(limits.cores, 1.5);
    EXPECT_EQ(limits.memoryBytes, 1000000u);
    // Of a host's path nothing is left in a container but the mount itself.
    limits = tools::readCgroupLimits("0::/host/path\n", dir.path());
    EXPECT_EQ(limits.cores, 4);
    EXPECT_FALSE(limits.memoryBytes);

    put("cpu/x/cpu.cfs_quota_us", "50000\n");
    put("cpu/x/cpu.cfs_period_us", "100000\n");
    put("cpu/cpu.cfs_quota_us", "-1\n");
    put("cpu/cpu.cfs_period_us", "100000\n");
    put("memory/memory.limit_in_bytes", "9223372036854771712\n");
    limits =
        tools::readCgroupLimits("9:name=systemd:/\n2:cpu,cpuacct:/x\n4:memory:/y\n", dir.path());
    EXPECT_EQ(limits.cores, 0.5);
    EXPECT_FALSE(limits.memoryBytes) << "a huge number stands for no limit";
    limits = tools::readCgroupLimits("garbage\n1:\n", dir.path());
    EXPECT_FALSE(limits.cores);
}

TEST(EnvironmentCheck, NamesWhatTakesSpeedAway) {
    const auto found = [](const std::map<std::string, std::string>& set, const std::string& best) {
        std::string names;
        for (const auto& slow : tools::slowSwitches(
                 [&set](const char* name) -> const char* {
                     const auto at = set.find(name);
                     return at == set.end() ? nullptr : at->second.c_str();
                 },
                 best, 4)) {
            names += slow.variable.substr(5) + " ";
        }
        return names;
    };
    EXPECT_EQ(found({}, "avx512"), "");
    EXPECT_EQ(found({{"ZORV_SIMD", "avx2"}}, "avx512"), "SIMD ");
    for (const char* level : {"avx2", "avx512", "fast"}) {
        EXPECT_EQ(found({{"ZORV_SIMD", level}}, "avx2"), "") << level;
    }
    EXPECT_EQ(found({{"ZORV_GS_FAST", "0"},
                     {"ZORV_INT8", "0"},
                     {"ZORV_INT8_THREADS", "2"},
                     {"ZORV_MOTION_DUMP", "dump"},
                     {"ZORV_ORT_SPIN", "1"}},
                    "avx2"),
              "GS_FAST INT8 ORT_SPIN INT8_THREADS MOTION_DUMP ");
    EXPECT_EQ(
        found({{"ZORV_GS_FAST", "1"}, {"ZORV_INT8_THREADS", "8"}, {"ZORV_ORT_SPIN", "0"}}, "avx2"),
        "");
}

}  // namespace
}  // namespace zorv
