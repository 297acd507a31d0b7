// Why the machine is hot or slow, in a few honest sentences.
#pragma once

#include <optional>

#include "core/analysis/diagnostic_evidence.h"
#include "core/analysis/diagnostic_input.h"
#include "core/analysis/diagnostic_report.h"
#include "core/model/date.h"

namespace ferovane {

// Reports what the system itself says, calls a temperature high only after it has lasted, names at
// most two applications for their CPU use and one for its disk use, and concludes nothing while
// data are missing or the observation is short. A plain value with one owner, no locking; it needs
// no reset, since a gap of more than 15 s between two inputs begins a new observation.
class DiagnosticEngine {
public:
    // To be called once per sample, in the order of time. An input's processes count as missing
    // when they were listed more than 15 s before or after its sample.
    DiagnosticReport evaluate(const DiagnosticInput& input);

    std::optional<Date> last() const { return last_; }  // of the previous input
    double observed() const { return observed_; }       // seconds without a gap, at most 60
    double hotSeconds() const { return hotSeconds_; }   // for which `hotSource` has been hot
    std::optional<HotSource> hotSource() const { return hotSource_; }

private:
    void follow(Date date, std::optional<HotSource> hot);

    std::optional<Date> last_;
    double observed_ = 0;
    double hotSeconds_ = 0;
    std::optional<HotSource> hotSource_;
};

}  // namespace ferovane
