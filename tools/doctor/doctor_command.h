// zorv doctor: does the library run well on this machine, and how many live sessions at a time?
#pragma once

#include <string>

namespace zorv::tools {

struct DoctorOptions {
    std::string subject;  // folder that scripts/demo.sh makes; "": where it is looked for
    std::string bundle, motionDir, encoder;  // instead of the subject's
    int threads = 1;                         // of the models, per session
    int speechSeconds = 3;                   // of each line
    int mostSessions = 16;                   // at a time
    bool json = false;
};
/// Prints the report. Returns 0 when the machine carries a live session, else 1; fails when that
///  cannot be found out.
int doctor(DoctorOptions options);

}  // namespace zorv::tools
