#include "core/analysis/sensor_component.h"

namespace ferovane {

std::string_view title(SensorComponent component) {
    switch (component) {
        case SensorComponent::cpu:
            return "处理器";
        case SensorComponent::gpu:
            return "图形处理器";
        case SensorComponent::memory:
            return "内存";
        case SensorComponent::storage:
            return "存储";
        case SensorComponent::battery:
            return "电池";
        case SensorComponent::wireless:
            return "无线网络";
        case SensorComponent::fan:
            return "风扇";
        case SensorComponent::power:
            return "供电";
        case SensorComponent::unknown:
            return "用途未识别";
    }
    return {};
}

}  // namespace ferovane
