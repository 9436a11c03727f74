#include "doctor_command.h"

#include <cstdio>
#include <cstdlib>
#include <filesystem>

#include "doctor_report.h"
#include "failure.h"
#include "input_check.h"
#include "live_engine.h"

namespace fs = std::filesystem;

namespace zorv::tools {
namespace {

/// The demo subject of the checkout that the program was built in, or of the current one.
std::string demoSubject() {
    std::error_code error;
    const fs::path program = fs::read_symlink("/proc/self/exe", error);
    // build/PRESET/bin/zorv beside build/demo
    const fs::path beside = program.parent_path().parent_path().parent_path() / "demo";
    if (!error && fs::is_directory(beside / "bundle", error)) return beside.string();
    return "build/demo";
}

BenchmarkSubject subjectOf(const DoctorOptions& options) {
    BenchmarkSubject subject;
    const std::string& dir = options.subject;
    subject.bundle = options.bundle.empty() ? dir + "/bundle" : options.bundle;
    subject.motionDir = options.motionDir.empty() ? dir + "/motion" : options.motionDir;
    subject.encoder = options.encoder.empty() ? dir + "/speech_encoder.onnx" : options.encoder;
    subject.threads = options.threads;
    return subject;
}

void checkSubject(const BenchmarkSubject& subject) {
    std::error_code error;
    if (!fs::is_directory(subject.bundle, error)) {
        fail(
            "no subject to measure with, '{}' is not there; make the demo subject with "
            "scripts/demo.sh and name its folder build/demo with --subject",
            subject.bundle);
    }
    checkIsBundle(subject.bundle);
    if (!fs::is_directory(subject.motionDir, error)) {
        fail("no directory '{}'; name one of motion models with --motion-dir", subject.motionDir);
    }
    if (!fs::is_regular_file(subject.encoder, error)) {
        fail("no speech encoder '{}'; name one with --encoder", subject.encoder);
    }
    if (driver::isExpressionDir(subject.motionDir)) nameEncoder(subject.encoder);
}

/// Text comes out as soon as it is known, JSON at the end.
class Teller {
  public:
    explicit Teller(bool json) : json_(json) {}
    void tell(const std::string& text) const {
        if (json_) return;
        std::fwrite(text.data(), 1, text.size(), stdout);
        std::fflush(stdout);
    }
    void finish(const DoctorReport& report) const {
        if (json_) fmt::print("{}", doctorJson(report));
    }

  private:
    bool json_;
};

void benchmark(DoctorReport& report, const BenchmarkSubject& subject, const DoctorOptions& options,
               const Teller& teller) {
    teller.tell(fmt::format("measuring with {}, for about 20 seconds\n", report.subject));
    report.live = measureLive(subject, options.speechSeconds);
    teller.tell(liveText(*report.live));
    report.batch = measureBatch(subject);
    teller.tell(batchText(*report.batch));

    const MachineFacts& machine = report.machine;
    const Capacity capacity = {machine.usableCores(), static_cast<double>(machine.availableBytes)};
    const SessionCost& cost = report.live->cost;
    report.runs = {report.live->run};
    while (const int sessions =
               nextRun(estimatedSessions(cost, capacity), options.mostSessions, report.runs)) {
        report.runs.push_back(measureSessions(subject, sessions, options.speechSeconds));
        teller.tell(runText(report.runs.back()));
    }
    report.verdict = judge(cost, capacity, report.runs);
}

}  // namespace

int doctor(DoctorOptions options) {
    if (options.subject.empty()) options.subject = demoSubject();
    const BenchmarkSubject subject = subjectOf(options);
    const Teller teller(options.json);
    DoctorReport report;
    report.subject = subject.bundle;
    report.machine = machineFacts();
    report.switches =
        slowSwitches([](const char* name) -> const char* { return std::getenv(name); },
                     report.machine.bestLevel(), report.machine.usableCores());
    teller.tell(machineText(report));
    if (const std::string fault = runtimeFault(report.machine.runtime); !fault.empty()) {
        report.verdict.emplace().text = "The library cannot run here: " + fault;
    } else {
        try {
            checkSubject(subject);
            benchmark(report, subject, options, teller);
        } catch (const std::exception&) {
            teller.finish(report);  // the machine's facts are true all the same
            throw;
        }
    }
    teller.tell(fmt::format("verdict: {}\n", report.verdict->text));
    if (options.bundle.empty() && report.live) {
        teller.tell(
            "The demo subject's models are small formulas: measure a trained subject with "
            "--bundle, "
            "--motion-dir and --encoder.\n");
    }
    teller.finish(report);
    return report.verdict->sessions > 0 ? 0 : 1;
}

}  // namespace zorv::tools
