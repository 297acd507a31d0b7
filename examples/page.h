// A day of a monitor as one page of HTML, to look at and to send along.
#pragma once

#include <string>
#include <vector>

#include "core/analysis/diagnostic_report.h"
#include "core/analysis/heat_model.h"
#include "core/analysis/metric_chart.h"
#include "core/analysis/monitor_histories.h"
#include "core/analysis/sensor_catalog.h"
#include "core/model/snapshot.h"

// What is shown beside the histories, all as of the snapshot's date.
struct PageMoment {
    const ferovane::Snapshot& snapshot;        // the last one
    const ferovane::DiagnosticReport& report;  // what the diagnosis makes of it
    // The days that a heat model may be fitted from, oldest first.
    std::vector<ferovane::RecordedDay> days;
    ferovane::UtcOffset offset;  // of the clock that the page tells the time by
};

// The short list that a user sees first.
std::vector<ferovane::CommonSensorReading> commonSensors(const ferovane::Snapshot& snapshot);

// Every view, drawn from the library's coordinates and texts: a document that is whole in itself,
// asks for nothing from anywhere, and is well-formed XML as well. Whatever names sensors, processes
// and modes have, they are text in it.
std::string pageOf(const ferovane::MonitorHistories& histories, const PageMoment& moment);
