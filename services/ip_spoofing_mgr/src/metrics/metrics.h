#pragma once

#include <prometheus/histogram.h>
#include <prometheus/metric_family.h>

#include <chrono>
#include <cstdint>
#include <vector>

#include "clients/client_server.h"
#include "control/commands.h"
#include "engine/engine.h"
#include "guard/guard.h"
#include "table/table.h"

namespace mgr {

/// Counts batches and how long the dataplane took for them. Loop thread only.
class BatchMeter final {
 public:
  void Record(bool full, size_t requests, std::chrono::nanoseconds took);
  void AddTo(std::vector<prometheus::MetricFamily>* families) const;

 private:
  struct Kind {
    uint64_t batches = 0;
    uint64_t requests = 0;
  };
  Kind change_, full_;
  prometheus::Histogram seconds_{{0.0001, 0.00025, 0.001, 0.0025, 0.01, 0.025, 0.1, 0.25, 1.0, 2.5}};
};

/// What the metrics tell of. All borrowed.
struct MetricsSources {
  const Table& table;
  const Engine& engine;
  Dataplane& dataplane;
  const ClientServer& clients;
  const Commands& commands;
  const Guard& guard;
  const BatchMeter& batches;
};

/// Everything that the manager measures, at this moment; docs/operator-guide.md says what each metric means. Loop
/// thread only; walks all entries.
std::vector<prometheus::MetricFamily> MetricFamilies(const MetricsSources& sources);

}  // namespace mgr
