#include "core/analysis/health_finding.h"

#include <algorithm>
#include <array>
#include <cmath>
#include <cstddef>
#include <functional>
#include <string_view>

#include "core/analysis/numbers.h"

namespace ferovane {
namespace {

// Beyond it no number of a finding means anything.
constexpr double kMostTold = 1e9;

struct Unit {
    std::string_view between, after;
};
constexpr Unit kRpm{" 转/分，实测 ", " 转/分"}, kCelsius{" °C 变为 ", " °C"};

// Name, `says`, what is expected, `between`, what was measured, `after`; what is absent is left out
// with the text behind it.
struct Sentence {
    std::string_view id, says;
    Unit unit = kCelsius;
};

constexpr std::array<Sentence, 12> kSentences{{
    // by kind
    {"fan-stopped:", " 没有转动，或转速信号中断：目标 ", kRpm},
    {"fan-slow:", " 转速偏低：应为 ", kRpm},
    {"fan-ceiling:", " 达不到额定最高转速：应为 ", kRpm},
    {"fan-unasked:", " 未受指示而转动，或转得过快：目标 ", kRpm},
    {"fan-silent:", " 转速信号中断，风扇很可能仍在转动：目标 ", kRpm},
    {"sensor-frozen:", " 读数停滞，按周围传感器的变化它应当改变：一直为 "},
    {"sensor-spike:", " 读数出现尖峰，随即返回：由 "},
    {"sensor-offset:", " 读数整体偏移，周围传感器没有变化：由 "},
    {"sensor-gone:", " 不再提供读数"},
    {"hotter:", "处理器到散热器的导热变差（导热膏可能老化），同样负载下升温 "},
    {"hotter:", "处理器散热器到空气的散热变差（可能积灰或风口受阻），同样负载下升温 "},
    {"hotter:", "处理器散热变差（可能积灰或导热膏老化），同样负载下升温 "},
}};

const Sentence& sentenceOf(HealthKind kind) {
    return kSentences.at(static_cast<std::size_t>(kind));
}

std::string dayText(Date date) {
    return iso8601(date).substr(0, std::string_view("2024-05-01").size());
}

}  // namespace

int dayOf(Date date) {
    return static_cast<int>(
        std::clamp(std::floor(date.secondsSinceReference / kDaySeconds), -1e9, 1e9));
}

void Evidence::see(double step, double limit, Date date, std::optional<double> usual,
                   std::optional<double> seen) {
    since = count > 0 ? since : date;
    expected = usual;
    measured = seen;
    count = std::min(count + step, limit);
    raised = raised || count >= limit;
}

void Evidence::miss(double step) {
    count = std::max(count - step, 0.0);
    raised = raised && count > 0;
}

std::string text(const HealthFinding& finding) {
    const auto& [id, says, unit] = sentenceOf(finding.kind);
    std::string all = finding.name;
    all += says;
    const auto put = [&all](std::optional<double> number, std::string_view after) {
        if (ifFinite(number)) {
            const double told = std::clamp(*number, -kMostTold, kMostTold);
            all.append(std::to_string(std::llround(told))).append(after);
        }
    };
    put(finding.evidence.expected, unit.between);
    put(finding.evidence.measured, unit.after);
    if (finding.baseline) {
        all += "；对照 " + dayText(finding.baseline->from) + " 至 " + dayText(finding.baseline->to);
    }
    if (finding.roomUnknown) {
        all += "；没有环境温度传感器，也可能是季节或室温所致，可信度低";
    }
    return all;
}

DiagnosticFinding asDiagnostic(const HealthFinding& finding, Date now) {
    DiagnosticFinding told;
    told.id = std::string(sentenceOf(finding.kind).id) + finding.part;
    told.kind = DiagnosticKind::health;
    told.severity = finding.severity;
    told.confidence = finding.confidence;
    told.subject = text(finding);
    told.value = finding.evidence.measured;
    told.seconds = std::max(now - finding.evidence.since, 0.0);
    return told;
}

void addHealth(std::span<const HealthFinding> health, DiagnosticReport& report) {
    for (const HealthFinding& finding : health) {
        const auto place =
            std::ranges::upper_bound(report.findings, finding.severity, std::ranges::greater{},
                                     &DiagnosticFinding::severity);
        report.findings.insert(place, asDiagnostic(finding, report.date));
        report.attentionCount += finding.severity != DiagnosticSeverity::information ? 1 : 0;
    }
    if (report.attentionCount > 0) {
        report.state = DiagnosticState::attention;
    } else if (!health.empty() && report.state == DiagnosticState::stable) {
        report.state = DiagnosticState::observing;
    }
}

}  // namespace ferovane
