#include "examples/finding_text.h"

#include <cmath>

namespace {

using namespace ferovane;

constexpr double kBytesPerMegabyte = 1e6;

std::string whole(double number) {
    return std::to_string(std::llround(number));
}

// " 91 °C", or nothing when the finding has no value.
std::string valueText(const DiagnosticFinding& finding, const char* unit, double scale = 1) {
    return finding.value ? " " + whole(*finding.value / scale) + " " + unit : "";
}

std::string spanText(const DiagnosticFinding& finding) {
    return finding.seconds ? "（观察 " + whole(*finding.seconds) + " 秒）" : "";
}

}  // namespace

std::string textOf(DiagnosticState state) {
    switch (state) {
        case DiagnosticState::sampling:
            return "正在采样";
        case DiagnosticState::attention:
            return "需要注意";
        case DiagnosticState::observing:
            return "正在观察";
        case DiagnosticState::stable:
            return "状态稳定";
        case DiagnosticState::partial:
            return "数据不完整";
    }
    return "";
}

std::string textOf(const DiagnosticFinding& finding) {
    const std::string subject = finding.subject.value_or("");
    switch (finding.kind) {
        case DiagnosticKind::thermalPressure:
            return "系统报告散热压力";
        case DiagnosticKind::thermalLimit:
            return "系统因散热压力限制了性能";
        case DiagnosticKind::performanceLimit:
            return "系统限制了处理器速度" + valueText(finding, "%");
        case DiagnosticKind::temperature:
            return subject + " 持续高温" + valueText(finding, "°C") + spanText(finding);
        case DiagnosticKind::temperatureObservation:
            return subject + " 温度偏高" + valueText(finding, "°C");
        case DiagnosticKind::sustainedCPU:
            return subject + " 持续占用处理器，单核" + valueText(finding, "%") + spanText(finding);
        case DiagnosticKind::memoryPressure:
            return finding.severity == DiagnosticSeverity::critical ? "内存压力严重"
                                                                    : "内存压力偏高";
        case DiagnosticKind::diskActivity:
            return subject + " 持续读写磁盘，每秒" + valueText(finding, "MB", kBytesPerMegabyte) +
                   spanText(finding);
        case DiagnosticKind::wakeRequests:
            return "阻止休眠的请求：" + valueText(finding, "项");
        case DiagnosticKind::batteryPolicy:
            return "电量" + valueText(finding, "%") + "，可以开启低电量模式";
        case DiagnosticKind::unavailable:
            return "部分数据不可用，结论可能不完整";
        case DiagnosticKind::health:
            return subject;
    }
    return "";
}
