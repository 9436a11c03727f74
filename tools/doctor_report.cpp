#include "doctor_report.h"

#include <fmt/format.h>

#include <algorithm>
#include <nlohmann/json.hpp>

namespace zorv::tools {
namespace {

using nlohmann::json;

constexpr double kMiB = 1024.0 * 1024.0, kGiB = 1024 * kMiB;
constexpr double kBusy = 0.5;  // load per core from which the figures are other programs' too

std::string readable(std::string name) {
    std::replace(name.begin(), name.end(), '_', ' ');
    return name;
}

std::string joined(const std::vector<std::string>& words, const char* between) {
    std::string text;
    for (const std::string& word : words) text += (text.empty() ? "" : between) + word;
    return text;
}

std::string kernels_text(const MachineFacts& machine) {
    std::vector<std::string> words;
    for (const auto& [kernel, path] : machine.kernels)
        words.push_back(readable(kernel) + " " + path);
    return joined(words, ", ");
}

std::string cores_text(const MachineFacts& machine) {
    std::string text = fmt::format("{:.3g} usable ({} by affinity, ", machine.usable_cores(),
                                   machine.allowed_cores);
    text += machine.core_quota ? fmt::format("a quota of {:.3g})", *machine.core_quota)
                               : std::string("no quota)");
    text += fmt::format(", load average {:.1f}", machine.load_average);
    if (machine.load_average > kBusy * machine.usable_cores())
        text += ": other programs are busy, an idle machine does better";
    return text;
}

json machine_json(const MachineFacts& machine) {
    json kernels = json::object();
    for (const auto& [kernel, path] : machine.kernels) kernels[kernel] = path;
    return {
        {"processor", machine.processor},
        {"instruction_sets", machine.instruction_sets},
        {"kernels", kernels},
        {"cores_allowed", machine.allowed_cores},
        {"core_quota", machine.core_quota ? json(*machine.core_quota) : json()},
        {"cores_usable", machine.usable_cores()},
        {"load_average", machine.load_average},
        {"memory_bytes", machine.memory_bytes},
        {"memory_available_bytes", machine.available_bytes},
        {"library_version", machine.library_version},
        {"optimised", machine.optimised},
    };
}

json runtime_json(const RuntimeFacts& runtime) {
    return {{"path", runtime.path},
            {"version", runtime.version},
            {"built_against", fmt::format("1.{}", runtime.built_against)},
            {"matches", runtime.matches()},
            {"usable", runtime.usable}};
}

json live_json(const LiveMeasure& live) {
    json result = json::parse(live_report_json(live.report));
    for (const char* of_a_video : {"output", "lag_frames", "correlation"}) result.erase(of_a_video);
    result["cpu_ms_per_speech_frame"] = live.cpu_ms_per_speech_frame;
    result["session_cores"] = live.cost.cores;
    result["session_memory_bytes"] = static_cast<uint64_t>(live.cost.memory_bytes);
    return result;
}

json batch_json(const BatchMeasure& batch) {
    return {{"frames", batch.frames},
            {"load_seconds", batch.load_seconds},
            {"render_seconds", batch.seconds},
            {"fps", batch.fps()},
            {"times_real_time", batch.fps() / 25},
            {"cpu_ms_per_frame", 1000 * batch.cpu_seconds / batch.frames}};
}

json verdict_json(const Verdict& verdict) {
    return {{"sessions", verdict.sessions},
            {"estimate", verdict.estimate},
            {"confirmed", verdict.confirmed},
            {"text", verdict.text}};
}

}  // namespace

std::string runtime_fault(const RuntimeFacts& runtime) {
    if (runtime.usable) return "";
    return fmt::format(
        "ONNX Runtime {} ({}) does not offer what the library was built against, version 1.{}; "
        "install that version or take LD_LIBRARY_PATH away",
        runtime.version.empty() ? "of no version" : runtime.version, runtime.path,
        runtime.built_against);
}

std::string machine_text(const DoctorReport& report) {
    const MachineFacts& machine = report.machine;
    const RuntimeFacts& runtime = machine.runtime;
    std::string text = fmt::format(
        "processor: {}, {}\nkernels: {}\nmodel runtime: ONNX Runtime {}, {} (built against "
        "1.{}{})\n"
        "cores: {}\nmemory: {:.1f} GiB, {:.1f} GiB of it available\nlibrary: {}{}\n",
        machine.processor,
        machine.instruction_sets.empty() ? "no AVX2" : joined(machine.instruction_sets, " "),
        kernels_text(machine), runtime.version, runtime.path, runtime.built_against,
        runtime.matches() ? "" : ", another version", cores_text(machine),
        static_cast<double>(machine.memory_bytes) / kGiB,
        static_cast<double>(machine.available_bytes) / kGiB, machine.library_version,
        machine.optimised ? "" : ", compiled without optimisation: all figures are too low");
    for (const SlowSwitch& slow : report.switches)
        text += fmt::format("{}={}: {}\n", slow.variable, slow.value, slow.effect);
    return text;
}

std::string live_text(const LiveMeasure& live) {
    return "one live session:\n" + live_report_text(live.report) +
           fmt::format(
               "{:.1f} ms of processor time per speech frame: {:.2f} of a core while it speaks; "
               "{:.0f} MiB of memory\n",
               live.cpu_ms_per_speech_frame, live.cost.cores, live.cost.memory_bytes / kMiB);
}

std::string batch_text(const BatchMeasure& batch) {
    return fmt::format(
        "batch path: {:.1f} frames/s, {:.2f} times real time, {:.1f} ms of processor time per "
        "frame\n",
        batch.fps(), batch.fps() / 25, 1000 * batch.cpu_seconds / batch.frames);
}

std::string run_text(const SessionsRun& run) {
    return fmt::format("{} sessions at a time: {} of {} frames late, {:.2f} cores used\n",
                       run.sessions, run.late, run.due, run.cores);
}

std::string doctor_json(const DoctorReport& report) {
    json result = {
        {"machine", machine_json(report.machine)},
        {"onnxruntime", runtime_json(report.machine.runtime)},
        {"slow_switches", json::array()},
        {"subject", report.subject},
        {"live", report.live ? live_json(*report.live) : json()},
        {"batch", report.batch ? batch_json(*report.batch) : json()},
        {"sessions_run", json::array()},
        {"verdict", report.verdict ? verdict_json(*report.verdict) : json()},
    };
    for (const SlowSwitch& slow : report.switches)
        result["slow_switches"].push_back(
            {{"variable", slow.variable}, {"value", slow.value}, {"effect", slow.effect}});
    for (const SessionsRun& run : report.runs)
        result["sessions_run"].push_back({{"sessions", run.sessions},
                                          {"frames_due", run.due},
                                          {"late_after_first_second", run.late},
                                          {"cpu_per_second", run.cores},
                                          {"failures", run.failures}});
    return result.dump(2, ' ', false, json::error_handler_t::replace) + "\n";
}

}  // namespace zorv::tools
