#include "doctor_report.h"

#include <fmt/format.h>

#include <algorithm>
#include <nlohmann/json.hpp>

namespace zorv::tools {
namespace {

using nlohmann::json;

constexpr double kMiB = 1024.0 * 1024.0, kGiB = 1024 * kMiB;
constexpr double kBusy = 0.5;  // load per core above which other programs spoil the figures

std::string readable(std::string name) {
    std::replace(name.begin(), name.end(), '_', ' ');
    return name;
}

std::string joined(const std::vector<std::string>& words, const char* between) {
    std::string text;
    for (const std::string& word : words) text += (text.empty() ? "" : between) + word;
    return text;
}

std::string kernelsText(const MachineFacts& machine) {
    std::vector<std::string> words;
    for (const auto& [kernel, path] : machine.kernels) {
        words.push_back(readable(kernel) + " " + path);
    }
    return joined(words, ", ");
}

std::string coresText(const MachineFacts& machine) {
    std::string text =
        fmt::format("{:.3g} usable ({} by affinity, ", machine.usableCores(), machine.allowedCores);
    text += machine.coreQuota ? fmt::format("a quota of {:.3g})", *machine.coreQuota)
                              : std::string("no quota)");
    text += fmt::format(", load average {:.1f}", machine.loadAverage);
    if (machine.loadAverage > kBusy * machine.usableCores()) {
        text += ": other programs are busy, an idle machine does better";
    }
    return text;
}

json machineJson(const MachineFacts& machine) {
    json kernels = json::object();
    for (const auto& [kernel, path] : machine.kernels) kernels[kernel] = path;
    return {
        {"processor", machine.processor},
        {"instruction_sets", machine.instructionSets},
        {"kernels", kernels},
        {"cores_allowed", machine.allowedCores},
        {"core_quota", machine.coreQuota ? json(*machine.coreQuota) : json()},
        {"cores_usable", machine.usableCores()},
        {"load_average", machine.loadAverage},
        {"memory_bytes", machine.memoryBytes},
        {"memory_available_bytes", machine.availableBytes},
        {"library_version", machine.libraryVersion},
        {"optimised", machine.optimised},
    };
}

json runtimeJson(const RuntimeFacts& runtime) {
    return {{"path", runtime.path},
            {"version", runtime.version},
            {"built_against", fmt::format("1.{}", runtime.builtAgainst)},
            {"matches", runtime.matches()},
            {"usable", runtime.usable}};
}

json liveJson(const LiveMeasure& live) {
    json result = json::parse(liveReportJson(live.report));
    for (const char* ofAVideo : {"output", "lag_frames", "correlation"}) result.erase(ofAVideo);
    result["cpu_ms_per_speech_frame"] = live.cpuMsPerSpeechFrame;
    result["session_cores"] = live.cost.cores;
    result["session_memory_bytes"] = static_cast<uint64_t>(live.cost.memoryBytes);
    return result;
}

json batchJson(const BatchMeasure& batch) {
    return {{"frames", batch.frames},
            {"load_seconds", batch.loadSeconds},
            {"render_seconds", batch.seconds},
            {"fps", batch.fps()},
            {"times_real_time", batch.fps() / 25},
            {"cpu_ms_per_frame", 1000 * batch.cpuSeconds / batch.frames}};
}

json verdictJson(const Verdict& verdict) {
    return {{"sessions", verdict.sessions},
            {"estimate", verdict.estimate},
            {"confirmed", verdict.confirmed},
            {"text", verdict.text}};
}

}  // namespace

std::string runtimeFault(const RuntimeFacts& runtime) {
    if (runtime.usable) return "";
    return fmt::format(
        "ONNX Runtime {} ({}) does not offer what the library was built against, version 1.{}; "
        "install that version or take LD_LIBRARY_PATH away",
        runtime.version.empty() ? "of no version" : runtime.version, runtime.path,
        runtime.builtAgainst);
}

std::string machineText(const DoctorReport& report) {
    const MachineFacts& machine = report.machine;
    const RuntimeFacts& runtime = machine.runtime;
    std::string text = fmt::format(
        "processor: {}, {}\nkernels: {}\nmodel runtime: ONNX Runtime {}, {} (built against "
        "1.{}{})\n"
        "cores: {}\nmemory: {:.1f} GiB, {:.1f} GiB of it available\nlibrary: {}{}\n",
        machine.processor,
        machine.instructionSets.empty() ? "no AVX2" : joined(machine.instructionSets, " "),
        kernelsText(machine), runtime.version, runtime.path, runtime.builtAgainst,
        runtime.matches() ? "" : ", another version", coresText(machine),
        static_cast<double>(machine.memoryBytes) / kGiB,
        static_cast<double>(machine.availableBytes) / kGiB, machine.libraryVersion,
        machine.optimised ? "" : ", compiled without optimisation: all figures are too low");
    for (const SlowSwitch& slow : report.switches) {
        text += fmt::format("{}={}: {}\n", slow.variable, slow.value, slow.effect);
    }
    return text;
}

std::string liveText(const LiveMeasure& live) {
    return "one live session:\n" + liveReportText(live.report) +
           fmt::format(
               "{:.1f} ms of processor time per speech frame: {:.2f} of a core while it speaks; "
               "{:.0f} MiB of memory\n",
               live.cpuMsPerSpeechFrame, live.cost.cores, live.cost.memoryBytes / kMiB);
}

std::string batchText(const BatchMeasure& batch) {
    return fmt::format(
        "batch path: {:.1f} frames/s, {:.2f} times real time, {:.1f} ms of processor time per "
        "frame\n",
        batch.fps(), batch.fps() / 25, 1000 * batch.cpuSeconds / batch.frames);
}

std::string runText(const SessionsRun& run) {
    return fmt::format("{} sessions at a time: {} of {} frames late, {:.2f} cores used\n",
                       run.sessions, run.late, run.due, run.cores);
}

std::string doctorJson(const DoctorReport& report) {
    json result = {
        {"machine", machineJson(report.machine)},
        {"onnxruntime", runtimeJson(report.machine.runtime)},
        {"slow_switches", json::array()},
        {"subject", report.subject},
        {"live", report.live ? liveJson(*report.live) : json()},
        {"batch", report.batch ? batchJson(*report.batch) : json()},
        {"sessions_run", json::array()},
        {"verdict", report.verdict ? verdictJson(*report.verdict) : json()},
    };
    for (const SlowSwitch& slow : report.switches) {
        result["slow_switches"].push_back(
            {{"variable", slow.variable}, {"value", slow.value}, {"effect", slow.effect}});
    }
    for (const SessionsRun& run : report.runs) {
        result["sessions_run"].push_back({{"sessions", run.sessions},
                                          {"frames_due", run.due},
                                          {"late_after_first_second", run.late},
                                          {"cpu_per_second", run.cores},
                                          {"failures", run.failures}});
    }
    return result.dump(2, ' ', false, json::error_handler_t::replace) + "\n";
}

}  // namespace zorv::tools
