// zorv doctor: does the library run well on this machine, and how many live sessions at a time?
#include <cstdio>
#include <cstdlib>
#include <filesystem>

#include "commands.h"
#include "doctor_report.h"
#include "failure.h"
#include "input_check.h"
#include "look_ahead.h"

namespace fs = std::filesystem;

namespace zorv::tools {
namespace {

/** The demo subject of the checkout that the program was built in, or of the current one. */
std::string demo_subject() {
    std::error_code error;
    const fs::path program = fs::read_symlink("/proc/self/exe", error);
    // build/PRESET/bin/zorv beside build/demo
    const fs::path beside = program.parent_path().parent_path().parent_path() / "demo";
    if (!error && fs::is_directory(beside / "bundle", error)) return beside.string();
    return "build/demo";
}

BenchmarkSubject subject_of(const DoctorOptions& options) {
    BenchmarkSubject subject;
    const std::string& dir = options.subject;
    subject.bundle = options.bundle.empty() ? dir + "/bundle" : options.bundle;
    subject.motion_dir = options.motion_dir.empty() ? dir + "/motion" : options.motion_dir;
    subject.encoder = options.encoder.empty() ? dir + "/speech_encoder.onnx" : options.encoder;
    subject.threads = options.threads;
    return subject;
}

void check_subject(const BenchmarkSubject& subject) {
    std::error_code error;
    if (!fs::is_directory(subject.bundle, error))
        fail(
            "no subject to measure with, '{}' is not there; make the demo subject with "
            "scripts/demo.sh and name its folder build/demo with --subject",
            subject.bundle);
    check_is_bundle(subject.bundle);
    if (!fs::is_directory(subject.motion_dir, error))
        fail("no directory '{}'; name one of motion models with --motion-dir", subject.motion_dir);
    if (!fs::is_regular_file(subject.encoder, error))
        fail("no speech encoder '{}'; name one with --encoder", subject.encoder);
    if (is_expression_dir(subject.motion_dir)) name_encoder(subject.encoder);
}

/** Text comes out as soon as it is known, JSON at the end. */
class Teller {
  public:
    explicit Teller(bool json) : json_(json) {}
    void tell(const std::string& text) const {
        if (json_) return;
        std::fwrite(text.data(), 1, text.size(), stdout);
        std::fflush(stdout);
    }
    void finish(const DoctorReport& report) const {
        if (json_) fmt::print("{}", doctor_json(report));
    }

  private:
    bool json_;
};

void benchmark(DoctorReport& report, const BenchmarkSubject& subject, const DoctorOptions& options,
               const Teller& teller) {
    teller.tell(fmt::format("measuring with {}, for about 20 seconds\n", report.subject));
    report.live = measure_live(subject, options.speech_seconds);
    teller.tell(live_text(*report.live));
    report.batch = measure_batch(subject);
    teller.tell(batch_text(*report.batch));

    const MachineFacts& machine = report.machine;
    const Capacity capacity = {machine.usable_cores(),
                               static_cast<double>(machine.available_bytes)};
    const SessionCost& cost = report.live->cost;
    report.runs = {report.live->run};
    while (const int sessions =
               next_run(estimated_sessions(cost, capacity), options.most_sessions, report.runs)) {
        report.runs.push_back(measure_sessions(subject, sessions, options.speech_seconds));
        teller.tell(run_text(report.runs.back()));
    }
    report.verdict = judge(cost, capacity, report.runs);
}

}  // namespace

int doctor(DoctorOptions options) {
    if (options.subject.empty()) options.subject = demo_subject();
    const BenchmarkSubject subject = subject_of(options);
    const Teller teller(options.json);
    DoctorReport report;
    report.subject = subject.bundle;
    report.machine = machine_facts();
    report.switches =
        slow_switches([](const char* name) -> const char* { return std::getenv(name); },
                      report.machine.best_level(), report.machine.usable_cores());
    teller.tell(machine_text(report));
    if (const std::string fault = runtime_fault(report.machine.runtime); !fault.empty()) {
        report.verdict.emplace().text = "The library cannot run here: " + fault;
    } else {
        try {
            check_subject(subject);
            benchmark(report, subject, options, teller);
        } catch (const Failure&) {
            teller.finish(report);  // the machine's facts are true all the same
            throw;
        }
    }
    teller.tell(fmt::format("verdict: {}\n", report.verdict->text));
    if (options.bundle.empty() && report.live)
        teller.tell(
            "The demo subject's models are small formulas: measure a trained subject with "
            "--bundle, "
            "--motion-dir and --encoder.\n");
    teller.finish(report);
    return report.verdict->sessions > 0 ? 0 : 1;
}

}  // namespace zorv::tools
