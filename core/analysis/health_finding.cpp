#include "core/analysis/health_finding.h"

#include <algorithm>
#include <array>
#include <cmath>
#include <functional>
#include <string_view>

namespace ferovane {
namespace {

// Name, `says`, what is expected, `but`, what was measured, `unit`; what is absent is left out with
// the text behind it.
struct Sentence {
    HealthKind kind;
    std::string_view id, says, but, unit;
};

constexpr std::string_view kButTurns = " 转/分，实测 ", kRpm = " 转/分", kCelsius = " °C";
constexpr std::string_view kBecame = " °C 变为 ", kHotterId = "hotter:";

constexpr std::array kSentences{
    Sentence{HealthKind::fanStopped, "fan-stopped:", "没有转动，或转速信号中断：目标 ", kButTurns,
             kRpm},
    Sentence{HealthKind::fanSlow, "fan-slow:", "转速偏低：应为 ", kButTurns, kRpm},
    Sentence{HealthKind::fanCeiling, "fan-ceiling:", "达不到额定最高转速：应为 ", kButTurns, kRpm},
    Sentence{HealthKind::fanUnasked, "fan-unasked:", "未受指示而转动，或转得过快：目标 ", kButTurns,
             kRpm},
    Sentence{HealthKind::tachometerSilent, "fan-silent:", "转速信号中断，风扇很可能仍在转动：目标 ",
             kButTurns, kRpm},
    Sentence{HealthKind::sensorFrozen,
             "sensor-frozen:",
             " 读数停滞，按周围传感器的变化它应当改变：一直为 ",
             {},
             kCelsius},
    Sentence{HealthKind::sensorSpike, "sensor-spike:", " 读数出现尖峰，随即返回：由 ", kBecame,
             kCelsius},
    Sentence{HealthKind::sensorOffset, "sensor-offset:", " 读数整体偏移，周围传感器没有变化：由 ",
             kBecame, kCelsius},
    Sentence{HealthKind::sensorGone, "sensor-gone:", " 不再提供读数", {}, {}},
    Sentence{HealthKind::hotterToSink,
             kHotterId,
             "处理器到散热器的导热变差（导热膏可能老化），同样负载下升温 ",
             {},
             kCelsius},
    Sentence{HealthKind::hotterToAir,
             kHotterId,
             "处理器散热器到空气的散热变差（可能积灰或风口受阻），同样负载下升温 ",
             {},
             kCelsius},
    Sentence{HealthKind::hotterOverall,
             kHotterId,
             "处理器散热变差（可能积灰或导热膏老化），同样负载下升温 ",
             {},
             kCelsius},
};

const Sentence& sentenceOf(HealthKind kind) {
    return *std::ranges::find(kSentences, kind, &Sentence::kind);
}

std::string dayText(Date date) {
    return iso8601(date).substr(0, std::string_view("2024-05-01").size());
}

}  // namespace

int dayOf(Date date) {
    return static_cast<int>(
        std::clamp(std::floor(date.secondsSinceReference / kDaySeconds), -1e9, 1e9));
}

std::string text(const HealthFinding& finding) {
    const Sentence& sentence = sentenceOf(finding.kind);
    std::string all = finding.name;
    all += sentence.says;
    const auto put = [&all](std::optional<double> number, std::string_view after) {
        if (number) {
            all.append(std::to_string(std::llround(*number))).append(after);
        }
    };
    put(finding.expected, sentence.but);
    put(finding.measured, sentence.unit);
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
    told.value = finding.measured;
    told.seconds = std::max(now - finding.since, 0.0);
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
