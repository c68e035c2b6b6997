// Runs every routine beside its yardsticks, and along its sweeps, under Google Benchmark.
//
// Counters of a row: `limit` and `naive`, time of the yardstick over that of the routine;
// `difference` of the routine's results from the naive version's; `scratch`, bytes at the highest
// point beyond inputs and outputs, and `documented`, what the docstring says; `added`, what an option
// adds to the time, as a share of what the case compares it with. Counters of a point:
// `cost` and `limit_cost`, times over that of a fixed stretch of arithmetic. All but the `threads`
// sweeps run on one thread. CTESSEL_QUICK in the environment: smallest sizes, few rounds.

#include <benchmark/benchmark.h>
#include <omp.h>

#include <cstdlib>

#include "memory.h"
#include "routine.h"

namespace {

using namespace bench;

const bool kQuick = std::getenv("CTESSEL_QUICK");
const Timing kRowTiming{kQuick ? 0.05 : 2.0, kQuick ? 1u : 3u};
const Timing kPointTiming{kQuick ? 0.01 : 0.15, kQuick ? 1u : 3u};

/// Runs both once; false where results disagree, which is reported as an error.
bool agree(benchmark::State& state, const Case& c) {
  if (c.prepare) c.prepare();
  c.kernel();
  c.naive();
  const double difference = c.difference();
  state.counters["difference"] = difference;
  if (difference <= c.tolerance) return true;
  const std::string text = "the result differs from the naive version's by " +
                           std::to_string(difference) + " of the largest value";
  state.SkipWithError(text.c_str());
  return false;
}

void measure_memory(benchmark::State& state, const Case& c) {
  if (c.prepare) c.prepare();
  const double peak = static_cast<double>(peak_memory(c.kernel));
  state.counters["scratch"] = std::max(0.0, peak - c.output);
  state.counters["documented"] = c.documented;
}

Setting smaller(Setting s) {
  if (s.samples() < 1e6) return s;
  s.volumes = std::min(s.volumes, 2);
  s.nx = s.ny = 48;
  s.nz = std::min(s.nz, 8);
  s.n = std::min(s.n, 30000);
  return s;
}

/// Times `sides` and after them the limits of a case. The limits' times come back as one, the
/// longest of them, whose kind goes to `kind`; -1 without limits.
std::vector<double> time_with_limits(std::vector<Side> sides, const std::vector<Limit>& limits,
                                     const Timing& timing, Kind& kind) {
  const std::size_t count = sides.size();
  std::vector<double> times;
  for (const Limit& limit : limits) {
    const Yardstick best = yardstick(limit);
    sides.push_back(best.side);
    times.push_back(best.times);
  }
  std::vector<double> ratios = against_first(sides, timing);
  double longest = -1;
  for (std::size_t i = 0; i < limits.size(); ++i) {
    if (times[i] * ratios[count + i] <= longest) continue;
    longest = times[i] * ratios[count + i];
    kind = limits[i].kind;
  }
  ratios.resize(count);
  ratios.push_back(longest);
  return ratios;
}

void run_row(benchmark::State& state, const Routine& routine, const Row& row) {
  omp_set_num_threads(1);
  for (auto _ : state) {
    const Case c = routine.make(kQuick ? smaller(row.setting) : row.setting);
    if (!agree(state, c)) return;
    measure_memory(state, c);
    Kind kind = Kind::kNone;
    const std::vector<double> ratios =
        time_with_limits({{c.kernel, c.prepare}, {c.naive, c.prepare}}, c.limits, kRowTiming, kind);
    state.counters["naive"] = ratios[1];
    if (c.part) {
      const std::vector<double> times =
          against_first({{c.part, {}}, {c.kernel, {}}, {c.without, {}}}, kRowTiming);
      state.counters["added"] = times[1] - times[2];
    }
    if (!c.limits.empty()) state.counters["limit"] = ratios[2];
    state.SetLabel(name(kind));
  }
}

void run_point(benchmark::State& state, const Routine& routine, const Point& point,
               clockid_t clock) {
  static const Side unit = yardstick({Kind::kDouble, 1}).side;
  omp_set_num_threads(point.threads);
  for (auto _ : state) {
    const Case c = routine.make(point.setting);
    Timing timing = kPointTiming;
    timing.clock = clock;
    Kind kind = Kind::kNone;
    const std::vector<double> costs =
        time_with_limits({unit, {c.kernel, c.prepare}}, c.limits, timing, kind);
    state.counters["x"] = point.x;
    state.counters["cost"] = costs[1];
    if (!c.limits.empty()) state.counters["limit_cost"] = costs[2];
  }
  omp_set_num_threads(1);
}

template <class F>
void add(const std::string& name, const F& f) {
  benchmark::RegisterBenchmark(name.c_str(), f)->Iterations(1)->Unit(benchmark::kMillisecond);
}

void register_routine(const Routine& routine) {
  for (const Row& row : routine.rows) {
    add("row/" + routine.name + "/" + row.data,
        [=](benchmark::State& state) { run_row(state, routine, row); });
  }
  for (const Sweep& sweep : routine.sweeps) {
    const std::string name = sweep.axis + "/" + routine.name + "/";
    const clockid_t clock = sweep.axis == "threads" ? CLOCK_MONOTONIC : CLOCK_THREAD_CPUTIME_ID;
    for (std::size_t i = 0; i < sweep.points.size(); ++i) {
      if (kQuick && i > 3) break;
      const Point point = sweep.points[i];
      add(name + std::to_string(i),
          [=](benchmark::State& state) { run_point(state, routine, point, clock); });
    }
  }
}

}  // namespace

int main(int argc, char** argv) {
  for (const auto& routines :
       {array_routines, sense_routines, geometry_routines, homodyne_routines, helper_routines}) {
    for (const Routine& routine : routines()) register_routine(routine);
  }
  benchmark::Initialize(&argc, argv);
  if (benchmark::ReportUnrecognizedArguments(argc, argv)) return 2;
  benchmark::RunSpecifiedBenchmarks();
  return 0;
}
